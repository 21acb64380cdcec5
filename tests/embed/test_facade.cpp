// The facade kest::python from an application's side: starting from several
// threads at once, evaluation with inline scopes from 8 threads, out-locals,
// the sandbox, modules and calls with C++ arguments, errors as values,
// interrupting and capturing output per thread.

#include <kest/python.hpp>

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <string>
#include <thread>
#include <vector>

namespace py = kest::python;

namespace {

constexpr int thread_count = 8;

void start_python() {
  auto started = py::start();
  ASSERT_FALSE(started.isError()) << started.as<kest::Any>().getType().name().toUtf8();
}

template <class F> void on_threads(F body) {
  std::vector<std::thread> threads;
  for (int t = 0; t < thread_count; ++t)
    threads.emplace_back([t, &body] { body(t); });
  for (auto &thread : threads)
    thread.join();
}

std::string headline(const kest::Any &value) {
  return kest::Error::isInstance(value) ? kest::Error::unsafeFrom(value).headline().toUtf8() : "<not an error>";
}

} // namespace

TEST(Facade, CallsBeforeStartAreErrorsNotCrashes) {
  EXPECT_EQ(headline(py::exec("return 1").as<kest::Any>()), "Python is not started: call kest::python::start() first.");
  EXPECT_TRUE(py::eval("1").isError());
  EXPECT_TRUE(py::import_module("json").isError());
  EXPECT_EQ(py::capture_output([] {}), "");
  EXPECT_FALSE(py::interrupt(kest::Integer(1)));
}

TEST(Facade, StartWithAPathThatIsNoExtensionIsAClearError) {
  auto started = py::start("/no/such/folder/sarvode_python.so");
  ASSERT_TRUE(started.isError());
  EXPECT_NE(headline(started.as<kest::Any>()).find("Unable to load the Python extension /no/such/folder/sarvode_python.so"),
            std::string::npos)
      << headline(started.as<kest::Any>());
  start_python(); // the default path still works afterwards
  EXPECT_EQ(kest::to<int>(py::eval("1 + 1")), 2);
}

TEST(Facade, StartWithAPythonThatDoesNotExistIsAClearError) {
  auto started = py::start(py::options{.python = "/no/such/python3"});
  ASSERT_TRUE(started.isError());
  EXPECT_EQ(headline(started.as<kest::Any>()), "Python /no/such/python3 does not exist.");
  EXPECT_TRUE(py::loaded_interpreter().version.empty());
  start_python(); // the environment's choice still works afterwards
  EXPECT_EQ(py::loaded_interpreter().version, kest::to<std::string>(py::eval("__import__('platform').python_version()")));
}

TEST(Facade, StartWithAChosenPythonProgram) {
  auto started = py::start(py::options{.python = SARVODE_TEST_PYTHON});
  ASSERT_FALSE(started.isError()) << headline(started.as<kest::Any>());
  const auto python = py::loaded_interpreter();
  EXPECT_EQ(python.executable, SARVODE_TEST_PYTHON);
  EXPECT_NE(python.library.find("libpython"), std::string::npos) << python.library;
  EXPECT_EQ(python.version, kest::to<std::string>(py::eval("__import__('platform').python_version()")));
  auto again = py::start(py::options{.python = "/no/such/python3"}); // started: the choice is made once
  EXPECT_FALSE(again.isError());
}

TEST(Facade, StartFromEightThreadsAtOnceStartsOnce) {
  std::atomic<int> failures{0};
  on_threads([&](int) {
    if (py::start().isError())
      ++failures;
  });
  EXPECT_EQ(failures.load(), 0);
  EXPECT_FALSE(py::start().isError()); // and again, later
  EXPECT_EQ(kest::to<int>(py::eval("6 * 7")), 42);
}

TEST(Facade, EvaluationFromEightThreadsWithInlineScopes) {
  start_python();
  std::atomic<int> wrong{0};
  on_threads([&](int t) {
    for (int i = 0; i < 50; ++i) {
      py::scope names{{"t", t}, {"i", i}, {"label", "n"}};
      names.out("total", 0);
      auto text = py::exec("total = t * 1000 + i\nreturn label + str(total)", names);
      if (kest::to<std::string>(text) != "n" + std::to_string(t * 1000 + i) ||
          kest::to<int>(names["total"]) != t * 1000 + i || kest::to<double>(py::eval("x / 2", {{"x", i}})) != i / 2.0)
        ++wrong;
    }
  });
  EXPECT_EQ(wrong.load(), 0);
}

