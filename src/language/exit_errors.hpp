#pragma once
// The host error classes for Python's SystemExit and KeyboardInterrupt, so that
// a host can end as Python would (the exit code is the error's value).

#include "runtime/python.hpp"

#include <kest/class.hpp>

namespace sarvode {

/// "kest.cpython.SystemExit": its value is the exit code (empty for None).
kest::Class_Generic systemExitErrorClass();
/// "kest.cpython.KeyboardInterrupt".
kest::Class_Generic keyboardInterruptErrorClass();

/// The host error class for an exception that asks the program to end, or an
/// empty class for any other exception.
kest::Class_Generic exitErrorClassFor(PyObject *exception);

} // namespace sarvode
