#pragma once
// Sending what Python code writes to sys.stdout and sys.stderr, from any
// thread, to a host callable instead of the process's own streams.

#include <kest/none.hpp>

namespace sarvode {

/// From now on, every line written to sys.stdout or sys.stderr goes to `sink`,
/// a host callable taking (stream, text) with stream "stdout" or "stderr";
/// text without a final newline waits for one, for a flush or for the end of
/// the evaluation. Python's logging handlers that wrote to the old streams
/// write to the new ones. An empty handle or None puts the streams back.
/// Takes the interpreter lock.
kest::Result<kest::None> redirectOutput(const kest::Any &sink);

/// Hands the text that the calling thread wrote and that still waits for a
/// newline to the sink; nothing when output is not redirected. Another
/// thread's unfinished line stays with that thread (print writes a line's
/// text and its newline apart), so an evaluation that ends never takes it.
/// Needs the interpreter lock; a Python error that is set stays set.
void flushRedirectedOutput();

} // namespace sarvode
