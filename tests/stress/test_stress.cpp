// Host threads using the whole bridge at once: evaluations with scopes and
// out-locals, sandboxed ones, host functions called from Python, Python
// functions and containers used from the host, conversions and errors both
// ways, re-entry, blocking calls, and Python threads of their own calling the
// host meanwhile. Every result is checked; a watchdog turns a deadlock into a
// failure that shows every thread's stack.

#include "language_test_support.hpp"
#include "stress_support.hpp"

#include "convert/from_python.hpp"
#include "convert/to_python.hpp"
#include "runtime/python.hpp"
#include "runtime/python_ready.hpp"

#include <kest/kest.hpp>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

using namespace sarvode;
using namespace sarvode::test_support;
using namespace std::chrono_literals;

namespace {

kest::String S(const std::string &text) { return kest::String::fromUtf8(text); }

/// Failures seen by any thread: counted, and the first few kept for the report.
class failures {
public:
  void add(const std::string &what) {
    if (m_count.fetch_add(1) < 20) {
      std::lock_guard guard(m_mutex);
      m_first.push_back(what);
    }
  }
  std::int64_t count() const { return m_count.load(); }
  std::string report() const {
    std::lock_guard guard(m_mutex);
    std::string text;
    for (const auto &line : m_first)
      text += line + "\n";
    return text;
  }

private:
  std::atomic<std::int64_t> m_count{0};
  mutable std::mutex m_mutex;
  std::vector<std::string> m_first;
};

/// The host functions that evaluated code calls.
struct host_functions {
  std::atomic<std::int64_t> ticks{0};
  kest::I_Callable_Generic add = kest::make_function([](std::int64_t a, std::int64_t b) { return a + b; });
  kest::I_Callable_Generic fail = kest::make_function([](std::int64_t n) -> kest::Any {
    return kest::Error(S("host failed " + std::to_string(n)));
  });
  // Re-entry: the host evaluates Python again from inside a Python call.
  kest::I_Callable_Generic reenter = kest::make_function([](std::int64_t n) -> kest::Any {
    auto locals = string_map({{"n", kest::Integer(n)}});
    return unwrapped(language().evaluateExpression(
        S("n * 2"), kest::EvaluationScope(kest::Any(), kest::None(), kest::I_Map::unsafeFrom(locals), kest::None())));
  });
  kest::I_Callable_Generic tick = kest::make_function([this] { return ticks.fetch_add(1) + 1; });
};

kest::EvaluationScope with_locals(const kest::HashMap &locals, const kest::Any &out = {}) {
  return kest::EvaluationScope(kest::Any(), kest::None(), kest::I_Map::unsafeFrom(locals),
                               out.empty() ? kest::Union<kest::I_MutableMap, kest::None>(kest::None())
                                           : kest::Union<kest::I_MutableMap, kest::None>(kest::I_MutableMap::unsafeFrom(out)));
}

std::string shown(const kest::Any &value) { return kest::display(value).toUtf8(); }

/// One host thread's share of the work; `thread` tells the threads apart.
class worker {
public:
  worker(int thread, host_functions &functions, failures &failed)
      : m_thread(thread), m_functions(functions), m_failed(failed) {}

  /// Runs `count` operations of every kind in turn; the thread is new to Python.
  void run(std::int64_t count) {
    if (!set_up())
      return;
    for (std::int64_t i = 0; i < count; ++i)
      step(i);
  }

  /// Host work that never enters Python: it must scale with the threads.
  static void host_only_step(std::int64_t i, failures &failed) {
    kest::HashMap map(kest::String::getType(), kest::Type());
    for (int k = 0; k < 8; ++k)
      (void)map.setChecked(S("k" + std::to_string(k)), kest::Integer(i + k));
    auto value = unwrapped(kest::I_Map::unsafeFrom(map).get(S("k3")));
    if (!kest::Integer::isInstance(value) || kest::Integer::unsafeFrom(value).value() != i + 3)
      failed.add("host-only map lookup gave " + shown(value));
  }

private:
  bool set_up() {
    auto made = evaluate("def triple(x):\n    return x * 3\nreturn triple");
    auto dict = evaluate_expression("{}");
    auto list = evaluate_expression("[]");
    if (!kest::I_Callable_Generic::isInstance(made) || !kest::I_MutableMap::isInstance(dict) ||
        !kest::I_MutableSequence::isInstance(list)) {
      m_failed.add("thread set-up gave " + shown(made) + ", " + shown(dict) + ", " + shown(list));
      return false;
    }
    m_triple = kest::I_Callable_Generic::unsafeFrom(made);
    m_dict = dict;
    m_list = list;
    return true;
  }

  void expect_integer(const kest::Any &value, std::int64_t expected, const char *what) {
    if (!kest::Integer::isInstance(value) || kest::Integer::unsafeFrom(value).value() != expected)
      m_failed.add(std::string(what) + ": expected " + std::to_string(expected) + ", got " + shown(value) +
                   (kest::Error::isInstance(value) ? " (" + message_of(value) + ")" : std::string()));
  }

