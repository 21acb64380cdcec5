#pragma once
// The Python dictionary of the host modules that evaluated code sees as globals.

#include "runtime/python.hpp"

namespace sarvode {

/// Maps every visible host module name to the module's Python form, plus the
/// classes and callables of inlined modules. Built once and rebuilt when the
/// host's module table changes. Borrowed; the caller holds the interpreter lock.
PyObject *hostModuleDictionary();

/// A new dictionary for the globals of one evaluation: the host modules and
/// "__builtins__", the builtins that the builtin exec would name there if
/// called now. Copied from a template kept with the module dictionary, so
/// that an evaluation neither merges the modules nor grows the dictionary
/// for "__builtins__". Null with the Python error set when it cannot be made;
/// the caller holds the interpreter lock.
py::object newEvaluationGlobals();

} // namespace sarvode
