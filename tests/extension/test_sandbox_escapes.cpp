// Ways out of the sandbox that raise no audit event: processes through the
// native module, special files, signals, ending the process, sub-interpreters,
// threads on 3.11, and objects whose code runs after the sandboxed call.
// CTest runs each test in a process of its own; every test checks what an
// attempt would have left behind, and that the process is still alive.

#include "fresh_interpreter.hpp"
#include "language_test_support.hpp"
#include "python_test_support.hpp"
#include "sandbox_test_support.hpp"
#include "temp_folder.hpp"

#include "runtime/sandbox.hpp"
#include "runtime/sandbox_guards.hpp"

#include <gtest/gtest.h>

#include <filesystem>
#include <thread>

using namespace sarvode;
using namespace sarvode::test_support;

namespace {

bool exists(const std::string &path) { return std::filesystem::exists(std::filesystem::symlink_status(path)); }

std::string quoted(const std::string &path) { return "r'" + path + "'"; }
} // namespace

TEST(SandboxEscapes, GuardsAreInPlaceAfterStartUp) {
  SARVODE_REQUIRE_OWN_START_UP();
  EXPECT_GE(sandboxGuardCount(), 20u);
}

TEST(SandboxEscapes, ForkExecReachedWithoutAnAuditEventIsBlocked) {
  SARVODE_REQUIRE_OWN_START_UP();
  temp_folder tmp;
  // multiprocessing's helper calls _posixsubprocess.fork_exec directly.
  const auto spawn = [](const std::string &path) {
    return "from multiprocessing.util import spawnv_passfds\n"
           "import os\n"
           "pid = spawnv_passfds(b'/usr/bin/touch', [b'touch', os.fsencode(" + quoted(path) + ")], ())\n"
           "os.waitpid(pid, 0)\n"
           "return 1";
  };
  expect_blocked(sandboxed(spawn(tmp.file("sandboxed"))), "fork_exec through multiprocessing.util");
  EXPECT_FALSE(exists(tmp.file("sandboxed")));
  expect_blocked(sandboxed("import _posixsubprocess\n_posixsubprocess.fork_exec()"), "fork_exec called directly");

  // The same code outside the sandbox starts the program.
  EXPECT_EQ(integer_of(evaluate(spawn(tmp.file("outside")))), 1);
  EXPECT_TRUE(exists(tmp.file("outside")));
}

TEST(SandboxEscapes, ForkExecStaysGuardedInAModuleMadeAgain) {
  SARVODE_REQUIRE_OWN_START_UP();
  temp_folder tmp;
  const auto code = "import sys, importlib.util\n"
                    "del sys.modules['_posixsubprocess']\n"
                    "fresh = importlib.util.module_from_spec(importlib.util.find_spec('_posixsubprocess'))\n"
                    "fresh.fork_exec()\n";
  expect_blocked(sandboxed(code), "fork_exec of a module made again");
  expect_blocked(sandboxed("import sys\nsys.modules.pop('_posixsubprocess', None)\nimport _posixsubprocess\n"
                           "_posixsubprocess.fork_exec()"),
                 "fork_exec after importing again");
}

TEST(SandboxEscapes, SubprocessAndMultiprocessingAreBlocked) {
  SARVODE_REQUIRE_OWN_START_UP();
  temp_folder tmp;
  const auto path = tmp.file("made");
  expect_blocked(sandboxed("import subprocess\nsubprocess.run(['/usr/bin/touch', " + quoted(path) + "])"),
                 "subprocess.run");
  expect_blocked(sandboxed("import os\nos.system('touch " + path + "')"), "os.system");
  expect_blocked(sandboxed("import multiprocessing, os\n"
                           "ctx = multiprocessing.get_context('fork')\n"
                           "p = ctx.Process(target=os.mknod, args=(" + quoted(path) + ",))\n"
                           "p.start()\np.join()"),
                 "multiprocessing with fork");
  EXPECT_FALSE(exists(path));
}

