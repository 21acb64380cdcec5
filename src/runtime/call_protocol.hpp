#pragma once
// Calls from the host into Python with positional arguments. A Python whose
// stable ABI has the vectorcall protocol (3.12 and later) is called through
// it, straight from an array of arguments. On 3.11 a call with up to four
// arguments goes through the interpreter's argument-list call (no tuple for a
// callee that takes vectorcall itself); more arguments get a tuple. The same
// binary serves both: the choice is made once, from the running Python.

#include "runtime/python.hpp"

#include <cstddef>

namespace sarvode {

enum class CallProtocol { tuple, vectorcall };

/// The protocol calls use now.
CallProtocol pythonCallProtocol();

/// Makes calls use `protocol` from now on, for tests of both paths; false
/// (nothing changed) when asked for vectorcall on a Python that lacks it.
bool usePythonCallProtocol(CallProtocol protocol);

/// Calls `callable` with `count` positional arguments (borrowed), which the
/// caller keeps in `slots[1..count]`: slot 0 is free for the callee to use,
/// as vectorcall allows. A new reference, or null with the Python error set.
/// The caller holds the interpreter lock.
PyObject *callPositional(PyObject *callable, PyObject **slots, std::size_t count);

} // namespace sarvode
