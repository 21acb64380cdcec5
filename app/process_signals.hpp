#pragma once
// The signal dispositions of the sarvode process.

namespace sarvode {

/// Ignores SIGPIPE and SIGXFSZ, as python3 does, so that a write to a closed
/// pipe or past the file-size limit fails with an error (BrokenPipeError,
/// OSError) instead of ending the process. SIGINT is left to the Python side,
/// which makes Ctrl-C raise KeyboardInterrupt.
void ignore_write_signals();

/// Ends the process by SIGINT with its default action, as python3 does after
/// an uncaught KeyboardInterrupt (a shell shows status 130); returns 130 where
/// that is not possible.
int end_by_interrupt();

} // namespace sarvode
