#pragma once
// Python objects into host values.

#include "runtime/python.hpp"

#include <kest/any.hpp>

#include <cstdint>

namespace sarvode {

/// The host form of a Python object (borrowed; may be null). Never throws: a
/// failure is an Error inside the result. The caller holds the interpreter lock.
kest::Any fromPython(PyObject *object);

/// Reads an exact int; false, with the Python error pending, for an int beyond 64 bits.
inline bool int64Of(PyObject *exact_int, std::int64_t &value) {
  const long long read = PyLong_AsLongLong(exact_int);
  value = static_cast<std::int64_t>(read);
  return read != -1 || !PyErr_Occurred();
}
/// The host error for an int beyond 64 bits, from the Python error that `int64Of` left pending.
kest::Any int64OutOfRange();

/// `slot = fromPython(object)`, except that an int refills an Integer that only
/// `slot` holds instead of making a new one (argument slots filled call after call).
void fromPythonInto(kest::Any &slot, PyObject *object);

} // namespace sarvode
