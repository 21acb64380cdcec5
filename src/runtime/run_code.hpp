#pragma once
// Runs a compiled code object the way the builtins exec and eval run one,
// without calling them: the same audit event, the same "__builtins__" entry in
// the globals, the same frames. Calling the builtin costs an argument tuple,
// argument parsing and a lookup of the builtin on every run.

#include "runtime/python.hpp"

namespace sarvode {

/// Whether the globals a caller passes already name the builtins.
enum class GlobalBuiltins { maybe_missing, present };

/// Runs `code` with `globals` (a dict) and `locals` (a mapping): a new
/// reference to what it gave, or null with the Python error set. Globals
/// that the caller knows to name the builtins are not looked at. The caller
/// holds the interpreter lock.
PyObject *runCode(PyObject *code, PyObject *globals, PyObject *locals,
                  GlobalBuiltins builtins = GlobalBuiltins::maybe_missing);

/// Makes `runCode` call the builtin exec instead (true) or run the code itself
/// when the running Python lets it (false), for tests of both paths. False
/// when asked to run the code itself on a Python where it cannot.
bool runCodeThroughBuiltin(bool through_builtin);

} // namespace sarvode
