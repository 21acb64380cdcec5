#pragma once
// Python types as host classes, and back.

#include "runtime/python.hpp"

#include <kest/class.hpp>

namespace sarvode {

/// The host class for a Python type: the host's own class for built-in types
/// (int -> Integer, str -> String, ...), and for any other class a host class
/// made once and cached. An Error "Not a type." for an object that is no type.
/// The caller holds the interpreter lock.
kest::Any typeFromPython(PyObject *type);

/// The Python type that a host class made by `typeFromPython` stands for
/// (borrowed, kept for the life of the process), or null.
PyObject *pythonTypeOfClass(const kest::Class_Generic &cls);

} // namespace sarvode
