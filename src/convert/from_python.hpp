#pragma once
// Python objects into host values.

#include "runtime/python.hpp"

#include <kest/any.hpp>

namespace sarvode {

/// The host form of a Python object (borrowed; may be null). Never throws: a
/// failure is an Error inside the result. The caller holds the interpreter lock.
kest::Any fromPython(PyObject *object);
/// `slot = fromPython(object)`, except that an int refills an Integer that only
/// `slot` holds instead of making a new one (argument slots filled call after call).
void fromPythonInto(kest::Any &slot, PyObject *object);

} // namespace sarvode
