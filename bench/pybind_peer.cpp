// A peer binding for comparison, built with pybind11 (the full C API).

#include "pybind_peer.hpp"
#include "peer_classes.hpp"

#include <pybind11/pybind11.h>

#include <cstdint>
#include <string>
#include <vector>

namespace py = pybind11;

using bench_peer_classes::Counter;
using bench_peer_classes::Shape;

namespace {
struct Numbers {
  std::vector<std::int64_t> items;
};

py::module_ &peer_module() {
  static PyModuleDef def{PyModuleDef_HEAD_INIT, "bench_peer", nullptr, -1, nullptr, nullptr, nullptr, nullptr, nullptr};
  static py::module_ m = [] {
    auto module = py::module_::create_extension_module("bench_peer", nullptr, &def);
    py::class_<Counter>(module, "Counter")
        .def(py::init<>())
        .def("add", &Counter::add)
        .def_readonly("value", &Counter::value);
    py::class_<Shape>(module, "Shape")
        .def(py::init<>())
        .def("area", &Shape::area)
        .def_readwrite("size", &Shape::size);
    py::class_<Numbers>(module, "Numbers")
        .def("__iter__", [](const Numbers &n) { return py::make_iterator(n.items.begin(), n.items.end()); },
             py::keep_alive<0, 1>());
    return module;
  }();
  return m;
}
} // namespace

namespace bench_peer {

PyObject *make_counter() {
  auto &m = peer_module();
  return m.attr("Counter")().release().ptr();
}

PyObject *make_shape(const char *kind, double size) {
  (void)peer_module();
  return py::cast(Shape{kind, size}).release().ptr();
}

PyObject *make_numbers(long n) {
  auto &m = peer_module();
  Numbers numbers;
  for (long i = 0; i < n; ++i)
    numbers.items.push_back(i);
  (void)m;
  return py::cast(std::move(numbers)).release().ptr();
}

long long sum_list(PyObject *list) {
  auto items = py::reinterpret_borrow<py::list>(list);
  long long sum = 0;
  for (auto h : items)
    sum += h.cast<long long>();
  return sum;
}

} // namespace bench_peer
