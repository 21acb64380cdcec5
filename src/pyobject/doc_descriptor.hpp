#pragma once
// `__doc__` of a host class's Python type: the class's text on the type, each
// value's own text on its values.

#include "runtime/python.hpp"

namespace sarvode {

/// Puts a `__doc__` descriptor on a KestObject type made with the text
/// `type_doc`: `T.__doc__` stays that text, while `value.__doc__` read the
/// general way (object.__getattribute__, as pydoc reads it) is the value's
/// own documentation, a host function's for instance. Errors are cleared: the
/// type keeps its text then. The caller holds the interpreter lock.
void addDocDescriptor(PyTypeObject *type, const char *type_doc);

} // namespace sarvode
