#pragma once
// Calling into the Python object that a host wrapper holds: the method-call
// operation that every proxy forwards through, and the small steps it is made of.

#include "runtime/python.hpp"

#include <kest/any.hpp>

#include <initializer_list>
#include <span>

namespace sarvode {

/// Calls the Python method `name` of the wrapped object with host arguments
/// and converts the result to a host value. Errors come back as values: a
/// wrapper without an object ("The object is null."), a missing or
/// non-callable method ("The method is missing: {}, target object: {}."), an
/// argument that does not convert (the Python error, or "Unable to convert an
/// argument: {}."), and whatever Python raised. Takes the interpreter lock (in
/// a sandbox scope for objects made by sandboxed code); leaves no error pending.
kest::Any callPythonMethod(const kest::Any &wrapper, const char *name, std::span<const kest::Any> args);
inline kest::Any callPythonMethod(const kest::Any &wrapper, const char *name, std::initializer_list<kest::Any> args) {
  return callPythonMethod(wrapper, name, std::span<const kest::Any>(args.begin(), args.size()));
}

/// The steps above for a caller that holds the interpreter lock and the object.
kest::Any callPythonMethodLocked(PyObject *object, const char *name, std::span<const kest::Any> args);

/// Calls a Python callable with host arguments (positional) and converts the
/// result; the caller holds the interpreter lock.
kest::Any callPythonLocked(PyObject *callable, std::span<const kest::Any> args);

/// A tuple of the host arguments converted to Python; null with the host error
/// in `error` when one does not convert. The caller holds the interpreter lock.
PyObject *pythonArguments(std::span<const kest::Any> args, kest::Any &error);

/// The pending Python error as a host error, or `fallback` when none is
/// pending; nothing is pending afterwards. The caller holds the lock.
kest::Any pythonErrorOr(const kest::Any &fallback);

/// The error of a wrapper that holds no Python object.
kest::Any nullObjectError();

/// Python's repr of an object as host text, for messages (never fails).
std::string reprForMessage(PyObject *object);

} // namespace sarvode
