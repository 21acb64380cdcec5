#pragma once
// Small functions of the extension's own, written in Python.

#include "runtime/python.hpp"

#include <atomic>
#include <initializer_list>

namespace sarvode {

/// The function `name` that the Python `source` defines, compiled once into
/// `kept` and kept for the life of the process (borrowed); null, with the
/// error cleared, when it cannot be made. No blocking one-time guard:
/// compiling runs Python code, which may release the interpreter lock, and a
/// thread waiting on a guard while holding the lock would deadlock; two first
/// uses may both compile, and the first result stays. The caller holds the lock.
PyObject *pythonHelper(std::atomic<PyObject *> &kept, const char *source, const char *name);

/// The same for a helper of several functions: the globals that running
/// `source` once leaves, with the extension's C `functions` defined in them
/// first (so that the Python text can call them); `file` names the text in
/// tracebacks. Borrowed; null, with the error cleared, when they cannot be made.
PyObject *pythonHelperGlobals(std::atomic<PyObject *> &kept, const char *source, const char *file,
                              std::initializer_list<PyMethodDef *> functions);

} // namespace sarvode
