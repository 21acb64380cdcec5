// The benchmarks' nanobind peer: the same C++ classes as the pybind11 peer,
// bound with nanobind, as an ordinary extension module.

#include <nanobind/nanobind.h>
#include <nanobind/stl/string.h>

#include "peer_classes.hpp"

#include <cstdint>
#include <string>

namespace nb = nanobind;

using bench_peer_classes::Counter;
using bench_peer_classes::Shape;

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
