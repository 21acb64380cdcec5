#pragma once
// The inspect.Signature of a host callable, for inspect.signature and help().

#include "runtime/python.hpp"

#include <kest/callable.hpp>

namespace sarvode {

/// An inspect.Signature with the host signature's parameters (their names,
/// defaults and types, as Python types where there is one), `*args` when it
/// is variadic, and its result type. A new reference, or null with a Python
/// error. The caller holds the interpreter lock.
PyObject *pythonSignature(const kest::I_Callable_Generic &callable);

} // namespace sarvode
