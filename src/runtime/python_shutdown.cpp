// Ending the interpreter as python3 ends it.

#include "runtime/python_shutdown.hpp"

#include "runtime/python_ready.hpp"
#include "runtime/sandbox.hpp"

#include <kest/error.hpp>
#include <kest/integer.hpp>
#include <kest/string.hpp>

#include <fmt/format.h>

#include <atomic>

namespace sarvode {

namespace {
std::atomic<bool> g_shut_down{false};

/// Threads other than the caller that run Python code and are not threads
/// of Python's `threading` module: the host's own threads inside an
/// evaluation or a call. Finalizing would stop them where they stand, which
/// a host thread's C++ frames do not survive. Python's daemon threads are
/// left to the finalization, as python3 leaves them. -1 when it cannot tell.
/// The caller holds the interpreter lock.
int foreign_threads_in_python() {
  static constexpr const char *count_them =
      "import sys, _thread\n"
      "_threading = sys.modules.get('threading')\n"
      "_known = set()\n"
      "if _threading is not None:\n"
      "    _known = {t.ident for t in list(_threading._active.values())\n"
      "              if not isinstance(t, _threading._DummyThread)}\n"
      "_me = _thread.get_ident()\n"
      "count = sum(1 for i in sys._current_frames() if i != _me and i not in _known)\n";
  auto names = py::object::steal(PyDict_New());
  auto done = py::object::steal(names ? runWithBuiltin("exec", count_them, names.get(), names.get()) : nullptr);
  PyObject *count = done ? PyDict_GetItemString(names.get(), "count") : nullptr; // borrowed
  const long value = count ? PyLong_AsLong(count) : -1;
  if (value < 0 || PyErr_Occurred()) {
    PyErr_Clear();
    return -1;
  }
  return static_cast<int>(value);
}

kest::Error refused(const char *why) {
  return kest::Error(kest::String::fromUtf8(fmt::format("Python was not shut down: {}.", why)));
}
} // namespace

bool pythonShutDown() noexcept { return g_shut_down.load(); }

kest::Any pythonShutDownError() { return kest::Error(kest::String(u"Python has been shut down.")); }

kest::Any shutdownPython() {
  if (g_shut_down.load())
    return refused("it has been shut down already");
  if (!Py_IsInitialized())
    return refused("it is not running");
  const auto starter = startingThread();
  if (starter == 0)
    return refused("the host started it, and the host ends it");
  if (starter != PyThread_get_thread_ident())
    return refused("only the thread that started it can end it");
  const PyGILState_STATE state = PyGILState_Ensure();
  if (state == PyGILState_LOCKED) {
    PyGILState_Release(state);
    return refused("it was asked from Python code, which is still running");
  }
  const int others = foreign_threads_in_python();
  if (others != 0) {
    PyGILState_Release(state);
    return others < 0 ? refused("its threads could not be counted")
                      : refused("other threads still run Python code; stop them first");
  }
  if (sandboxEverUsed()) {
    PyGILState_Release(state);
    return refused("code ran in the sandbox, and its atexit functions and __del__ methods would run outside it");
  }
  g_shut_down = true;
  // The thread state goes with the interpreter: there is no lock to release after this.
  const int flushed = Py_FinalizeEx();
  return kest::Integer(flushed < 0 ? 120 : 0);
}

} // namespace sarvode
