// The read-only sandbox.
//
// The hook runs for every interpreter of the process, so it touches no object
// that belongs to one interpreter: the blocked events are native strings.

#include "runtime/sandbox.hpp"

#include "runtime/sandbox_guards.hpp"

#include "runtime/python_ready.hpp"

#include <fcntl.h>

#include <atomic>
#include <string_view>
#include <unordered_set>
#include <utility>

namespace sarvode {

namespace {
thread_local bool t_sandboxed = false;

constexpr const char *blocked_events[] = {
    // File system
    "os.remove", "os.rename", "os.mkdir", "os.rmdir", "os.chmod", "os.chown", "os.replace", "os.truncate",
    "os.symlink", "os.link", "os.chdir", "os.chflags", "os.setxattr", "os.removexattr", "os.utime",
    // File utilities
    "shutil.rmtree", "shutil.move", "shutil.copyfile", "shutil.copytree", "shutil.copymode", "shutil.copystat",
    "shutil.chown", "shutil.make_archive", "shutil.unpack_archive", "tempfile.mkstemp", "tempfile.mkdtemp",
    // Processes
    "subprocess.Popen", "os.system", "os.exec", "os.spawn", "os.posix_spawn", "os.fork", "os.forkpty",
    "os.startfile", "os.startfile/2", "pty.spawn", "os.kill", "os.killpg", "signal.pthread_kill",
    // Environment
    "os.putenv", "os.unsetenv",
    // Sockets
    "socket.__new__", "socket.connect", "socket.bind", "socket.sendmsg", "socket.sendto", "socket.sethostname",
    "socket.getaddrinfo", "socket.gethostbyaddr", "socket.gethostbyname", "socket.gethostname",
    "socket.getnameinfo", "socket.getservbyname", "socket.getservbyport",
    // Network protocols
    "http.client.connect", "http.client.send", "ftplib.connect", "ftplib.sendcmd", "imaplib.open", "imaplib.send",
    "poplib.connect", "poplib.putline", "smtplib.connect", "smtplib.send", "urllib.Request", "webbrowser.open",
    // Databases
    "sqlite3.connect", "sqlite3.connect/handle", "sqlite3.enable_load_extension", "sqlite3.load_extension",
    // Native code
    "ctypes.dlopen", "ctypes.dlsym", "ctypes.call_function",
    // Locks and limits
    "fcntl.fcntl", "fcntl.flock", "fcntl.ioctl", "fcntl.lockf", "msvcrt.locking", "resource.prlimit",
    "resource.setrlimit",
    // Threads, libraries, hooks; from 3.13 threads start through start_joinable_thread
    "_thread.start_new_thread", "_thread.start_joinable_thread", "os.add_dll_directory", "sys.addaudithook",
    // Sub-interpreters: creating one from a sandboxed thread cannot succeed and
    // must not take the process down on the way
    "cpython.PyInterpreterState_New",
    // Windows: files, pipes and processes opened below the public functions
    "_winapi.CreateFile", "_winapi.CreateJunction", "_winapi.CreateNamedPipe", "_winapi.CreateProcess",
    "_winapi.OpenProcess", "_winapi.TerminateProcess",
    // Windows registry: writes, loads and saves, and remote connections
    "winreg.ConnectRegistry", "winreg.CreateKey", "winreg.DeleteKey", "winreg.DeleteValue",
    "winreg.DisableReflectionKey", "winreg.EnableReflectionKey", "winreg.LoadKey", "winreg.SaveKey",
    "winreg.SetValue",
    // Raw memory: objects at any address, pointers made from bytes, objects
    // from addresses; crafted code objects; maps of files (writes through a
    // shared map, SIGBUS when the file shrinks)
    "ctypes.dlsym/handle", "ctypes.cdata", "ctypes.cdata/buffer", "ctypes.string_at", "ctypes.wstring_at",
    "ctypes.PyObj_FromPtr", "code.__new__", "mmap.__new__",
    // Hooks that would run sandboxed functions after the scope, unrestricted
    "sys.settrace", "sys.setprofile", "sys.monitoring.register_callback", "sys.set_asyncgen_hook_firstiter",
    "sys.set_asyncgen_hook_finalizer",
    // More network protocols (3.11 and 3.12)
    "nntplib.connect", "nntplib.putline", "telnetlib.Telnet.open", "telnetlib.Telnet.write",
    // The system log: leaves the process, and its settings are the process's
    "syslog.openlog", "syslog.syslog", "syslog.closelog", "syslog.setlogmask",
    // Locks like fcntl.lockf; installing packages
    "os.lockf", "ensurepip.bootstrap",
};
static_assert(std::size(blocked_events) == 123);

const std::unordered_set<std::string_view> &blocked_set() {
  static const std::unordered_set<std::string_view> set = [] {
    std::unordered_set<std::string_view> s(16);
    s.max_load_factor(1.0f);
    s.insert(std::begin(blocked_events), std::end(blocked_events));
    return s;
  }();
  return set;
}

// The C runtime's write-only, read-write, append, create, truncate and exclusive flags.
constexpr long write_flags = O_WRONLY | O_RDWR | O_APPEND | O_CREAT | O_TRUNC | O_EXCL;

int block(const char *message) {
  PyErr_SetString(PyExc_PermissionError, message);
  return -1;
}

/// The "open" rules; returns -1 to block, 0 to let the event on to the list.
int judge_open(PyObject *args) {
  const Py_ssize_t n = PyTuple_Size(args);
  if (n < 0) {
    PyErr_Clear();
    return 0;
  }
  if (n < 2)
    return 0;
  PyObject *mode = PyTuple_GetItem(args, 1); // borrowed
  if (mode == Py_None && n >= 3) {
    PyObject *flags = PyTuple_GetItem(args, 2);
    if (!PyLong_Check(flags))
      return 0;
    const long value = PyLong_AsLong(flags);
    if (value == -1 && PyErr_Occurred()) {
      PyErr_Clear();
      return 0;
    }
    if ((value & write_flags) != 0 || value == -1)
      return block("write blocked: read-only sandbox");
    return 0;
  }
  if (mode && PyUnicode_Check(mode)) {
    Py_ssize_t size = 0;
    const char *text = PyUnicode_AsUTF8AndSize(mode, &size);
    if (!text) {
      PyErr_Clear(); // a mode without a UTF-8 form is harmless
      return 0;
    }
    if (std::string_view(text, static_cast<std::size_t>(size)).find_first_of("wax+") != std::string_view::npos)
      return block("write blocked: read-only sandbox");
  }
  return 0;
}

/// Loading ctypes' native module: its types and functions read and free
/// memory at any address without an audit event (a `c_char_p(1).value`, a
/// `Py_DECREF`), so the sandbox lets it in only if it was loaded before. Both
/// "import" and loading an extension module from a file report the module's
/// name, whose last part names the init function that gets called.
int judge_import(PyObject *args) {
  if (PyTuple_Size(args) < 1) {
    PyErr_Clear();
    return 0;
  }
  PyObject *name = PyTuple_GetItem(args, 0); // borrowed
  if (!name || !PyUnicode_Check(name))
    return 0;
  Py_ssize_t size = 0;
  const char *text = PyUnicode_AsUTF8AndSize(name, &size);
  if (!text) {
    PyErr_Clear();
    return 0;
  }
  std::string_view full(text, static_cast<std::size_t>(size));
  const auto dot = full.rfind('.');
  if ((dot == std::string_view::npos ? full : full.substr(dot + 1)) == "_ctypes")
    return block(operationBlockedMessage);
  return 0;
}
} // namespace

bool sandboxActive() noexcept { return t_sandboxed; }

SandboxPause::SandboxPause() noexcept : m_previous(std::exchange(t_sandboxed, false)) {}
SandboxPause::~SandboxPause() { t_sandboxed = m_previous; }

namespace {
std::atomic<bool> g_sandbox_used{false};
} // namespace

bool sandboxEverUsed() noexcept { return g_sandbox_used.load(); }

int sandboxAuditHook(const char *event, PyObject *args, void *) {
  if (!t_sandboxed)
    return 0;
  const std::string_view name(event);
  if (name == "open" && judge_open(args) < 0)
    return -1;
  if (name == "import" && judge_import(args) < 0)
    return -1;
  if (blocked_set().count(event) != 0)
    return block(operationBlockedMessage);
  return 0;
}

SandboxScope::SandboxScope() : m_flag(t_sandboxed) {
  g_sandbox_used = true;
  // The interpreter must run before its lock can be taken.
  if (!Py_IsInitialized())
    ensurePythonReady();
  m_gil.emplace();
  installFirstSandboxGuards(); // outside the sandbox: the host's own imports
  m_previous = m_flag;
  m_flag = true;
  ensurePythonReady();
  if (PyObject *saved = PySys_GetObject("dont_write_bytecode")) { // borrowed
    Py_IncRef(saved);
    m_saved_dont_write_bytecode = saved;
  }
  PySys_SetObject("dont_write_bytecode", Py_True);
}

SandboxScope::~SandboxScope() {
  PySys_SetObject("dont_write_bytecode", m_saved_dont_write_bytecode ? m_saved_dont_write_bytecode : Py_False);
  if (m_saved_dont_write_bytecode) {
    py::gil lock;
    Py_DecRef(m_saved_dont_write_bytecode);
  }
  m_flag = m_previous;
  m_gil.reset();
}

} // namespace sarvode
