// Guards for the interpreter's functions that act outside the sandbox without
// raising an audit event: process creation through _posixsubprocess, special
// files, signals to the process, ending it, sub-interpreters, (on 3.11)
// starting a thread, and changing the process's identity or scheduling.
//
// A guard takes the place of the function in its module's method table, the
// static PyMethodDef array that every function object of that name points at.
// So it holds whichever route reaches the function: `os.mknod` and
// `posix.mknod`, a reference taken before the guard was set, a module object
// made again after it was removed from sys.modules, and calls from C. Outside
// a sandbox scope the guard calls the original at once.

#include "runtime/sandbox_guards.hpp"

#include "platform/platform.hpp"
#include "runtime/sandbox.hpp"

#include <algorithm>
#include <csignal>
#include <array>
#include <cstring>
#include <utility>

namespace sarvode {

namespace {
struct guarded_function {
  const char *module;
  const char *name;
  // Guarded when the first sandbox scope opens rather than at start-up: for
  // a function that the audit hook already stops, whose guard only gives
  // the sandbox's own error, in a module that is slow to load.
  bool at_first_sandbox = false;
};

constexpr guarded_function guarded_functions[] = {
    // Processes: subprocess and multiprocessing reach fork_exec after their own
    // audit event, which code calling the module directly skips.
    {"_posixsubprocess", "fork_exec"},
    // Special files.
    {"posix", "mknod"},
    {"posix", "mkfifo"},
    // Ending the process, or sending it a signal now or later.
    {"posix", "abort"},
    {"posix", "_exit"},
    {"_signal", "raise_signal"},
    {"_signal", "alarm"},
    {"_signal", "setitimer"},
    // Changing how the process answers signals.
    {"_signal", "signal"},
    {"_signal", "siginterrupt"},
    {"_signal", "set_wakeup_fd"},
    {"_signal", "pthread_sigmask"},
    {"faulthandler", "enable"},
    {"faulthandler", "register"},
    {"faulthandler", "dump_traceback_later"},
    // Crashing on purpose (the interpreter's own test helpers).
    {"faulthandler", "_sigsegv"},
    {"faulthandler", "_sigabrt"},
    {"faulthandler", "_sigfpe"},
    {"faulthandler", "_read_null"},
    {"faulthandler", "_fatal_error"},
    {"faulthandler", "_fatal_error_c_thread"},
    {"faulthandler", "_stack_overflow"},
    // Sub-interpreters: the audit event stops their creation too, but these
    // modules report that as a RuntimeError of their own. Loading the module
    // (a library of its own) took a twentieth of a start.
    {"_xxsubinterpreters", "create", true},
    {"_interpreters", "create", true},
    // Threads: code on a new thread would run outside the per-thread switch.
    // Python 3.11 raises no audit event for these.
    {"_thread", "start_new_thread"},
    {"_thread", "start_new"},
    {"_thread", "start_joinable_thread"},
    // The process's identity, session, root, file mode mask, scheduling and
    // namespaces: changes the host keeps after the call.
    {"posix", "setuid"},
    {"posix", "setgid"},
    {"posix", "seteuid"},
    {"posix", "setegid"},
    {"posix", "setreuid"},
    {"posix", "setregid"},
    {"posix", "setresuid"},
    {"posix", "setresgid"},
    {"posix", "setgroups"},
    {"posix", "initgroups"},
    {"posix", "setsid"},
    {"posix", "setpgid"},
    {"posix", "setpgrp"},
    {"posix", "tcsetpgrp"},
    {"posix", "chroot"},
    {"posix", "umask"},
    {"posix", "nice"},
    {"posix", "setpriority"},
    {"posix", "sched_setaffinity"},
    {"posix", "sched_setscheduler"},
    {"posix", "sched_setparam"},
    {"posix", "unshare"},
    {"posix", "setns"},
};

constexpr std::size_t max_guards = 64;

// The calling conventions of module functions, by their flags.
using function_o = PyObject *(*)(PyObject *, PyObject *);                        // VARARGS, NOARGS, O
using function_kw = PyObject *(*)(PyObject *, PyObject *, PyObject *);           // VARARGS | KEYWORDS
using function_fast = PyObject *(*)(PyObject *, PyObject *const *, Py_ssize_t); // FASTCALL
using function_fast_kw = PyObject *(*)(PyObject *, PyObject *const *, Py_ssize_t, PyObject *); // FASTCALL | KEYWORDS

/// Function pointers change type through `void (*)()`, as the interpreter's own
/// method tables do: the flags say which type a PyCFunction really has.
template <class To, class From> To function_cast(From f) {
  return reinterpret_cast<To>(reinterpret_cast<void (*)()>(f));
}

/// The original function of each guard, written once at start-up before any
/// other code runs, read afterwards.
std::array<PyCFunction, max_guards> g_originals{};

PyObject *refuse() {
  PyErr_SetString(PyExc_PermissionError, operationBlockedMessage);
  return nullptr;
}

template <std::size_t N> struct guard {
  static PyObject *o(PyObject *self, PyObject *arg) {
    return sandboxActive() ? refuse() : function_cast<function_o>(g_originals[N])(self, arg);
  }
  static PyObject *kw(PyObject *self, PyObject *args, PyObject *kwargs) {
    return sandboxActive() ? refuse() : function_cast<function_kw>(g_originals[N])(self, args, kwargs);
  }
  static PyObject *fast(PyObject *self, PyObject *const *args, Py_ssize_t n) {
    return sandboxActive() ? refuse() : function_cast<function_fast>(g_originals[N])(self, args, n);
  }
  static PyObject *fast_kw(PyObject *self, PyObject *const *args, Py_ssize_t n, PyObject *names) {
    return sandboxActive() ? refuse() : function_cast<function_fast_kw>(g_originals[N])(self, args, n, names);
  }
};

struct guard_set {
  PyCFunction o, kw, fast, fast_kw;
};

template <std::size_t... N> std::array<guard_set, max_guards> make_guards(std::index_sequence<N...>) {
  return {guard_set{function_cast<PyCFunction>(&guard<N>::o), function_cast<PyCFunction>(&guard<N>::kw),
                    function_cast<PyCFunction>(&guard<N>::fast),
                    function_cast<PyCFunction>(&guard<N>::fast_kw)}...};
}

const std::array<guard_set, max_guards> g_guards = make_guards(std::make_index_sequence<max_guards>());

/// The guard of slot `n` with the calling convention of `flags`.
PyCFunction guard_for(std::size_t n, int flags) {
  const auto &set = g_guards[n];
  if (flags & METH_FASTCALL)
    return (flags & METH_KEYWORDS) ? set.fast_kw : set.fast;
  return (flags & METH_KEYWORDS) ? set.kw : set.o;
}

std::size_t g_used = 0;

/// Imports a module to guard. The signal module, when first imported, puts
/// Python's SIGINT handler in place of the default disposition; the host's
/// signals are its own (Python starts without its handlers), so the default
/// is put back, through the module so that it knows.
py::object import_leaving_signals(const char *module_name) {
  const bool sigint_default = platform::sigint_is_default();
  auto module = py::object::steal(PyImport_ImportModule(module_name));
  if (module && sigint_default && !platform::sigint_is_default()) {
    auto default_disposition = py::object::steal(PyObject_GetAttrString(module.get(), "SIG_DFL"));
    if (default_disposition)
      (void)py::object::steal(PyObject_CallMethod(module.get(), "signal", "iO", SIGINT, default_disposition.get()));
    PyErr_Clear();
  }
  return module;
}

/// Puts guards in place of the named functions of one (imported) module's method table.
void guard_module(PyObject *module, const char *module_name, bool late, const platform::writable_memory &writable) {
  PyModuleDef *def = PyModule_GetDef(module);
  if (!def || !def->m_methods) {
    PyErr_Clear();
    return;
  }
  for (PyMethodDef *method = def->m_methods; method->ml_name; ++method) {
    for (const auto &g : guarded_functions) {
      if (g.at_first_sandbox != late || std::strcmp(g.module, module_name) != 0 ||
          std::strcmp(g.name, method->ml_name) != 0)
        continue;
      if (g_used == max_guards || (method->ml_flags & METH_METHOD) || !writable.contains(&method->ml_meth))
        continue;
      g_originals[g_used] = method->ml_meth;
      method->ml_meth = guard_for(g_used, method->ml_flags);
      ++g_used;
    }
  }
}
/// The os module's sets of functions (supports_dir_fd, ...) were filled
/// before the guards: a built-in function hashes by its C function, which the
/// guard changed, so they are filled again in place and `os.mkfifo in
/// os.supports_dir_fd` holds as in any Python.
void rehash_os_function_sets() {
  auto os = py::object::steal(PyImport_ImportModule("os"));
  for (const char *name : {"supports_dir_fd", "supports_effective_ids", "supports_fd", "supports_follow_symlinks"}) {
    auto set = py::object::steal(os ? PyObject_GetAttrString(os.get(), name) : nullptr);
    if (!set || !PySet_Check(set.get()))
      continue;
    auto items = py::object::steal(PySequence_List(set.get()));
    if (!items || PySet_Clear(set.get()) < 0)
      continue;
    for (Py_ssize_t i = 0, n = PyList_Size(items.get()); i < n; ++i)
      if (PySet_Add(set.get(), PyList_GetItem(items.get(), i)) < 0) // borrowed item, kept by the list
        break;
  }
  PyErr_Clear(); // an os without these sets has nothing to fill again
}

/// Guards the functions whose `at_first_sandbox` is `late`, importing their modules.
void install_guards(bool late) {
  // Every module first, then one look at the memory map: importing a module
  // may map its library, whose table must be seen writable.
  std::array<std::pair<const char *, py::object>, std::size(guarded_functions)> modules;
  std::size_t count = 0;
  for (const auto &g : guarded_functions) {
    if (g.at_first_sandbox != late ||
        std::any_of(modules.begin(), modules.begin() + static_cast<std::ptrdiff_t>(count),
                    [&](const auto &m) { return std::strcmp(m.first, g.module) == 0; }))
      continue;
    modules[count++] = {g.module, import_leaving_signals(g.module)};
    PyErr_Clear(); // a module this build lacks has nothing to guard
  }
  const platform::writable_memory writable;
  for (std::size_t i = 0; i < count; ++i)
    if (modules[i].second)
      guard_module(modules[i].second.get(), modules[i].first, late, writable);
}
} // namespace

void installSandboxGuards() {
  static_assert(std::size(guarded_functions) <= max_guards);
  static bool installed = false; // guarded by the interpreter lock
  if (std::exchange(installed, true))
    return;
  install_guards(false);
  rehash_os_function_sets();
}

void installFirstSandboxGuards() {
  // Marked first, under the interpreter lock: a module's table is never
  // guarded twice (a guard taken for the original would call itself).
  static bool installed = false;
  if (installed || !Py_IsInitialized()) // after the end of Python there is nothing to guard
    return;
  installed = true;
  // Whatever error the caller has pending waits for it, untouched.
  PyObject *type = nullptr, *value = nullptr, *traceback = nullptr;
  PyErr_Fetch(&type, &value, &traceback);
  install_guards(true);
  PyErr_Restore(type, value, traceback);
}

std::size_t sandboxGuardCount() noexcept { return g_used; }

} // namespace sarvode