  void expect_text(const kest::Any &value, const std::string &expected, const char *what) {
    const std::string got = kest::Error::isInstance(value)     ? "error: " + message_of(value)
                            : kest::String::isInstance(value) ? kest::String::unsafeFrom(value).toUtf8()
                                                              : shown(value);
    if (got != expected)
      m_failed.add(std::string(what) + ": expected '" + expected + "', got '" + got + "'");
  }

  void step(std::int64_t i) {
    const std::int64_t a = i, b = m_thread;
    auto locals = string_map({{"a", kest::Integer(a)}, {"b", kest::Integer(b)}});
    switch ((i + m_thread) % 14) {
    case 0: { // statements with an out-local
      auto out = string_map({{"c", kest::Integer(-1)}});
      auto result = unwrapped(language().evaluate(S("c = a * 2 + b\nreturn c + 1"), with_locals(locals, out)));
      expect_integer(result, 2 * a + b + 1, "statements");
      expect_integer(unwrapped(kest::I_Map::unsafeFrom(out).get(S("c"))), 2 * a + b, "out-local");
      break;
    }
    case 1:
      expect_integer(unwrapped(language().evaluateExpression(S("a * 3 - b"), with_locals(locals))), 3 * a - b,
                     "expression");
      break;
    case 2:
      expect_integer(
          unwrapped(python_language().evaluateInSandbox(S("return sum(range(a % 50))"), with_locals(locals))),
          (a % 50) * (a % 50 - 1) / 2, "sandboxed");
      break;
    case 3:
      expect_text(unwrapped(python_language().evaluateInSandbox(
                      S("import os\nos.remove('/nonexistent/sarvode-stress')"), with_locals(locals))),
                  "error: operation blocked in sandbox", "sandbox refusal");
      break;
    case 4:
      (void)locals.setChecked(S("host_add"), m_functions.add);
      expect_integer(unwrapped(language().evaluateExpression(S("host_add(a, b)"), with_locals(locals))), a + b,
                     "host function from Python");
      break;
    case 5:
      expect_integer(unwrapped(m_triple.callWith({kest::Integer(a)})), 3 * a, "Python function from the host");
      break;
    case 6: {
      const auto key = S("k" + std::to_string(a % 10));
      if (kest::I_MutableMap::unsafeFrom(m_dict).setChecked(key, kest::Integer(a)).isError())
        m_failed.add("dict proxy refused a value");
      expect_integer(unwrapped(kest::I_Map::unsafeFrom(m_dict).get(key)), a, "dict proxy");
      break;
    }
    case 7: {
      if (a % 100 == 7)
        (void)kest::I_MutableSequence::unsafeFrom(m_list).clear();
      (void)kest::I_MutableSequence::unsafeFrom(m_list).append(kest::Integer(a));
      auto length = unwrapped(kest::I_Sequence::unsafeFrom(m_list).length());
      auto last = unwrapped(kest::I_Sequence::unsafeFrom(m_list).at(-1));
      expect_integer(last, a, "list proxy");
      if (!kest::Integer::isInstance(length) || kest::Integer::unsafeFrom(length).value() < 1)
        m_failed.add("list proxy length " + shown(length));
      break;
    }
    case 8: // conversions both ways
      round_trip(kest::Integer(a * 1000003));
      round_trip(S("text " + std::to_string(a) + " \xc3\xa9\xe2\x82\xac"));
      round_trip(kest::Float(static_cast<double>(a) + 0.25));
      round_trip(kest::Date(2000 + static_cast<std::int32_t>(a % 100), 2, 29 - static_cast<std::uint8_t>(a % 2 + 1)));
      break;
    case 9:
      expect_text(unwrapped(language().evaluate(S("raise ValueError('bad %d' % a)"), with_locals(locals))),
                  "error: bad " + std::to_string(a), "Python error");
      break;
    case 10:
      (void)locals.setChecked(S("host_fail"), m_functions.fail);
      expect_text(unwrapped(language().evaluate(
                      S("try:\n    host_fail(a)\nexcept Exception as e:\n    return str(e)"), with_locals(locals))),
                  "host failed " + std::to_string(a), "host error in Python");
      break;
    case 11:
      (void)locals.setChecked(S("reenter"), m_functions.reenter);
      expect_integer(unwrapped(language().evaluateExpression(S("reenter(a) + 1"), with_locals(locals))), 2 * a + 1,
                     "re-entry");
      break;
    case 12: // gives up the lock in a blocking call while the others evaluate
      expect_integer(unwrapped(language().evaluate(S("import time\ntime.sleep(0.0002)\nreturn a"), with_locals(locals))),
                     a, "blocking call");
      break;
    default:
      host_only_step(a, m_failed);
      break;
    }
  }