TEST(Facade, OutLocalsAndSelf) {
  start_python();
  py::scope names;
  names.out("a", 1).out("b", "x").set("c", 2.5).self(kest::String(u"me"));
  auto result = py::exec("a = a + 1\nb = b * 2\nreturn self + str(c)", names);
  EXPECT_EQ(kest::to<std::string>(result), "me2.5");
  EXPECT_EQ(kest::to<int>(names["a"]), 2);
  EXPECT_EQ(kest::to<std::string>(names["b"]), "xx");
  EXPECT_TRUE(names["c"].is<kest::None>()); // an ordinary name, not an out-local
  // An error leaves the out-locals as they were.
  EXPECT_TRUE(py::exec("a = 100\nraise ValueError('no')", names).isError());
  EXPECT_EQ(kest::to<int>(names["a"]), 2);
}

TEST(Facade, ErrorsAreValuesWithTypeMessageAndLine) {
  start_python();
  auto error = py::exec("x = 1\ny = x / 0");
  ASSERT_TRUE(error.isError());
  auto e = error.as<kest::Error>();
  EXPECT_EQ(e.typeName().toUtf8(), "ZeroDivisionError");
  EXPECT_EQ(e.line(), 2);
  EXPECT_THROW((void)kest::to<double>(error), kest::bad_access);
}

TEST(Facade, TheSandboxedForms) {
  start_python();
  EXPECT_TRUE(py::exec_sandboxed("open('/tmp/facade-sandbox-test.txt', 'w')").isError());
  EXPECT_TRUE(py::eval_sandboxed("__import__('os').remove('/tmp/facade-sandbox-test.txt')").isError());
  EXPECT_EQ(kest::to<int>(py::eval_sandboxed("n * 2", {{"n", 21}})), 42);
  EXPECT_EQ(kest::to<int>(py::exec_sandboxed("return len(text)", {{"text", "four"}})), 4);
}

TEST(Facade, ModulesAttributesAndCallsWithCppArguments) {
  start_python();
  auto json = py::import_module("json");
  ASSERT_FALSE(json.isError());
  EXPECT_EQ(kest::to<std::string>(py::call(json.as<kest::Any>(), "dumps", "x")), "\"x\"");
  auto path = py::import_module("os.path").as<kest::Any>();
  EXPECT_EQ(kest::to<std::string>(py::call(path, "join", "a", std::string("b"), std::string_view("c"))), "a/b/c");
  auto dumps = py::attr(json.as<kest::Any>(), "dumps");
  EXPECT_EQ(kest::to<std::string>(py::call(dumps.as<kest::Any>(), 1.5)), "1.5");
  EXPECT_EQ(kest::to<std::string>(py::call(dumps.as<kest::Any>(), true)), "true");
  auto missing = py::import_module("no_such_module_here");
  EXPECT_EQ(missing.as<kest::Error>().typeName().toUtf8(), "ModuleNotFoundError");
  EXPECT_TRUE(py::attr(json.as<kest::Any>(), "no_such_function").isError());
  EXPECT_TRUE(py::call(kest::Integer(3), 1).isError()); // not callable: an error, no crash
  EXPECT_TRUE(py::call(json.as<kest::Any>(), "dumps").isError()); // too few arguments
}

TEST(Facade, CaptureOutputPerThread) {
  start_python();
  std::vector<std::string> outputs(thread_count);
  on_threads([&](int t) {
    outputs[static_cast<std::size_t>(t)] = py::capture_output([t] {
      for (int i = 0; i < 20; ++i)
        (void)py::exec("import sys\nprint(t, i)\nsys.stderr.write('e\\n')", {{"t", t}, {"i", i}});
    });
  });
  for (int t = 0; t < thread_count; ++t) {
    std::string expected;
    for (int i = 0; i < 20; ++i)
      expected += std::to_string(t) + " " + std::to_string(i) + "\ne\n";
    EXPECT_EQ(outputs[static_cast<std::size_t>(t)], expected) << "thread " << t;
  }
  // Nested: the inner capture takes what the inner function prints.
  std::string inner;
  const auto outer = py::capture_output([&] {
    (void)py::exec("print('outer')");
    inner = py::capture_output([] { (void)py::exec("print('inner', end='')"); });
  });
  EXPECT_EQ(outer, "outer\n");
  EXPECT_EQ(inner, "inner");
}

