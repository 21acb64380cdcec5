// The audit events the sandbox blocks beyond files, processes and sockets:
// Windows files, processes and registry, raw memory through ctypes, code
// objects, file maps, hooks that outlive the call, the system log, more
// network protocols, locks and installing packages; and the functions that
// change the process's identity or scheduling. Each test runs real code in the
// sandbox where this platform has it, and the same code outside as a control.
// Events that only Windows raises are raised with sys.audit, which reaches the
// same hook as the interpreter's own events.

#include "fresh_interpreter.hpp"
#include "language_test_support.hpp"
#include "python_test_support.hpp"
#include "sandbox_test_support.hpp"
#include "temp_folder.hpp"

#include "runtime/sandbox.hpp"

#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <sstream>
#include <string>

using namespace sarvode;
using namespace sarvode::test_support;

namespace {

/// Raises `event` with `args` (Python text after the name) through sys.audit:
/// blocked inside the sandbox, let through outside.
void expect_event_blocked(const std::string &event, const std::string &args) {
  const auto code = "import sys\nsys.audit('" + event + "'" + args + ")\nreturn 1";
  expect_blocked(sandboxed(code), event);
  EXPECT_EQ(integer_of(evaluate(code)), 1) << event;
}

bool python_has(const std::string &expression) { return boolean_of(evaluate("return bool(" + expression + ")")); }

std::string quoted(const std::string &path) { return "r'" + path + "'"; }

std::string read_file(const std::string &path) {
  std::ifstream in(path);
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

/// Imports ctypes outside the sandbox, as a host that uses it would.
void import_ctypes_outside() { expect_allowed("import ctypes, _ctypes"); }
} // namespace

// --- Windows: files, pipes and processes below the public functions ----------

TEST(SandboxAuditEvents, WinapiCreateFileIsBlocked) {
  SARVODE_REQUIRE_OWN_START_UP();
  expect_event_blocked("_winapi.CreateFile", ", 'C:/x.txt', 0x40000000, 0, 2, 0");
}

TEST(SandboxAuditEvents, WinapiCreateJunctionIsBlocked) {
  SARVODE_REQUIRE_OWN_START_UP();
  expect_event_blocked("_winapi.CreateJunction", ", 'C:/a', 'C:/b'");
}

TEST(SandboxAuditEvents, WinapiCreateNamedPipeIsBlocked) {
  SARVODE_REQUIRE_OWN_START_UP();
  expect_event_blocked("_winapi.CreateNamedPipe", ", r'\\\\.\\pipe\\x', 3, 0");
}

TEST(SandboxAuditEvents, WinapiCreateProcessIsBlocked) {
  SARVODE_REQUIRE_OWN_START_UP();
  expect_event_blocked("_winapi.CreateProcess", ", 'cmd.exe', 'cmd /c echo', None");
}

TEST(SandboxAuditEvents, WinapiOpenProcessIsBlocked) {
  SARVODE_REQUIRE_OWN_START_UP();
  expect_event_blocked("_winapi.OpenProcess", ", 4, 1");
}

TEST(SandboxAuditEvents, WinapiTerminateProcessIsBlocked) {
  SARVODE_REQUIRE_OWN_START_UP();
  expect_event_blocked("_winapi.TerminateProcess", ", 0, 1");
}

// --- Windows registry --------------------------------------------------------

TEST(SandboxAuditEvents, RegistryConnectIsBlocked) {
  SARVODE_REQUIRE_OWN_START_UP();
  expect_event_blocked("winreg.ConnectRegistry", ", r'\\\\server', 0x80000002");
}

TEST(SandboxAuditEvents, RegistryCreateKeyIsBlocked) {
  SARVODE_REQUIRE_OWN_START_UP();
  expect_event_blocked("winreg.CreateKey", ", 0x80000001, 'Software\\\\Kest', 0x20006");
}

TEST(SandboxAuditEvents, RegistryDeleteKeyIsBlocked) {
  SARVODE_REQUIRE_OWN_START_UP();
  expect_event_blocked("winreg.DeleteKey", ", 0x80000001, 'Software\\\\Kest', 0");
}

TEST(SandboxAuditEvents, RegistryDeleteValueIsBlocked) {
  SARVODE_REQUIRE_OWN_START_UP();
  expect_event_blocked("winreg.DeleteValue", ", 0x80000001, 'Name'");
}

TEST(SandboxAuditEvents, RegistryDisableReflectionKeyIsBlocked) {
  SARVODE_REQUIRE_OWN_START_UP();
  expect_event_blocked("winreg.DisableReflectionKey", ", 0x80000002");
}

TEST(SandboxAuditEvents, RegistryEnableReflectionKeyIsBlocked) {
  SARVODE_REQUIRE_OWN_START_UP();
  expect_event_blocked("winreg.EnableReflectionKey", ", 0x80000002");
}

TEST(SandboxAuditEvents, RegistryLoadKeyIsBlocked) {
  SARVODE_REQUIRE_OWN_START_UP();
  expect_event_blocked("winreg.LoadKey", ", 0x80000003, 'Kest', 'C:/hive'");
}

TEST(SandboxAuditEvents, RegistrySaveKeyIsBlocked) {
  SARVODE_REQUIRE_OWN_START_UP();
  expect_event_blocked("winreg.SaveKey", ", 0x80000001, 'C:/hive'");
}

TEST(SandboxAuditEvents, RegistrySetValueIsBlocked) {
  SARVODE_REQUIRE_OWN_START_UP();
  expect_event_blocked("winreg.SetValue", ", 0x80000001, 'Name', 1, 'value'");
}

// --- raw memory and native code through ctypes --------------------------------

TEST(SandboxAuditEvents, CtypesNativeModuleIsNotLoadedInTheSandbox) {
  SARVODE_REQUIRE_OWN_START_UP();
  if (python_has("'_ctypes' in __import__('sys').modules"))
    GTEST_SKIP() << "_ctypes is loaded already in this process (run it through ctest)";
  expect_blocked(sandboxed("import _ctypes"), "import _ctypes");
  // Loading the module's file under another name calls the same init function.
  expect_blocked(sandboxed("import importlib.util\n"
                           "found = importlib.util.find_spec('_ctypes')\n"
                           "renamed = importlib.util.spec_from_file_location('kest._ctypes', found.origin)\n"
                           "importlib.util.module_from_spec(renamed)"),
                 "_ctypes from its file");
  EXPECT_FALSE(python_has("'_ctypes' in __import__('sys').modules"));
  expect_allowed("import _ctypes");
  // Once the host loaded it, sandboxed code that imports it gets the loaded module.
  EXPECT_EQ(integer_of(sandboxed("import _ctypes\nreturn 1")), 1);
}

TEST(SandboxAuditEvents, CtypesSymbolLookupByHandleIsBlocked) {
  SARVODE_REQUIRE_OWN_START_UP();
  import_ctypes_outside();
  const auto code = "import ctypes, _ctypes\nreturn _ctypes.dlsym(ctypes.pythonapi._handle, 'Py_IsInitialized')";
  expect_blocked(sandboxed(code), "_ctypes.dlsym");
  EXPECT_NE(integer_of(evaluate(code)), 0);
}

TEST(SandboxAuditEvents, CtypesObjectsAtAnAddressAreNotMade) {
  SARVODE_REQUIRE_OWN_START_UP();
  import_ctypes_outside();
  // Reading address 0 or 1 would crash the host.
  expect_blocked(sandboxed("import ctypes\nreturn ctypes.c_int.from_address(0).value"), "c_int.from_address(0)");
  expect_blocked(sandboxed("import ctypes\nreturn ctypes.c_int.from_address(1).value"), "c_int.from_address(1)");
  expect_blocked(sandboxed("import ctypes\nreturn ctypes.c_int.in_dll(ctypes.pythonapi, 'Py_OptimizeFlag').value"),
                 "c_int.in_dll");
  EXPECT_EQ(integer_of(evaluate("import ctypes\nx = ctypes.c_int(5)\n"
                                "return ctypes.c_int.from_address(ctypes.addressof(x)).value")),
            5);
}

TEST(SandboxAuditEvents, CtypesObjectsOverABufferAreNotMade) {
  SARVODE_REQUIRE_OWN_START_UP();
  import_ctypes_outside();
  // A pointer whose value comes from bytes would read address 1.
  expect_blocked(sandboxed("import ctypes\n"
                           "p = ctypes.POINTER(ctypes.c_char).from_buffer_copy((1).to_bytes(8, 'little'))\n"
                           "return p[0]"),
                 "a pointer from bytes");
  expect_blocked(sandboxed("import ctypes\nreturn ctypes.c_int.from_buffer(bytearray(4)).value"),
                 "c_int.from_buffer");
  EXPECT_EQ(integer_of(evaluate("import ctypes\nreturn ctypes.c_int.from_buffer(bytearray(b'\\x05\\0\\0\\0')).value")),
            5);
}

TEST(SandboxAuditEvents, CtypesStringAtIsBlocked) {
  SARVODE_REQUIRE_OWN_START_UP();
  import_ctypes_outside();
  // ctypes.string_at raises no other event on its way to the read.
  expect_blocked(sandboxed("import ctypes\nreturn ctypes.string_at(0)"), "string_at(0)");
  expect_blocked(sandboxed("import ctypes\nreturn ctypes.string_at(1, 4)"), "string_at(1, 4)");
  EXPECT_EQ(integer_of(evaluate("import ctypes\nb = ctypes.create_string_buffer(b'abc')\n"
                                "return len(ctypes.string_at(ctypes.addressof(b), 3))")),
            3);
}

TEST(SandboxAuditEvents, CtypesWideStringAtIsBlocked) {
  SARVODE_REQUIRE_OWN_START_UP();
  import_ctypes_outside();
  expect_blocked(sandboxed("import ctypes\nreturn ctypes.wstring_at(0)"), "wstring_at(0)");
  expect_blocked(sandboxed("import ctypes\nreturn ctypes.wstring_at(1, 2)"), "wstring_at(1, 2)");
  EXPECT_EQ(integer_of(evaluate("import ctypes\nb = ctypes.create_unicode_buffer('ab')\n"
                                "return len(ctypes.wstring_at(ctypes.addressof(b), 2))")),
            2);
}

TEST(SandboxAuditEvents, CtypesObjectFromAnAddressIsBlocked) {
  SARVODE_REQUIRE_OWN_START_UP();
  import_ctypes_outside();
  // With an address that holds no object, the interpreter crashes while it
  // builds the event's arguments, before any hook runs; so a valid one here.
  expect_blocked(sandboxed("import _ctypes\nx = object()\nreturn _ctypes.PyObj_FromPtr(id(x))"),
                 "PyObj_FromPtr of a live object");
  EXPECT_EQ(integer_of(evaluate("import _ctypes\nx = object()\nreturn int(_ctypes.PyObj_FromPtr(id(x)) is x)")), 1);
}

TEST(SandboxAuditEvents, ACharPointerMadeFromAnIntegerStillCrashesTheHost) {
  // No audit event comes before this read; the sandbox cannot stop it once
  // ctypes is loaded (the documentation says so). The read runs in a child.
  SARVODE_REQUIRE_OWN_START_UP();
  import_ctypes_outside();
  EXPECT_DEATH(sandboxed("import ctypes\nreturn ctypes.c_char_p(1).value"), "");
}

// --- code objects and file maps ----------------------------------------------

TEST(SandboxAuditEvents, CodeObjectsAreNotMade) {
  SARVODE_REQUIRE_OWN_START_UP();
  const auto code = "f = lambda: 1\nreturn f.__code__.replace(co_name='renamed').co_name";
  expect_blocked(sandboxed(code), "code.replace");
  expect_blocked(sandboxed("import types\nc = (lambda: 1).__code__\n"
                           "return types.CodeType(c.co_argcount, c.co_posonlyargcount, c.co_kwonlyargcount,\n"
                           "    c.co_nlocals, c.co_stacksize, c.co_flags, b'\\xff\\xff', c.co_consts, c.co_names,\n"
                           "    c.co_varnames, c.co_filename, c.co_name, c.co_qualname, c.co_firstlineno,\n"
                           "    c.co_linetable, c.co_exceptiontable)"),
                 "types.CodeType with crafted bytes");
  // Imports compile or load code without this event.
  EXPECT_EQ(integer_of(sandboxed("import json, dataclasses, fractions, statistics, typing, enum, csv\nreturn 1")), 1);
  EXPECT_EQ(text_of(evaluate(code)), "renamed");
}

TEST(SandboxAuditEvents, FileMapsAreNotMade) {
  SARVODE_REQUIRE_OWN_START_UP();
  temp_folder tmp;
  const auto path = tmp.file("mapped.txt");
  std::ofstream(path) << "data";
  // A file the host opened for writing; its descriptor is open to sandboxed code.
  expect_allowed("import builtins\nbuiltins.kest_mapped = open(" + quoted(path) + ", 'r+b')");
  const auto write_through_map = "import builtins, mmap\n"
                                 "m = mmap.mmap(builtins.kest_mapped.fileno(), 0)\n"
                                 "m[0:1] = b'X'\nm.close()\nreturn 1";
  expect_blocked(sandboxed(write_through_map), "a shared map of a writable file");
  expect_blocked(sandboxed("import mmap\nreturn len(mmap.mmap(-1, 16))"), "an anonymous map");
  EXPECT_EQ(read_file(path), "data");

  EXPECT_EQ(integer_of(evaluate(write_through_map)), 1);
  expect_allowed("import builtins\nbuiltins.kest_mapped.close()");
  EXPECT_EQ(read_file(path), "Xata");
}

// --- hooks that would run sandboxed functions later ----------------------------

TEST(SandboxAuditEvents, TraceFunctionsAreNotInstalled) {
  SARVODE_REQUIRE_OWN_START_UP();
  expect_blocked(sandboxed("import sys\nsys.settrace(lambda *a: None)"), "sys.settrace");
  EXPECT_TRUE(python_has("__import__('sys').gettrace() is None"));
  EXPECT_EQ(integer_of(evaluate("import sys\nf = lambda *a: None\nsys.settrace(f)\n"
                                "ok = sys.gettrace() is f\nsys.settrace(None)\nreturn int(ok)")),
            1);
}

TEST(SandboxAuditEvents, ProfileFunctionsAreNotInstalled) {
  SARVODE_REQUIRE_OWN_START_UP();
  expect_blocked(sandboxed("import sys\nsys.setprofile(lambda *a: None)"), "sys.setprofile");
  EXPECT_TRUE(python_has("__import__('sys').getprofile() is None"));
  EXPECT_EQ(integer_of(evaluate("import sys\nf = lambda *a: None\nsys.setprofile(f)\n"
                                "ok = sys.getprofile() is f\nsys.setprofile(None)\nreturn int(ok)")),
            1);
}

TEST(SandboxAuditEvents, MonitoringCallbacksAreNotRegistered) {
  SARVODE_REQUIRE_OWN_START_UP();
  if (!python_has("hasattr(__import__('sys'), 'monitoring')")) {
    // Python 3.11 has no sys.monitoring; the event goes through the same hook.
    expect_event_blocked("sys.monitoring.register_callback", ", print");
    return;
  }
  const auto code = "import sys\nm = sys.monitoring\n"
                    "old = m.register_callback(4, m.events.PY_START, print)\n"
                    "m.register_callback(4, m.events.PY_START, old)\nreturn 1";
  expect_blocked(sandboxed(code), "sys.monitoring.register_callback");
  EXPECT_EQ(integer_of(evaluate(code)), 1);
}

TEST(SandboxAuditEvents, AsyncGeneratorFirstIterHookIsNotSet) {
  SARVODE_REQUIRE_OWN_START_UP();
  expect_blocked(sandboxed("import sys\nsys.set_asyncgen_hooks(firstiter=print)"), "firstiter hook");
  EXPECT_TRUE(python_has("__import__('sys').get_asyncgen_hooks().firstiter is None"));
  EXPECT_EQ(integer_of(evaluate("import sys\nold = sys.get_asyncgen_hooks()\nsys.set_asyncgen_hooks(firstiter=print)\n"
                                "ok = sys.get_asyncgen_hooks().firstiter is print\n"
                                "sys.set_asyncgen_hooks(firstiter=old.firstiter)\nreturn int(ok)")),
            1);
}

TEST(SandboxAuditEvents, AsyncGeneratorFinalizerHookIsNotSet) {
  SARVODE_REQUIRE_OWN_START_UP();
  expect_blocked(sandboxed("import sys\nsys.set_asyncgen_hooks(finalizer=print)"), "finalizer hook");
  EXPECT_TRUE(python_has("__import__('sys').get_asyncgen_hooks().finalizer is None"));
  EXPECT_EQ(integer_of(evaluate("import sys\nold = sys.get_asyncgen_hooks()\nsys.set_asyncgen_hooks(finalizer=print)\n"
                                "ok = sys.get_asyncgen_hooks().finalizer is print\n"
                                "sys.set_asyncgen_hooks(finalizer=old.finalizer)\nreturn int(ok)")),
            1);
}

// --- network protocols of 3.11 and 3.12 ----------------------------------------
// Their sockets are blocked too, so the events are also raised directly: that
// shows the protocol's own event is refused, not only the socket below it.

TEST(SandboxAuditEvents, NntpConnectIsBlocked) {
  SARVODE_REQUIRE_OWN_START_UP();
  if (python_has("__import__('importlib.util').util.find_spec('nntplib')"))
    expect_blocked(sandboxed("import warnings\nwarnings.simplefilter('ignore')\nimport nntplib\n"
                             "nntplib.NNTP('127.0.0.1', 9, timeout=1)"),
                   "nntplib.NNTP");
  expect_event_blocked("nntplib.connect", ", None, '127.0.0.1', 119");
}

TEST(SandboxAuditEvents, NntpPutLineIsBlocked) {
  SARVODE_REQUIRE_OWN_START_UP();
  // Raised for each line sent on a connection, which the sandbox never opens.
  expect_event_blocked("nntplib.putline", ", None, b'QUIT'");
}

TEST(SandboxAuditEvents, TelnetOpenIsBlocked) {
  SARVODE_REQUIRE_OWN_START_UP();
  if (python_has("__import__('importlib.util').util.find_spec('telnetlib')"))
    expect_blocked(sandboxed("import warnings\nwarnings.simplefilter('ignore')\nimport telnetlib\n"
                             "telnetlib.Telnet('127.0.0.1', 9, timeout=1)"),
                   "telnetlib.Telnet");
  expect_event_blocked("telnetlib.Telnet.open", ", None, '127.0.0.1', 23");
}

TEST(SandboxAuditEvents, TelnetWriteIsBlocked) {
  SARVODE_REQUIRE_OWN_START_UP();
  // Raised for each write on a connection, which the sandbox never opens.
  expect_event_blocked("telnetlib.Telnet.write", ", None, b'x'");
}

// --- the system log -------------------------------------------------------------

TEST(SandboxAuditEvents, SyslogMessagesAreNotSent) {
  SARVODE_REQUIRE_OWN_START_UP();
  const auto code = "import syslog\nsyslog.syslog(syslog.LOG_DEBUG, 'kest sandbox test')\nreturn 1";
  expect_blocked(sandboxed(code), "syslog.syslog");
  EXPECT_EQ(integer_of(evaluate(code)), 1);
}

TEST(SandboxAuditEvents, SyslogOpenIsBlocked) {
  SARVODE_REQUIRE_OWN_START_UP();
  const auto code = "import syslog\nsyslog.openlog('kest-test', 0, syslog.LOG_USER)\nreturn 1";
  expect_blocked(sandboxed(code), "syslog.openlog");
  EXPECT_EQ(integer_of(evaluate(code)), 1);
}

TEST(SandboxAuditEvents, SyslogCloseIsBlocked) {
  SARVODE_REQUIRE_OWN_START_UP();
  const auto code = "import syslog\nsyslog.closelog()\nreturn 1";
  expect_blocked(sandboxed(code), "syslog.closelog");
  EXPECT_EQ(integer_of(evaluate(code)), 1);
}

TEST(SandboxAuditEvents, SyslogMaskIsNotChanged) {
  SARVODE_REQUIRE_OWN_START_UP();
  const auto before = integer_of(evaluate("import syslog\nreturn syslog.setlogmask(0)"));
  expect_blocked(sandboxed("import syslog\nsyslog.setlogmask(syslog.LOG_MASK(syslog.LOG_EMERG))"),
                 "syslog.setlogmask");
  EXPECT_EQ(integer_of(evaluate("import syslog\nreturn syslog.setlogmask(0)")), before);
}

// --- locks and installing packages --------------------------------------------

TEST(SandboxAuditEvents, FileLocksThroughOsAreNotTaken) {
  SARVODE_REQUIRE_OWN_START_UP();
  temp_folder tmp;
  const auto path = tmp.file("locked.txt");
  std::ofstream(path) << "data";
  expect_allowed("import builtins, os\nbuiltins.kest_locked = os.open(" + quoted(path) + ", os.O_RDWR)");
  expect_blocked(sandboxed("import builtins, os\nos.lockf(builtins.kest_locked, os.F_TLOCK, 0)"), "os.lockf");
  EXPECT_EQ(integer_of(evaluate("import builtins, os\nfd = builtins.kest_locked\n"
                                "os.lockf(fd, os.F_TLOCK, 0)\nos.lockf(fd, os.F_ULOCK, 0)\nos.close(fd)\nreturn 1")),
            1);
}

TEST(SandboxAuditEvents, EnsurepipBootstrapIsBlocked) {
  SARVODE_REQUIRE_OWN_START_UP();
  // Debian's own interpreter refuses ensurepip before it raises the event, and
  // a real run outside would install pip; so the event is raised directly.
  expect_event_blocked("ensurepip.bootstrap", ", None");
}

// --- the process's identity and scheduling (guards: these raise no event) --------

TEST(SandboxAuditEvents, TheProcessIdentityAndSchedulingStayAsTheyAre) {
  SARVODE_REQUIRE_OWN_START_UP();
  const std::string state = "import os\n"
                            "mask = os.umask(0o022)\nos.umask(mask)\n"
                            "return repr((os.getuid(), os.geteuid(), os.getgid(), os.getegid(), os.getgroups(),\n"
                            "    os.getsid(0), os.getpgrp(), mask, os.nice(0), os.sched_getaffinity(0),\n"
                            "    os.getpriority(os.PRIO_PROCESS, 0)))";
  const auto before = text_of(evaluate(state));
  const char *attempts[] = {
      "os.setuid(65534)",
      "os.setgid(65534)",
      "os.seteuid(65534)",
      "os.setegid(65534)",
      "os.setreuid(65534, 65534)",
      "os.setregid(65534, 65534)",
      "os.setresuid(65534, 65534, 65534)",
      "os.setresgid(65534, 65534, 65534)",
      "os.setgroups([])",
      "os.initgroups('nobody', 65534)",
      "os.setsid()",
      "os.setpgid(0, 0)",
      "os.setpgrp()",
      "os.tcsetpgrp(0, os.getpgrp())",
      "os.chroot('/tmp')",
      "os.umask(0o777)",
      "os.nice(5)",
      "os.setpriority(os.PRIO_PROCESS, 0, 10)",
      "os.sched_setaffinity(0, {0})",
      "os.sched_setscheduler(0, os.SCHED_BATCH, os.sched_param(0))",
      "os.sched_setparam(0, os.sched_param(0))",
  };
  for (const char *attempt : attempts)
    expect_blocked(sandboxed(std::string("import os\n") + attempt), attempt);
  for (const char *newer : {"unshare", "setns"}) {
    if (!python_has(std::string("hasattr(__import__('os'), '") + newer + "')"))
      continue; // Python 3.12 added them
    expect_blocked(sandboxed(std::string("import os\nos.") + newer + "(0)"), newer);
  }
  EXPECT_EQ(text_of(evaluate(state)), before);

  // Outside, the same functions act (with values that change nothing lasting).
  EXPECT_EQ(integer_of(evaluate("import os\nold = os.umask(0o077)\nnow = os.umask(old)\nreturn now")), 077);
  expect_allowed("import os\nos.setuid(os.getuid())\nos.setgid(os.getgid())\nos.nice(0)\n"
                 "os.sched_setaffinity(0, os.sched_getaffinity(0))");
}
