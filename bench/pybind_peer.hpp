#pragma once
// A peer binding for comparison: the same small object bound with pybind11.

#include <Python.h>

namespace bench_peer {

/// A pybind11-bound Counter (method add(int), property value); a new reference.
PyObject *make_counter();

/// A pybind11-bound Shape: kind and size, area(), and size as a read-write
/// attribute; the same computation as the host's kest.demo.Shape. A new reference.
PyObject *make_shape(const char *kind, double size);

/// A pybind11-bound sequence of `n` integers that Python can iterate; a new reference.
PyObject *make_numbers(long n);

/// The sum of a Python list of ints, walked and cast by pybind11 from C++
/// (`for (auto h : list) sum += h.cast<long long>()`). The caller holds the
/// interpreter lock; `list` is borrowed.
long long sum_list(PyObject *list);

} // namespace bench_peer