TEST(SandboxEscapes, SpecialFilesAreNotMade) {
  SARVODE_REQUIRE_OWN_START_UP();
  temp_folder tmp;
  expect_blocked(sandboxed("import os\nos.mknod(" + quoted(tmp.file("node")) + ")"), "os.mknod");
  expect_blocked(sandboxed("import posix\nposix.mknod(" + quoted(tmp.file("node")) + ")"), "posix.mknod");
  expect_blocked(sandboxed("import os\nos.mkfifo(" + quoted(tmp.file("fifo")) + ")"), "os.mkfifo");
  EXPECT_FALSE(exists(tmp.file("node")));
  EXPECT_FALSE(exists(tmp.file("fifo")));

  expect_allowed("import os\nos.mkfifo(" + quoted(tmp.file("fifo")) + ")");
  EXPECT_TRUE(exists(tmp.file("fifo")));
}

TEST(SandboxEscapes, NoSignalReachesTheProcess) {
  SARVODE_REQUIRE_OWN_START_UP();
  const char *attempts[] = {
      "import signal\nsignal.raise_signal(signal.SIGTERM)",
      "import signal\nsignal.raise_signal(signal.SIGKILL)",
      "import os, signal\nos.kill(os.getpid(), signal.SIGTERM)",
      "import os, signal\nos.killpg(os.getpgid(0), signal.SIGTERM)",
      "import signal, threading\nsignal.pthread_kill(threading.get_ident(), signal.SIGTERM)",
      "import signal\nsignal.alarm(1)",
      "import signal\nsignal.setitimer(signal.ITIMER_REAL, 0.05)",
      "import signal\nsignal.signal(signal.SIGINT, signal.SIG_DFL)",
      "import os\nos.abort()",
      "import os\nos._exit(3)",
      "import faulthandler\nfaulthandler._sigsegv()",
      "import faulthandler\nfaulthandler._read_null()",
      "import faulthandler\nfaulthandler.dump_traceback_later(0.01, exit=True)",
  };
  for (const char *code : attempts)
    expect_blocked(sandboxed(code), code);
  // Still alive after any timer would have fired.
  std::this_thread::sleep_for(std::chrono::milliseconds(1200));
  EXPECT_EQ(integer_of(evaluate("return 1")), 1);
}

TEST(SandboxEscapes, SignalsStillWorkOutsideTheSandbox) {
  SARVODE_REQUIRE_OWN_START_UP();
  expect_allowed("import signal\nold = signal.signal(signal.SIGUSR1, lambda *a: None)\n"
                 "signal.raise_signal(signal.SIGUSR1)\nsignal.signal(signal.SIGUSR1, old)");
}

TEST(SandboxEscapes, SubInterpretersAreNotCreated) {
  SARVODE_REQUIRE_OWN_START_UP();
  const auto code = "try:\n    import _interpreters as interpreters\n"
                    "except ImportError:\n    import _xxsubinterpreters as interpreters\n"
                    "return interpreters.create()";
  expect_blocked(sandboxed(code), "a sub-interpreter");
  // The process is fine, and outside the sandbox one can be made.
  auto made = evaluate(code);
  EXPECT_FALSE(kest::Error::isInstance(made)) << message_of(made);
}

TEST(SandboxEscapes, TheSubInterpreterModuleIsLoadedAndGuardedWhenTheFirstSandboxOpens) {
  SARVODE_REQUIRE_OWN_START_UP();
  if (sandboxEverUsed())
    GTEST_SKIP() << "a sandbox opened earlier in this process (run it through ctest)";
  const auto loaded = "import sys\nreturn '_xxsubinterpreters' in sys.modules or '_interpreters' in sys.modules";
  // Not at start-up, as python3 does not load it either...
  EXPECT_FALSE(boolean_of(evaluate(loaded)));
  const auto before = sandboxGuardCount();
  // ...but before the first sandboxed code runs.
  EXPECT_TRUE(kest::is_none(sandboxed("pass")));
  EXPECT_TRUE(boolean_of(evaluate(loaded)));
  EXPECT_EQ(sandboxGuardCount(), before + 1);
  py::gil lock;
  EXPECT_EQ(PyErr_Occurred(), nullptr);
}

