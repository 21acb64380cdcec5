// Cancelling a running evaluation from another host thread: loops, sleeps and
// host callbacks end with KeyboardInterrupt, and the thread stays usable.

#include "language_test_support.hpp"

#include "language/interrupts.hpp"
#include "runtime/python_ready.hpp"

#include <kest/kest.hpp>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <string>
#include <thread>

using namespace sarvode;
using namespace sarvode::test_support;
using namespace std::chrono_literals;

namespace {

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr auto allowed_delay = 1000ms; // the sanitizers slow every bytecode
#else
constexpr auto allowed_delay = 100ms;
#endif

std::string error_class_of(const kest::Any &value) { return kest::qualname(kest::raw_class_of(value)).toUtf8(); }

/// What one evaluation on a thread of its own ended with, and how long after
/// the interrupt was accepted.
struct interrupted_run {
  kest::Any result;
  std::chrono::steady_clock::duration delay{};
  bool accepted = false;
};

/// Runs `evaluation` on a new thread, interrupts it once it runs, then runs
/// `afterwards` on the same thread.
template <class Evaluation, class Afterwards>
interrupted_run interrupt_while_running(Evaluation evaluation, Afterwards afterwards) {
  ensurePythonReady();
  std::atomic<std::int64_t> thread{0};
  std::atomic<bool> finished{false};
  std::chrono::steady_clock::time_point ended;
  interrupted_run run;
  std::thread worker([&] {
    thread = currentThreadIdent();
    run.result = evaluation();
    ended = std::chrono::steady_clock::now();
    finished = true;
    afterwards();
  });
  while (thread.load() == 0)
    std::this_thread::yield();
  std::this_thread::sleep_for(50ms); // well inside the evaluation
  std::chrono::steady_clock::time_point requested;
  const auto give_up = std::chrono::steady_clock::now() + 10s;
  while (!finished.load() && std::chrono::steady_clock::now() < give_up) {
    requested = std::chrono::steady_clock::now();
    if ((run.accepted = interruptEvaluation(thread.load())))
      break;
    std::this_thread::sleep_for(1ms);
  }
  worker.join();
  run.delay = ended - requested;
  return run;
}

void expect_interrupted(const interrupted_run &run) {
  EXPECT_TRUE(run.accepted);
  ASSERT_TRUE(kest::Error::isInstance(run.result)) << kest::display(run.result).toUtf8();
  EXPECT_EQ(error_class_of(run.result), "kest.cpython.KeyboardInterrupt") << message_of(run.result);
  EXPECT_LE(run.delay, allowed_delay) << std::chrono::duration_cast<std::chrono::milliseconds>(run.delay).count()
                                      << " ms";
}

} // namespace

TEST(Interrupts, AnInfiniteLoopEndsAndTheThreadEvaluatesAgain) {
  std::int64_t next = 0;
  auto run = interrupt_while_running([] { return evaluate("while True:\n    pass"); },
                                     [&] { next = integer_of(evaluate("return sum(range(10))")); });
  expect_interrupted(run);
  EXPECT_EQ(next, 45);
}

TEST(Interrupts, AnExpressionEndsToo) {
  auto run = interrupt_while_running([] { return evaluate_expression("[x for x in iter(int, 1)]"); }, [] {});
  expect_interrupted(run);
}

TEST(Interrupts, ALongSleepEnds) {
  kest::Any next;
  auto run = interrupt_while_running([] { return evaluate("import time\ntime.sleep(60)"); },
                                     [&] { next = evaluate_expression("'usable'"); });
  expect_interrupted(run);
  EXPECT_EQ(kest::display(next).toUtf8(), "usable");
}

TEST(Interrupts, ALoopInsideAHostCallbackEnds) {
  // Python calls the host, which calls back into a Python function that loops.
  auto call = kest::make_function([](kest::Any f) {
    return kest::internal::result_unwrap_lazy(kest::I_Callable_Generic::unsafeFrom(f).callWith({}));
  });
  auto locals = string_map({{"call_from_host", call}});
  auto scope = kest::EvaluationScope(kest::Any(), kest::None(), kest::I_Map::unsafeFrom(locals), kest::None());
  auto run = interrupt_while_running(
      [&] { return evaluate("def spin():\n    while True:\n        pass\ncall_from_host(spin)", scope); }, [] {});
  // The interrupt crosses the host function as the host's own error, and keeps its class.
  expect_interrupted(run);
}

TEST(Interrupts, OutLocalsKeepTheirValuesWhenTheEvaluationIsCut) {
  auto out = string_map({{"n", kest::Integer(1)}});
  auto scope = kest::EvaluationScope(kest::Any(), kest::None(), kest::None(), kest::I_MutableMap::unsafeFrom(out));
  auto run = interrupt_while_running([&] { return evaluate("n = 5\nwhile True:\n    pass", scope); }, [] {});
  expect_interrupted(run);
  EXPECT_EQ(integer_of(unwrapped(kest::I_Map::unsafeFrom(out).get(kest::String(u"n")))), 1);
}

TEST(Interrupts, AThreadThatRunsNothingIsNotInterruptedLater) {
  ensurePythonReady();
  std::promise<std::int64_t> ident;
  std::promise<void> asked;
  auto asked_future = asked.get_future();
  std::int64_t result = 0;
  std::thread idle([&] {
    (void)evaluate_expression("1"); // the thread has met Python before
    ident.set_value(currentThreadIdent());
    asked_future.wait();
    result = integer_of(evaluate("x = 0\nfor i in range(100000):\n    x += i\nreturn x"));
  });
  EXPECT_FALSE(interruptEvaluation(ident.get_future().get()));
  asked.set_value();
  idle.join();
  EXPECT_EQ(result, 4999950000);
}

TEST(Interrupts, CodeCanInterruptItselfThroughTheHostFunctions) {
  (void)kest::internal::run_init_handlers(); // the host functions of "kest.cpython"
  auto result = evaluate("import kest.cpython\n"
                         "accepted = kest.cpython.interrupt(kest.cpython.current_thread())\n"
                         "while True:\n"
                         "    pass");
  EXPECT_EQ(error_class_of(result), "kest.cpython.KeyboardInterrupt") << message_of(result);
  EXPECT_EQ(integer_of(evaluate("return 7")), 7);
}

TEST(Interrupts, TheCurrentThreadIsThePythonThreadIdentity) {
  (void)kest::internal::run_init_handlers();
  EXPECT_EQ(integer_of(evaluate("import threading, kest.cpython\n"
                                "return int(kest.cpython.current_thread() == threading.get_ident())")),
            1);
}

TEST(Interrupts, TimeSleepKeepsItsBehaviour) {
  EXPECT_EQ(message_of(evaluate("import time\ntime.sleep(-1)")), "sleep length must be non-negative");
  EXPECT_EQ(message_of(evaluate("import time\ntime.sleep('1')")), "'str' object cannot be interpreted as an integer");
  EXPECT_EQ(integer_of(evaluate("import time\n"
                                "start = time.monotonic()\n"
                                "time.sleep(0.15)\n"
                                "return int(time.monotonic() - start >= 0.15)")),
            1);
  EXPECT_EQ(kest::display(evaluate_expression("__import__('time').sleep.__name__")).toUtf8(), "sleep");
  EXPECT_TRUE(kest::is_none(evaluate_expression("__import__('time').sleep(0)")));
}
