// The signal dispositions of the sarvode process.

#include "process_signals.hpp"

#include <csignal>
#include <cstdio>

namespace sarvode {

void ignore_write_signals() {
#ifdef SIGPIPE
  (void)std::signal(SIGPIPE, SIG_IGN);
#endif
#ifdef SIGXFSZ
  (void)std::signal(SIGXFSZ, SIG_IGN);
#endif
}

int end_by_interrupt() {
  std::fflush(nullptr);
  (void)std::signal(SIGINT, SIG_DFL);
  (void)std::raise(SIGINT);
  return 130; // 128 + SIGINT, what a shell shows
}

} // namespace sarvode
