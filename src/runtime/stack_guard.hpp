#pragma once
// A check before each entry into Python from the host: the thread's native
// stack must have room left. Python's recursion limit counts Python frames;
// a recursion that crosses the host (Python -> host -> Python) also spends
// native stack on every crossing, and with a raised limit it would overflow
// the stack before Python noticed.

#include "runtime/python.hpp"

namespace sarvode {

/// True when the calling thread has room on its stack for another entry into
/// Python; otherwise sets RecursionError and returns false. The caller holds
/// the interpreter lock.
bool stackHasRoom();

} // namespace sarvode
