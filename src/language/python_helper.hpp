#pragma once
// Small functions of the extension's own, written in Python.

#include "runtime/python.hpp"

#include <atomic>

namespace sarvode {

/// The function `name` that the Python `source` defines, compiled once into
/// `kept` and kept for the life of the process (borrowed); null, with the
/// error cleared, when it cannot be made. No blocking one-time guard:
/// compiling runs Python code, which may release the interpreter lock, and a
/// thread waiting on a guard while holding the lock would deadlock; two first
/// uses may both compile, and the first result stays. The caller holds the lock.
PyObject *pythonHelper(std::atomic<PyObject *> &kept, const char *source, const char *name);

} // namespace sarvode
