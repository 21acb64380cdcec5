// The read-only sandbox: blocked events, the "open" rules, and what the scope restores.

#include "fresh_interpreter.hpp"
#include "python_test_support.hpp"
#include "temp_folder.hpp"

#include "runtime/python_ready.hpp"
#include "runtime/sandbox.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <fstream>
#include <stdexcept>
#include <thread>

using namespace sarvode;
using sarvode::test_support::run_python;
using sarvode::test_support::temp_folder;

namespace {
constexpr const char *write_blocked = "write blocked: read-only sandbox";
constexpr const char *operation_blocked = "operation blocked in sandbox";

void expect_blocked(const test_support::outcome &o, const char *message) {
  EXPECT_FALSE(o.ok);
  EXPECT_EQ(o.type, "PermissionError");
  EXPECT_EQ(o.message, message);
}

void write_file(const std::string &path, const std::string &text = "data") { std::ofstream(path) << text; }

bool exists(const std::string &path) { return std::filesystem::exists(path); }

/// The events the sandbox blocks, as the host documents them.
const char *const blocked_events[] = {
    "os.remove", "os.rename", "os.mkdir", "os.rmdir", "os.chmod", "os.chown", "os.replace", "os.truncate",
    "os.symlink", "os.link", "os.chdir", "os.chflags", "os.setxattr", "os.removexattr", "os.utime",
    "shutil.rmtree", "shutil.move", "shutil.copyfile", "shutil.copytree", "shutil.copymode", "shutil.copystat",
    "shutil.chown", "shutil.make_archive", "shutil.unpack_archive", "tempfile.mkstemp", "tempfile.mkdtemp",
    "subprocess.Popen", "os.system", "os.exec", "os.spawn", "os.posix_spawn", "os.fork", "os.forkpty",
    "os.startfile", "os.startfile/2", "pty.spawn", "os.kill", "os.killpg", "signal.pthread_kill", "os.putenv",
    "os.unsetenv", "socket.__new__", "socket.connect", "socket.bind", "socket.sendmsg", "socket.sendto",
    "socket.sethostname", "socket.getaddrinfo", "socket.gethostbyaddr", "socket.gethostbyname",
    "socket.gethostname", "socket.getnameinfo", "socket.getservbyname", "socket.getservbyport",
    "http.client.connect", "http.client.send", "ftplib.connect", "ftplib.sendcmd", "imaplib.open", "imaplib.send",
    "poplib.connect", "poplib.putline", "smtplib.connect", "smtplib.send", "urllib.Request", "webbrowser.open",
    "sqlite3.connect", "sqlite3.connect/handle", "sqlite3.enable_load_extension", "sqlite3.load_extension",
    "ctypes.dlopen", "ctypes.dlsym", "ctypes.call_function", "fcntl.fcntl", "fcntl.flock", "fcntl.ioctl",
    "fcntl.lockf", "msvcrt.locking", "resource.prlimit", "resource.setrlimit", "_thread.start_new_thread",
    "os.add_dll_directory", "sys.addaudithook"};
} // namespace

TEST(Sandbox, EveryListedEventIsBlockedInsideTheScope) {
  SARVODE_REQUIRE_OWN_START_UP();
  ensurePythonReady();
  SandboxScope scope;
  for (const char *event : blocked_events) {
    SCOPED_TRACE(event);
    expect_blocked(run_python(std::string("import sys\nsys.audit('") + event + "', 1, 2)"), operation_blocked);
  }
}

TEST(Sandbox, ThreadStartsOfNewerInterpretersAreBlockedToo) {
  SARVODE_REQUIRE_OWN_START_UP();
  SandboxScope scope;
  expect_blocked(run_python("import sys\nsys.audit('_thread.start_joinable_thread', 1)"), operation_blocked);
}

TEST(Sandbox, ListedEventsPassOutsideTheScope) {
  SARVODE_REQUIRE_OWN_START_UP();
  for (const char *event : blocked_events) {
    SCOPED_TRACE(event);
    EXPECT_TRUE(run_python(std::string("import sys\nsys.audit('") + event + "', 1, 2)").ok);
  }
}

TEST(Sandbox, UnlistedEventsPassInsideTheScope) {
  SARVODE_REQUIRE_OWN_START_UP();
  SandboxScope scope;
  EXPECT_TRUE(run_python("import sys\nsys.audit('kest.harmless', 1)").ok);
  EXPECT_TRUE(run_python("import math\nx = math.sqrt(4)").ok);
}

