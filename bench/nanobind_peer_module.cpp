// The benchmarks' nanobind peer: the same C++ classes as the pybind11 peer,
// bound with nanobind, as an ordinary extension module.

#include <nanobind/nanobind.h>
#include <nanobind/stl/string.h>

#include <cstdint>
#include <string>

namespace nb = nanobind;

namespace {
struct Counter {
  std::int64_t value = 0;
  void add(std::int64_t n) { value += n; }
};

struct Shape {
  std::string kind;
  double size = 0;
  double area() const {
    constexpr double pi = 3.14159265358979323846;
    if (kind == "circle")
      return pi * size * size;
    if (kind == "triangle")
      return size * size * 0.4330127018922193;
    return size * size;
  }
};
} // namespace

NB_MODULE(bench_nanobind_peer, m) {
  nb::class_<Counter>(m, "Counter")
      .def(nb::init<>())
      .def("add", &Counter::add)
      .def_ro("value", &Counter::value);
  nb::class_<Shape>(m, "Shape")
      .def("__init__", [](Shape *self, std::string kind, double size) { new (self) Shape{std::move(kind), size}; })
      .def("area", &Shape::area)
      .def_rw("size", &Shape::size);
}
