#pragma once
// The text functions of a captured stream, in C: what print writes goes to
// the host's sink without a Python frame or a Python-level lock per write.

#include "runtime/python.hpp"

#include <kest/any.hpp>

namespace sarvode {

/// (write, flush, flush_all) of the stream `name` ("stdout" or "stderr"):
/// write keeps each thread's text until it ends a line and hands the sink
/// (stream, text) with everything up to the last newline; flush hands the
/// calling thread's waiting text, flush_all every thread's. Sink calls are
/// made holding the delivery lock, so that they reach the host one at a time
/// and in the order of the writes, even when a sink lets other threads run.
/// A new reference, or null with a Python error set.
PyObject *makeHostStreamFunctions(const char *name, const kest::Any &sink);

/// (acquire, release) of the delivery lock, for Python code that switches
/// the streams. It is reentrant, and a thread that waits for it lets the
/// other threads run Python meanwhile.
PyObject *makeDeliveryLockFunctions();

} // namespace sarvode
