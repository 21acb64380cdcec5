#pragma once
// Host values into Python.

#include "runtime/python.hpp"

#include <kest/any.hpp>

namespace sarvode {

/// The Python form of a host value: a new reference, or null. Null normally
/// comes with a Python exception (a host Error is raised as one); three cases
/// give null without one: a Python-backed instance that holds no object, a
/// date, time or decimal whose Python class cannot be imported, and a time
/// whose arguments cannot be built. Takes the interpreter lock itself.
PyObject *toPython(const kest::Any &value);
/// The same, for a caller that holds the interpreter lock (slots and other conversions).
PyObject *toPythonLocked(const kest::Any &value);

/// Raises a host error as the Python exception that stands for its class.
void raiseHostError(const kest::Any &error);

/// The attribute that marks the RuntimeError raised for a plain host error
/// (which carries no "kest" attribute), so that it comes back as a host
/// error: the host's own message, which Python shows only when it is not empty.
inline constexpr const char *plain_host_error_marker = "_kest_host_error";

} // namespace sarvode
