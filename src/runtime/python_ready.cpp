// Starting the interpreter once, queued sys.path entries, and the run-code operations.

#include "runtime/python_ready.hpp"

#include "platform/platform.hpp"
#include "language/cpython_language.hpp"
#include "language/host_importer.hpp"
#include "language/interrupts.hpp"
#include "language/module_catalogue.hpp"
#include "language/python_error.hpp"
#include "runtime/python_module.hpp"
#include "runtime/sandbox.hpp"
#include "runtime/sandbox_guards.hpp"

#include <kest/list.hpp>

#include <atomic>
#include <mutex>

namespace sarvode {

namespace {
/// Directories given to addSysPath before the interpreter ran, in order, duplicates kept.
kest::List &pending_paths() {
  static kest::List list = kest::I_Iterable::createInstance(kest::String::getType());
  return list;
}

/// Set by a host that coerced the C locale before Python starts, as python3
/// does (PEP 538): the locale was C, so UTF-8 mode is on. Taken out of the
/// environment before Python reads it.
constexpr const char *host_utf8_mode_variable = "SARVODE_PYTHON_UTF8_MODE";

/// python3's choice of UTF-8 mode (PEP 540), which Py_InitializeEx alone
/// never makes: PYTHONUTF8=1 asks for it, PYTHONUTF8=0 refuses it, and
/// otherwise the C or POSIX locale turns it on.
bool utf8_mode_wanted() {
  const auto from_host = platform::environment(host_utf8_mode_variable);
  if (from_host)
    platform::unset_environment(host_utf8_mode_variable);
  if (const auto asked = platform::environment("PYTHONUTF8"); asked && !asked->empty())
    return *asked == "1";
  return (from_host && *from_host == "1") || platform::text_locale_is_c();
}

/// Py_UTF8Mode is deprecated from Python 3.12 on in favour of PyConfig, which
/// the limited API lacks; Py_InitializeEx still reads it on every version.
void ask_for_utf8_mode() {
#if defined(__GNUC__) || defined(__clang__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
#endif
  Py_UTF8Mode = 1;
#if defined(__GNUC__) || defined(__clang__)
#pragma GCC diagnostic pop
#endif
}

std::once_flag g_ready;
std::atomic<bool> g_hook_installed{false};
/// The thread that started the interpreter; 0 while it has not, or when the host started it.
std::atomic<unsigned long> g_starting_thread{0};

void start_interpreter() {
  // Extension modules of the interpreter's own library (_decimal, math, ...)
  // do not link it; they need its symbols in the global scope even when the
  // host loaded us with RTLD_LOCAL.
  platform::make_interpreter_symbols_global();
  if (utf8_mode_wanted())
    ask_for_utf8_mode();
  Py_InitializeEx(0);
  g_starting_thread = PyThread_get_thread_ident();
  // Added once the interpreter runs, not before: a hook entry allocated
  // before start-up comes from another allocator than the one that frees it
  // when Python is finalized (PYTHONMALLOC=debug, PYTHONDEVMODE=1).
  if (auto add_hook = platform::find_add_audit_hook())
    g_hook_installed = add_hook(&sandboxAuditHook, nullptr) == 0;
  if (g_hook_installed)
    installSandboxGuards(); // before any code but the interpreter's own start-up runs
  // Still holding the lock from start-up: the nested lock calls of addSysPath are no-ops.
  auto &pending = pending_paths();
  for (auto &path : pending.copyItems())
    (void)addSysPath(kest::String::unsafeFrom(path));
  pending.clear();
  (void)PyEval_SaveThread(); // from here on, every use takes the lock through PyGILState_Ensure
  fillPythonModule();
  deferStandardPythonModules();
}
} // namespace

void ensurePythonReady() {
  std::call_once(g_ready, [] {
    if (!Py_IsInitialized())
      start_interpreter();
    (void)cpythonLanguage(); // declares the class and registers the language
    installHostImporter();
  });
}

kest::Result<kest::None> addSysPath(const kest::String &directory) {
  if (!Py_IsInitialized()) {
    (void)pending_paths().append(directory);
    return kest::None();
  }
  py::gil lock;
  auto sys = py::object::steal(PyImport_ImportModule("sys"));
  if (!sys)
    return errorFromPython(0, 0);
  auto path = py::object::steal(PyObject_GetAttrString(sys.get(), "path"));
  if (!path || !PyList_Check(path.get())) {
    PyErr_Clear(); // a missing or replaced sys.path is left alone
    return kest::None();
  }
  const auto utf8 = directory.utf8View();
  auto entry = py::object::steal(PyUnicode_FromStringAndSize(utf8.data(), static_cast<Py_ssize_t>(utf8.size())));
  if (!entry) {
    PyErr_Clear();
    return kest::None();
  }
  const int present = PySequence_Contains(path.get(), entry.get());
  if (present == 0 && PyList_Append(path.get(), entry.get()) < 0)
    PyErr_Clear();
  if (present < 0)
    PyErr_Clear();
  return kest::None();
}

bool sandboxHookInstalled() noexcept { return g_hook_installed.load(); }

unsigned long startingThread() noexcept { return g_starting_thread.load(); }

std::int64_t pendingSysPathCount() { return pending_paths().length(); }

PyObject *builtinFunction(const char *name) {
  PyObject *builtins = PyEval_GetBuiltins();                                     // borrowed
  PyObject *function = builtins ? PyDict_GetItemString(builtins, name) : nullptr; // borrowed
  if (!function && !PyErr_Occurred())
    PyErr_Format(PyExc_RuntimeError, "the builtin %s is missing", name);
  return function;
}

PyObject *runWithBuiltin(const char *builtin, const char *code, PyObject *globals, PyObject *locals) {
  PyObject *function = builtinFunction(builtin); // borrowed
  if (!function) {
    PyErr_Clear(); // a missing builtin is no exception here
    return nullptr;
  }
  auto args = py::object::steal(Py_BuildValue("(sOO)", code, globals, locals));
  if (!args)
    return nullptr;
  return PyObject_CallObject(function, args.get());
}

} // namespace sarvode