TEST(Sandbox, ReadingOpensSucceed) {
  SARVODE_REQUIRE_OWN_START_UP();
  temp_folder tmp;
  write_file(tmp.file("in.txt"), "hello");
  SandboxScope scope;
  for (const char *mode : {"", ", 'r'", ", 'rb'"}) {
    SCOPED_TRACE(mode);
    auto o = run_python("with open('" + tmp.file("in.txt") + "'" + mode + ") as f:\n    assert len(f.read()) == 5");
    EXPECT_TRUE(o.ok) << o.type << ": " << o.message;
  }
}

TEST(Sandbox, WritingOpensAreBlockedAndCreateNothing) {
  SARVODE_REQUIRE_OWN_START_UP();
  temp_folder tmp;
  write_file(tmp.file("existing.txt"), "keep");
  SandboxScope scope;
  for (const char *mode : {"w", "a", "x", "r+", "wb"}) {
    SCOPED_TRACE(mode);
    const auto fresh = tmp.file(std::string("new-") + (mode[0] == 'r' ? "rplus" : mode) + ".txt");
    expect_blocked(run_python("open('" + fresh + "', '" + mode + "')"), write_blocked);
    EXPECT_FALSE(exists(fresh));
    expect_blocked(run_python("open('" + tmp.file("existing.txt") + "', '" + mode + "')"), write_blocked);
  }
  std::ifstream in(tmp.file("existing.txt"));
  std::string text;
  in >> text;
  EXPECT_EQ(text, "keep");
}

TEST(Sandbox, LowLevelOpenForReadingSucceedsAndForWritingIsBlocked) {
  SARVODE_REQUIRE_OWN_START_UP();
  temp_folder tmp;
  write_file(tmp.file("in.txt"));
  SandboxScope scope;
  EXPECT_TRUE(run_python("import os\nfd = os.open('" + tmp.file("in.txt") + "', os.O_RDONLY)\nos.close(fd)").ok);
  for (const char *flags : {"os.O_WRONLY", "os.O_RDONLY | os.O_CREAT", "os.O_RDONLY | os.O_APPEND", "os.O_RDWR",
                            "os.O_WRONLY | os.O_TRUNC", "os.O_WRONLY | os.O_CREAT | os.O_EXCL"}) {
    SCOPED_TRACE(flags);
    expect_blocked(run_python("import os\nos.open('" + tmp.file("created.txt") + "', " + flags + ")"), write_blocked);
  }
  EXPECT_FALSE(exists(tmp.file("created.txt")));
}

TEST(Sandbox, RealOperationsAreBlocked) {
  SARVODE_REQUIRE_OWN_START_UP();
  temp_folder tmp;
  write_file(tmp.file("victim.txt"));
  SandboxScope scope;
  expect_blocked(run_python("import os\nos.remove('" + tmp.file("victim.txt") + "')"), operation_blocked);
  EXPECT_TRUE(exists(tmp.file("victim.txt")));
  expect_blocked(run_python("import subprocess\nsubprocess.Popen(['true'])"), operation_blocked);
  expect_blocked(run_python("import socket\nsocket.socket()"), operation_blocked);
  expect_blocked(run_python("import os\nos.mkdir('" + tmp.file("dir") + "')"), operation_blocked);
  EXPECT_FALSE(exists(tmp.file("dir")));
  expect_blocked(run_python("import os\nos.putenv('SARVODE_SANDBOX_TEST', '1')"), operation_blocked);
}

TEST(Sandbox, AddingAnotherAuditHookInstallsNothing) {
  SARVODE_REQUIRE_OWN_START_UP();
  ASSERT_TRUE(run_python("import sys, builtins\n"
                         "builtins.sarvode_hook_calls = 0\n"
                         "def hook(event, args):\n"
                         "    if event == 'kest.probe':\n"
                         "        builtins.sarvode_hook_calls += 1\n"
                         "builtins.sarvode_hook = hook")
                  .ok);
  {
    SandboxScope scope;
    // The interpreter swallows the veto of a hook for "sys.addaudithook": the
    // call returns normally, but the hook must not be installed.
    run_python("import sys, builtins\nsys.addaudithook(builtins.sarvode_hook)");
  }
  ASSERT_TRUE(run_python("import sys\nsys.audit('kest.probe')").ok);
  EXPECT_EQ(test_support::eval_str("__import__('builtins').sarvode_hook_calls"), "0");
}

TEST(Sandbox, TheSameOperationsSucceedOutsideTheScope) {
  SARVODE_REQUIRE_OWN_START_UP();
  temp_folder tmp;
  write_file(tmp.file("victim.txt"));
  EXPECT_TRUE(run_python("import os\nos.remove('" + tmp.file("victim.txt") + "')").ok);
  EXPECT_FALSE(exists(tmp.file("victim.txt")));
  EXPECT_TRUE(run_python("open('" + tmp.file("out.txt") + "', 'w').write('x')").ok);
  EXPECT_TRUE(exists(tmp.file("out.txt")));
  EXPECT_TRUE(run_python("import socket\nsocket.socket().close()").ok);
}

