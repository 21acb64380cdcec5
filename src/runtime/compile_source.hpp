#pragma once
// Compiles source text as the builtin compile does, without calling it: the
// builtin's first call in a process makes every class of the syntax tree
// module (a millisecond and more of each start), though no syntax tree is
// asked for.

#include "runtime/python.hpp"

namespace sarvode {

/// What `compile(source, filename, mode, dont_inherit=True)` gives, where
/// `mode` is "exec" for Py_file_input and "eval" for Py_eval_input: a new code
/// object, or null with the error set. `source` is a str (a coding comment in
/// it is ignored) or bytes (decoded by its coding comment, UTF-8 without one);
/// `filename` is a str. The caller holds the interpreter lock.
PyObject *compileSource(PyObject *source, PyObject *filename, int start);

/// Makes `compileSource` call the builtin compile instead (true) or compile
/// itself when the running Python lets it (false), for tests of both paths.
/// False when asked to compile itself on a Python where it cannot.
bool compileThroughBuiltin(bool through_builtin);

} // namespace sarvode