TEST(SandboxEscapes, ThreadsAreNotStarted) {
  SARVODE_REQUIRE_OWN_START_UP();
  expect_blocked(sandboxed("import _thread\n_thread.start_new_thread(print, ())"), "_thread.start_new_thread");
  expect_blocked(sandboxed("import threading\nthreading.Thread(target=print).start()"), "threading.Thread");
  expect_allowed("import threading\nt = threading.Thread(target=print, args=('',))\nt.start()\nt.join()");
}

// --- objects that outlive the sandboxed call ---------------------------------

namespace {
/// A class whose instances write `path` when they are released.
std::string writer_class(const std::string &path) {
  return "class Writer:\n"
         "    def __del__(self):\n"
         "        with open(" + quoted(path) + ", 'w') as f:\n"
         "            f.write('escaped')\n";
}
} // namespace

TEST(SandboxEscapes, AResultReleasedLaterStaysSandboxed) {
  SARVODE_REQUIRE_OWN_START_UP();
  temp_folder tmp;
  const auto path = tmp.file("result");
  {
    auto result = sandboxed(writer_class(path) + "return Writer()");
    ASSERT_FALSE(kest::Error::isInstance(result)) << message_of(result);
    EXPECT_FALSE(exists(path));
  } // released here, outside any sandbox call
  EXPECT_FALSE(exists(path));

  // The same object from a plain evaluation writes the file when released.
  { auto plain = evaluate(writer_class(path) + "return Writer()"); }
  EXPECT_TRUE(exists(path));
}

TEST(SandboxEscapes, AReplacedDelCodeStaysSandboxed) {
  SARVODE_REQUIRE_OWN_START_UP();
  temp_folder tmp;
  const auto path = tmp.file("replaced");
  {
    auto result = sandboxed("class Quiet:\n    def __del__(self):\n        pass\n" + writer_class(path) +
                            "Quiet.__del__.__code__ = Writer.__del__.__code__\nreturn Quiet()");
    ASSERT_FALSE(kest::Error::isInstance(result)) << message_of(result);
  }
  EXPECT_FALSE(exists(path));
}

TEST(SandboxEscapes, AnOutLocalReleasedLaterStaysSandboxed) {
  SARVODE_REQUIRE_OWN_START_UP();
  temp_folder tmp;
  const auto path = tmp.file("out-local");
  {
    auto out = string_map({{"kept", kest::None()}});
    kest::EvaluationScope scope(kest::Any(), kest::None(), kest::None(), kest::I_MutableMap::unsafeFrom(out));
    auto result = sandboxed(writer_class(path) + "kept = Writer()\nreturn 1", scope);
    EXPECT_EQ(integer_of(result), 1);
    auto kept = unwrapped(kest::I_Map::unsafeFrom(out).get(kest::String(u"kept")));
    EXPECT_FALSE(kest::is_none(kept));
  }
  EXPECT_FALSE(exists(path));
}

TEST(SandboxEscapes, AListHoldingTheObjectStaysSandboxed) {
  SARVODE_REQUIRE_OWN_START_UP();
  temp_folder tmp;
  const auto path = tmp.file("in-list");
  {
    auto result = sandboxed(writer_class(path) + "return [Writer(), 1]");
    ASSERT_FALSE(kest::Error::isInstance(result)) << message_of(result);
  }
  EXPECT_FALSE(exists(path));
}

TEST(SandboxEscapes, AResultReleasedOnAnotherThreadStaysSandboxed) {
  SARVODE_REQUIRE_OWN_START_UP();
  temp_folder tmp;
  const auto path = tmp.file("thread");
  auto result = sandboxed(writer_class(path) + "return Writer()");
  ASSERT_FALSE(kest::Error::isInstance(result)) << message_of(result);
  std::thread([held = std::move(result)]() mutable { held.reset(); }).join();
  EXPECT_FALSE(exists(path));
}
