#pragma once
// `CPythonFunction`: the host callable that stands for one Python callable.

#include "runtime/python.hpp"

#include <kest/class.hpp>
#include <kest/string.hpp>

namespace sarvode {

/// The class, declared on first use.
kest::Class_Generic cpythonFunctionClass();

/// A new CPythonFunction holding a new reference to `callable`; the Error "The
/// source object isn't a function." for a null or non-callable object.
kest::Any newCPythonFunction(PyObject *callable);

/// A helper compiled from source text: a "lambda ..." expression, a "def"
/// with its name, or a bare body wrapped as "def func(*args):". A
/// CPythonFunction, or one of the errors "Unable to compile the function."
/// and "Unable to find the function: {}.".
kest::Any compileHelperFunction(const kest::String &source);

} // namespace sarvode
