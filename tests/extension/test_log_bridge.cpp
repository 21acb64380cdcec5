// The log bridge after the real start-up: Python's `logging` records reach the
// host log with their level numbers, formatted by the handler.

#include "python_test_support.hpp"

#include <kest/init.hpp>
#include <kest/log.hpp>

#include <gtest/gtest.h>

#include <cstdio>
#include <ostream>
#include <string>
#include <vector>

using namespace sarvode;

namespace {
/// Runs the extension's start-up handlers (once per process), as a host does.
void start_up() {
  kest::internal::run_init_handlers();
}

/// Runs Python statements; a raised exception fails the test.
void run(const std::string &code) {
  const auto o = test_support::run_python(code);
  ASSERT_TRUE(o.ok) << o.type << ": " << o.message;
}

struct logged {
  std::int64_t level;
  std::string message;
  bool operator==(const logged &) const = default;
};
std::ostream &operator<<(std::ostream &os, const logged &r) {
  return os << r.level << " " << r.message;
}

std::vector<logged> records_of(const kest::log_capture &capture) {
  std::vector<logged> out;
  for (const auto &r : capture.records())
    out.push_back({r.level(), r.message().toUtf8()});
  return out;
}
} // namespace

TEST(LogBridge, StartUpPutsExactlyOneKestLogHandlerOnTheRootLogger) {
  start_up();
  EXPECT_EQ(test_support::eval_str(
                "[type(h).__name__ for h in __import__('logging').getLogger().handlers]"),
            "['KestLogHandler']");
  EXPECT_EQ(test_support::eval_str("isinstance(__import__('logging').getLogger().handlers[0], "
                                   "__import__('logging').Handler)"),
            "True");
  EXPECT_EQ(test_support::eval_str("__import__('logging').getLogger().level"), "20");
}

TEST(LogBridge, InfoReachesTheHostLogWithLevel20) {
  start_up();
  kest::log_capture capture;
  run("import logging\nlogging.info('x')");
  EXPECT_EQ(records_of(capture), (std::vector<logged>{{20, "x"}}));
}

TEST(LogBridge, DebugIsDroppedBeforeTheHostLog) {
  start_up();
  kest::log_capture capture;
  // The info record after it shows that the bridge was working.
  run("import logging\nlogging.debug('hidden')\nlogging.getLogger('some.child').debug('hidden "
      "too')\n"
      "logging.info('after')");
  EXPECT_EQ(records_of(capture), (std::vector<logged>{{20, "after"}}));
}

TEST(LogBridge, WarningArgumentsAreFormattedBeforeReachingTheHost) {
  start_up();
  kest::log_capture capture;
  run("import logging\nlogging.warning('a %d', 1)");
  EXPECT_EQ(records_of(capture), (std::vector<logged>{{30, "a 1"}}));
}

TEST(LogBridge, CustomLevelNumbersArriveUnchanged) {
  start_up();
  kest::log_capture capture;
  run("import logging\nlogging.log(25, 'custom')\nlogging.getLogger('app').log(51, 'above "
      "critical')");
  EXPECT_EQ(records_of(capture), (std::vector<logged>{{25, "custom"}, {51, "above critical"}}));
}

TEST(LogBridge, ErrorAndCriticalKeepTheirLevels) {
  start_up();
  kest::log_capture capture;
  run("import logging\nlogging.error('e')\nlogging.critical('c')");
  EXPECT_EQ(records_of(capture), (std::vector<logged>{{40, "e"}, {50, "c"}}));
}

TEST(LogBridge, RecordsFromFourPythonThreadsAllArrive) {
  start_up();
  kest::log_capture capture;
  // The threads wait at a barrier so that they log at the same time.
  run("import logging, threading\n"
      "barrier = threading.Barrier(4)\n"
      "def work(n):\n"
      "    barrier.wait()\n"
      "    for i in range(100):\n"
      "        logging.info('thread %d record %d', n, i)\n"
      "threads = [threading.Thread(target=work, args=(n,)) for n in range(4)]\n"
      "for t in threads: t.start()\n"
      "for t in threads: t.join()\n");
  const auto records = records_of(capture);
  ASSERT_EQ(records.size(), 400u);
  // Every record arrived once, and each thread's records in the order logged.
  std::vector<int> next(4, 0);
  for (const auto &r : records) {
    EXPECT_EQ(r.level, 20);
    int thread = -1, index = -1;
    ASSERT_EQ(std::sscanf(r.message.c_str(), "thread %d record %d", &thread, &index), 2)
        << r.message;
    ASSERT_TRUE(thread >= 0 && thread < 4) << r.message;
    EXPECT_EQ(index, next[static_cast<std::size_t>(thread)]++) << r.message;
  }
  EXPECT_EQ(next, (std::vector<int>{100, 100, 100, 100}));
}