TEST(Facade, AnEvaluationThatEndsLeavesAnotherThreadsUnfinishedLine) {
  start_python();
  const char *sync = "import sys, threading\nsync = sys.__dict__.setdefault('_facade_sync', "
                     "(threading.Event(), threading.Event()))\n";
  std::string half_written;
  std::thread writer([&] {
    half_written = py::capture_output([&] {
      (void)py::exec(std::string(sync) + "sys.stdout.write('half')\nsync[0].set()\nsync[1].wait(30)\nprint(' line')");
    });
  });
  ASSERT_TRUE(kest::to<bool>(py::exec(std::string(sync) + "return sync[0].wait(30)")));
  // The writer's line waits for its newline while this thread's evaluation ends.
  EXPECT_EQ(py::capture_output([] { (void)py::exec("print('other')"); }), "other\n");
  (void)py::exec(std::string(sync) + "sync[1].set()");
  writer.join();
  EXPECT_EQ(half_written, "half line\n");
}

TEST(Facade, InterruptFromAnotherThread) {
  start_python();
  std::atomic<bool> ready{false};
  kest::Any worker;
  kest::Any stopped;
  std::thread runaway([&] {
    worker = py::current_thread();
    ready = true;
    stopped = py::exec("while True:\n    pass").as<kest::Any>();
  });
  while (!ready)
    std::this_thread::yield();
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
  while (!py::interrupt(worker) && std::chrono::steady_clock::now() < deadline)
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  runaway.join();
  EXPECT_EQ(kest::qualname(kest::raw_class_of(stopped)).toUtf8(), "kest.cpython.KeyboardInterrupt");
  EXPECT_FALSE(py::interrupt(worker)); // nothing runs there now
  EXPECT_EQ(kest::to<int>(py::eval("1")), 1);
}

// --- the interpreter lock held across a loop --------------------------------------

TEST(Facade, ALockScopeEnteredTwiceNestsAndLetsGoOfTheLockAtTheEnd) {
  start_python();
  auto list = py::eval("list(range(100))").as<kest::Any>();
  ASSERT_TRUE(kest::I_Iterable::isInstance(list));
  {
    py::gil outer;
    ASSERT_TRUE(outer.held());
    py::gil inner;
    EXPECT_TRUE(inner.held());
    std::int64_t sum = 0;
    for (const kest::Any &item : kest::I_Iterable::unsafeFrom(list))
      sum += kest::to<std::int64_t>(item);
    EXPECT_EQ(sum, 4950);
    EXPECT_EQ(kest::to<int>(py::eval("len(x)", py::scope{{"x", list}})), 100); // evaluation nests too
  }
  // Both scopes ended: another thread enters Python (it would wait forever otherwise).
  int other_result = 0;
  std::thread other([&] { other_result = kest::to<int>(py::eval("2 + 3")); });
  other.join();
  EXPECT_EQ(other_result, 5);
}

TEST(Facade, WhileALockScopeIsOpenOtherThreadsWaitToEnterPython) {
  start_python();
  std::atomic<bool> open{false}, closing{false}, closed_before_eval_returned{false};
  std::thread holder([&] {
    py::gil hold;
    ASSERT_TRUE(hold.held());
    open = true;
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    closing = true; // set before the scope ends: a waiting thread can only see it true
  });
  std::thread waiter([&] {
    while (!open)
      std::this_thread::yield();
    auto value = py::eval("41 + 1");
    closed_before_eval_returned = closing.load();
    EXPECT_EQ(kest::to<int>(value), 42);
  });
  holder.join();
  waiter.join();
  EXPECT_TRUE(closed_before_eval_returned);
}

TEST(Facade, TwoThreadsEachHoldingALockScopeWalkTheSameListInTurn) {
  start_python();
  auto list = py::eval("list(range(10000))").as<kest::Any>();
  std::atomic<int> inside{0}, overlapped{0};
  auto walk = [&](std::int64_t &sum) {
    for (int round = 0; round < 20; ++round) {
      py::gil hold;
      if (inside.fetch_add(1) != 0)
        ++overlapped; // two scopes open at once: the lock did not hold
      sum = 0;
      for (const kest::Any &item : kest::I_Iterable::unsafeFrom(list))
        sum += kest::to<std::int64_t>(item);
      inside.fetch_sub(1);
    }
  };
  std::int64_t first = 0, second = 0;
  std::thread a([&] { walk(first); }), b([&] { walk(second); });
  a.join();
  b.join();
  EXPECT_EQ(first, 49995000);
  EXPECT_EQ(second, 49995000);
  EXPECT_EQ(overlapped.load(), 0);
}

TEST(Facade, ALockScopeBeforeStartHoldsNothing) {
  py::gil hold;
  EXPECT_FALSE(hold.held());
}
