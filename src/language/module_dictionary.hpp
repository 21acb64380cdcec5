#pragma once
// The Python dictionary of the host modules that evaluated code sees as globals.

#include "runtime/python.hpp"

namespace sarvode {

/// Maps every visible host module name to the module's Python form, plus the
/// classes and callables of inlined modules. Built once and rebuilt when the
/// host's module table changes. Borrowed; the caller holds the interpreter lock.
PyObject *hostModuleDictionary();

} // namespace sarvode