  void round_trip(const kest::Any &value) {
    kest::Any back;
    {
      py::gil lock;
      auto object = py::object::steal(toPython(value));
      if (!object || PyErr_Occurred()) {
        PyErr_Clear();
        m_failed.add("no Python object for " + shown(value));
        return;
      }
      back = fromPython(object.get());
      if (PyErr_Occurred()) {
        PyErr_Clear();
        m_failed.add("a Python error was left pending converting " + shown(value));
      }
    }
    if (!(back == value) || kest::raw_class_of(back) != kest::raw_class_of(value))
      m_failed.add("round trip of " + shown(value) + " gave " + shown(back));
  }

  int m_thread;
  host_functions &m_functions;
  failures &m_failed;
  kest::I_Callable_Generic m_triple;
  kest::Any m_dict;
  kest::Any m_list;
};

/// Python threads, started by evaluated code, that call a host function until stopped.
class python_threads {
public:
  explicit python_threads(host_functions &functions)
      : m_out(string_map({{"stop", kest::None()}, {"threads", kest::None()}, {"counts", kest::None()},
                          {"errors", kest::None()}})) {
    auto locals = string_map({{"host_add", functions.add}, {"host_tick", functions.tick}});
    auto result = unwrapped(language().evaluate(S(R"(import threading
stop = threading.Event()
counts = [0, 0]
errors = []
def run(k):
    try:
        while not stop.is_set():
            if host_add(k, 1) != k + 1:
                errors.append('wrong sum')
            host_tick()
            counts[k] += 1
            stop.wait(0.001)  # leaves the lock to the host threads most of the time
    except BaseException as e:
        errors.append(repr(e))
threads = [threading.Thread(target=run, args=(k,)) for k in range(2)]
for t in threads:
    t.start()
)"),
                                                with_locals(locals, m_out)));
    EXPECT_FALSE(kest::Error::isInstance(result)) << message_of(result);
  }

  /// Stops the threads; returns what they report ("" when every call was right and each thread ran).
  std::string stop() {
    auto result = unwrapped(language().evaluate(S(R"(stop.set()
for t in threads:
    t.join()
if errors:
    return '; '.join(errors[:5])
if min(counts) == 0:
    return 'a thread never called the host: %r' % counts
return ''
)"),
                                                with_locals(kest::HashMap::unsafeFrom(m_out))));
    return kest::String::isInstance(result) ? kest::String::unsafeFrom(result).toUtf8() : message_of(result);
  }

private:
  kest::HashMap m_out;
};

struct run_rates {
  double mixed_per_second = 0;
  double host_only_per_second = 0;
};

/// Runs `threads` host threads at once over the mixed operations, then over
/// host-only work, and checks every result.
run_rates run_threads(int threads, std::int64_t per_thread) {
  ensurePythonReady();
  host_functions functions;
  failures failed;
  run_rates rates;
  {
    watchdog guard("the stress run with " + std::to_string(threads) + " threads", slow_build ? 600s : 240s);
    python_threads background(functions);
    const auto start = std::chrono::steady_clock::now();
    std::vector<std::thread> pool;
    for (int t = 0; t < threads; ++t)
      pool.emplace_back([&, t] { worker(t, functions, failed).run(per_thread); });
    for (auto &thread : pool)
      thread.join();
    const std::chrono::duration<double> took = std::chrono::steady_clock::now() - start;
    rates.mixed_per_second = static_cast<double>(threads * per_thread) / took.count();
    EXPECT_EQ(background.stop(), "");
    EXPECT_GT(functions.ticks.load(), 0);

    const auto host_start = std::chrono::steady_clock::now();
    pool.clear();
    for (int t = 0; t < threads; ++t)
      pool.emplace_back([&] {
        for (std::int64_t i = 0; i < per_thread; ++i)
          worker::host_only_step(i, failed);
      });
    for (auto &thread : pool)
      thread.join();
    const std::chrono::duration<double> host_took = std::chrono::steady_clock::now() - host_start;
    rates.host_only_per_second = static_cast<double>(threads * per_thread) / host_took.count();
  }
  EXPECT_EQ(failed.count(), 0) << failed.report();
  {
    py::gil lock;
    EXPECT_FALSE(PyErr_Occurred());
  }
  // The interpreter is still usable afterwards.
  EXPECT_EQ(integer_of(evaluate_expression("40 + 2")), 42);
  std::printf("%d host threads: %.0f mixed operations/s, %.0f host-only operations/s\n", threads,
              rates.mixed_per_second, rates.host_only_per_second);
  return rates;
}

class StressThreads : public ::testing::TestWithParam<int> {};

} // namespace

TEST_P(StressThreads, EveryOperationGivesTheRightResult) {
  const auto rates = run_threads(GetParam(), stress_count(10000, 2000));
  RecordProperty("mixed_per_second", std::to_string(static_cast<std::int64_t>(rates.mixed_per_second)));
  RecordProperty("host_only_per_second", std::to_string(static_cast<std::int64_t>(rates.host_only_per_second)));
}

INSTANTIATE_TEST_SUITE_P(Stress, StressThreads, ::testing::Values(1, 2, 4, 8),
                         [](const ::testing::TestParamInfo<int> &param) { return std::to_string(param.param) + "Threads"; });
