#pragma once
// `CPythonObject`: the host class whose instances each hold one Python object.

#include "runtime/python.hpp"

#include <kest/class.hpp>

namespace sarvode {

/// The class, declared on first use.
kest::Class_Generic cpythonObjectClass();

/// A new host wrapper holding a new reference to `object`.
kest::Any newCPythonObject(PyObject *object);

/// A new instance of `cls` (CPythonObject or a class derived from it) holding
/// a new reference to `object`.
kest::Any newPythonWrapper(const kest::Class_Generic &cls, PyObject *object);

/// Stores `object` in a newly allocated wrapper, and marks the wrapper when
/// sandboxed code is handing the object over.
void initialisePythonWrapper(const kest::Any &wrapper, PyObject *object);

/// Stores `object` (a new reference is taken) in the wrapper, releasing the one
/// it held before; the swap happens under the instance's lock, the release after it.
void setPythonObject(const kest::Any &wrapper, PyObject *object);

/// The Python object a host value wraps, as a borrowed pointer that the wrapper
/// keeps alive; null when the value wraps none (looking through computed values
/// and weak references). The caller holds the interpreter lock.
PyObject *pythonObjectOf(const kest::Any &value);

/// True when the value's class marks Python-backed instances.
bool isPythonBacked(const kest::Any &value);

} // namespace sarvode
