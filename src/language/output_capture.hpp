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

/// Hands every text still waiting for a newline to the sink; nothing when
/// output is not redirected. Needs the interpreter lock; a Python error that
/// is set stays set.
void flushRedirectedOutput();

} // namespace sarvode
