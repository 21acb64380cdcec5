#pragma once
// The slot functions of the KestObject types, and the tables they form.

#include "runtime/python.hpp"

#include <kest/callable.hpp>

#include <exception>
#include <string>
#include <vector>

namespace sarvode {

/// Which sequence and mapping tables a type carries.
enum class sequence_table { reduced, containment, full };

/// The slots of a KestObject type: the common ones, the number table, the
/// chosen sequence table, the mapping table when asked, and the call slot.
std::vector<PyType_Slot> kestObjectSlots(sequence_table sequence, bool mapping, bool callable, const char *doc);

/// The slots every KestObject type has (the call slot only when asked).
std::vector<PyType_Slot> commonSlots(bool callable, const char *doc);

/// The documentation of a KestObject's value of its own (a callable's, a
/// class's, a module's, what I_HasDoc gives): `own` tells whether it has
/// one; null with a Python error when reading it failed, null without one
/// when it has none.
PyObject *kestObjectDoc(PyObject *self, bool &own);

/// The deallocation slot, shared by every KestObject type (it also tells them apart).
void KestObject_dealloc(PyObject *self);

/// Runs a slot body so that no C++ exception reaches the interpreter: it
/// becomes SystemError. `failure` is what the slot returns then.
template <class R, class F> R guarded(R failure, F &&body) {
  try {
    return body();
  } catch (const std::exception &e) {
    PyErr_SetString(PyExc_SystemError, e.what());
  } catch (...) {
    PyErr_SetString(PyExc_SystemError, "unknown host exception");
  }
  return failure;
}

/// The display text of a value's class, for messages.
std::string classDisplay(const kest::Any &value);

/// Calls a host callable with the Python arguments of `args` from index `first`
/// on (keyword arguments become named ones) and converts the result.
PyObject *callWithPythonArguments(const kest::I_Callable_Generic &callable, PyObject *args, PyObject *kwargs,
                                  Py_ssize_t first);

/// Raises a host error as the exception of its class (RuntimeError or one
/// derived from it, carrying the error as `kest`); any other value's text as RuntimeError.
void setRuntimeError(const kest::Any &error);

} // namespace sarvode
