#pragma once
// The nanobind peer: the module built beside the benchmarks, imported from
// the build folder.

#include <Python.h>

namespace bench_nanobind {

/// A nanobind-bound Counter (a new reference); null with a Python error when
/// the module cannot be imported.
PyObject *make_counter();

/// A nanobind-bound Shape(kind, size) (a new reference); null with a Python error.
PyObject *make_shape(const char *kind, double size);

} // namespace bench_nanobind
