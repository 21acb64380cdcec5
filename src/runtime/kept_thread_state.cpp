// The Python thread state of a host thread, made on its first lock scope and
// kept until the thread ends.

#include "runtime/python.hpp"

#include "runtime/python_shutdown.hpp"

namespace sarvode::py::detail {

namespace {
/// Gives the kept state back when the thread ends, as a thread that Python
/// started gives back its own: cleared, then deleted, with the lock.
struct kept_thread_state {
  PyThreadState *state = nullptr;

  ~kept_thread_state() {
    // After the end of Python the interpreter freed every thread state, ours
    // included; and a state that is no longer the thread's is not ours to free.
    if (!state || pythonShutDown() || !Py_IsInitialized() || PyGILState_GetThisThreadState() != state)
      return;
    PyEval_RestoreThread(state);
    PyGILState_Release(PyGILState_UNLOCKED); // the count reaches zero: the state goes, and the lock with it
  }
};
thread_local kept_thread_state t_kept;
} // namespace

void settle_thread_state() noexcept {
  t_state_settled = true;
  if (PyGILState_GetThisThreadState())
    return; // a thread that Python started, or one whose state is already made (and kept by its maker)
  // The first count of the state is the thread's own; each lock scope adds
  // and removes one above it, so the state outlives them.
  (void)PyGILState_Ensure();
  t_kept.state = PyEval_SaveThread();
}

} // namespace sarvode::py::detail
