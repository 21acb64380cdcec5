#pragma once
// The Python exception types that stand for host error classes.

#include "runtime/python.hpp"

#include <kest/class.hpp>

namespace sarvode {

/// The Python exception type for a host error class (borrowed; lives for the
/// process): StopIteration for the host StopIteration, RuntimeError for Error,
/// and for every other class a RuntimeError subclass made once, whose class
/// attribute "kest" marks it. Null (with a Python error) when it cannot be made.
PyObject *exceptionTypeFor(const kest::Class_Generic &errorClass);

/// The host error class that a made exception type stands for, or an empty class.
kest::Class_Generic errorClassForExceptionType(PyObject *type);

} // namespace sarvode