TEST(Sandbox, AnotherThreadIsNotRestrictedDuringAScope) {
  SARVODE_REQUIRE_OWN_START_UP();
  temp_folder tmp;
  write_file(tmp.file("victim.txt"));
  ensurePythonReady();
  std::atomic<bool> scope_open{false};
  test_support::outcome other;
  std::thread worker([&] {
    while (!scope_open.load())
      std::this_thread::yield();
    // Runs while the sandboxed thread sleeps with the lock released.
    other = run_python("import os\nos.remove('" + tmp.file("victim.txt") + "')");
  });
  {
    SandboxScope scope;
    scope_open = true;
    EXPECT_TRUE(run_python("import time\ntime.sleep(0.5)").ok);
    expect_blocked(run_python("import os\nos.remove('" + tmp.file("other.txt") + "')"), operation_blocked);
  }
  worker.join();
  EXPECT_TRUE(other.ok) << other.type << ": " << other.message;
  EXPECT_FALSE(exists(tmp.file("victim.txt")));
}

TEST(Sandbox, DontWriteBytecodeGetsItsPreviousValueBack) {
  SARVODE_REQUIRE_OWN_START_UP();
  ASSERT_TRUE(run_python("import sys\nsys.dont_write_bytecode = 'before'").ok);
  {
    SandboxScope scope;
    EXPECT_EQ(test_support::eval_str("__import__('sys').dont_write_bytecode"), "True");
  }
  EXPECT_EQ(test_support::eval_str("__import__('sys').dont_write_bytecode"), "before");
}

TEST(Sandbox, AMissingDontWriteBytecodeIsFalseAfterwards) {
  SARVODE_REQUIRE_OWN_START_UP();
  ASSERT_TRUE(run_python("import sys\nif hasattr(sys, 'dont_write_bytecode'): del sys.dont_write_bytecode").ok);
  ASSERT_EQ(test_support::eval_str("hasattr(__import__('sys'), 'dont_write_bytecode')"), "False");
  { SandboxScope scope; }
  EXPECT_EQ(test_support::eval_str("__import__('sys').dont_write_bytecode"), "False");
}

TEST(Sandbox, AnExceptionInsideTheScopeStillRestoresEverything) {
  SARVODE_REQUIRE_OWN_START_UP();
  ASSERT_TRUE(run_python("import sys\nsys.dont_write_bytecode = False").ok);
  try {
    SandboxScope scope;
    EXPECT_FALSE(run_python("raise ValueError('inside')").ok);
    throw std::runtime_error("unwinding");
  } catch (const std::runtime_error &) {
  }
  EXPECT_FALSE(sandboxActive());
  EXPECT_EQ(test_support::eval_str("__import__('sys').dont_write_bytecode"), "False");
  // The lock was released: another thread can take it.
  std::atomic<bool> took{false};
  std::thread([&] {
    py::gil lock;
    took = true;
  }).join();
  EXPECT_TRUE(took);
  EXPECT_TRUE(run_python("import sys\nsys.audit('os.remove', 'x')").ok);
}

TEST(Sandbox, NestedScopesRestoreTheOuterState) {
  SARVODE_REQUIRE_OWN_START_UP();
  EXPECT_FALSE(sandboxActive());
  {
    SandboxScope outer;
    {
      SandboxScope inner;
      EXPECT_TRUE(sandboxActive());
    }
    EXPECT_TRUE(sandboxActive());
    expect_blocked(run_python("import sys\nsys.audit('os.remove', 'x')"), operation_blocked);
    EXPECT_EQ(test_support::eval_str("__import__('sys').dont_write_bytecode"), "True");
  }
  EXPECT_FALSE(sandboxActive());
  EXPECT_TRUE(run_python("import sys\nsys.audit('os.remove', 'x')").ok);
}

TEST(Sandbox, StartingAThreadIsBlockedOnEveryVersion) {
  // 3.13 raises "_thread.start_joinable_thread", 3.12 "_thread.start_new_thread",
  // and 3.11 no event at all: there the guard of _thread's functions stops it.
  SARVODE_REQUIRE_OWN_START_UP();
  SandboxScope scope;
  auto o = run_python("import threading\nt = threading.Thread(target=lambda: None)\nt.start()\nt.join()");
  expect_blocked(o, operation_blocked);
}

TEST(Sandbox, NoPythonErrorIsLeftPendingAfterABlockedEvent) {
  SARVODE_REQUIRE_OWN_START_UP();
  SandboxScope scope;
  run_python("import os\nos.remove('/nonexistent')");
  EXPECT_EQ(PyErr_Occurred(), nullptr);
}
