// The record of threads that run evaluations, and the interrupt requests.

#include "language/interrupts.hpp"

#include "runtime/python_ready.hpp"
#include "runtime/python_shutdown.hpp"

#include <chrono>
#include <atomic>
#include <mutex>
#include <unordered_map>
#include <utility>

namespace sarvode {

/// What one thread's evaluations need of cancelling: how deeply they nest and
/// whether an interrupt was asked for. Written only with the interpreter lock
/// held, by the thread itself or by the one that interrupts it.
struct thread_record {
  unsigned long ident = 0;
  int depth = 0;
  bool interrupted = false;
};

namespace {
/// Every thread that ever evaluated, by identity. The mutex is never held
/// while the interpreter lock is taken or Python runs.
struct thread_registry {
  std::mutex lock;
  std::unordered_map<unsigned long, thread_record *> threads;
};
thread_registry &registry() {
  static auto *r = new thread_registry;
  return *r;
}

/// The calling thread's record, entered in the registry on first use and
/// taken out when the thread ends.
struct own_record {
  thread_record record;
  bool registered = false;
  thread_record &get() {
    if (!registered) {
      record.ident = PyThread_get_thread_ident();
      auto &r = registry();
      std::lock_guard guard(r.lock);
      r.threads[record.ident] = &record;
      registered = true;
    }
    return record;
  }
  ~own_record() {
    if (!registered)
      return;
    auto &r = registry();
    std::lock_guard guard(r.lock);
    r.threads.erase(record.ident);
  }
};
thread_local own_record t_record;

bool interrupt_asked_here() { return t_record.registered && t_record.record.interrupted; }

constexpr double slice_seconds = 0.02;

/// The interpreter's own time.sleep, kept while a sliced one stands in for it.
/// Owned for the rest of the process: the sliced sleep may run at any time.
PyObject *g_original_sleep = nullptr;

/// time.sleep, cut into slices when it is long: after each slice it looks
/// whether an interrupt was asked for this thread, and then returns at once,
/// so that the caller raises the pending KeyboardInterrupt at its next
/// bytecode. Written in C so that no frame of its own shows in tracebacks;
/// bound to the time module, as the original is, so that its repr and its
/// pickling (by the name time.sleep) are the original's. Other arguments,
/// and their errors, go to the original unchanged.
PyObject *sliced_sleep(PyObject * /*time module*/, PyObject *seconds) {
  PyObject *original = g_original_sleep;
  double total = -1;
  if (PyFloat_CheckExact(seconds) || PyLong_CheckExact(seconds)) {
    total = PyFloat_AsDouble(seconds);
    if (total == -1 && PyErr_Occurred())
      PyErr_Clear(); // too large for a double: the original says so
  }
  if (!(total > slice_seconds && total < 1e9))
    return PyObject_CallFunctionObjArgs(original, seconds, nullptr);
  using clock = std::chrono::steady_clock;
  const auto end = clock::now() + std::chrono::duration_cast<clock::duration>(std::chrono::duration<double>(total));
  for (;;) {
    const double left = std::chrono::duration<double>(end - clock::now()).count();
    if (left <= 0 || interrupt_asked_here())
      break;
    // A signal that arrived between two slices interrupted no sleep: run its
    // handler now (Ctrl-C on the main thread), as the eval loop would.
    if (PyErr_CheckSignals() < 0)
      return nullptr;
    auto slice = py::object::steal(PyFloat_FromDouble(left < slice_seconds ? left : slice_seconds));
    if (!slice)
      return nullptr;
    auto slept = py::object::steal(PyObject_CallFunctionObjArgs(original, slice.get(), nullptr));
    if (!slept)
      return nullptr; // a signal handler raised (Ctrl-C on the main thread)
  }
  Py_IncRef(Py_None);
  return Py_None;
}

PyMethodDef sliced_sleep_definition{
    "sleep", &sliced_sleep, METH_O,
    "sleep(seconds)\n\nDelay execution for a given number of seconds.  The argument may be\n"
    "a floating point number for subsecond precision."};
} // namespace

std::int64_t currentThreadIdent() noexcept { return static_cast<std::int64_t>(PyThread_get_thread_ident()); }

running_evaluation::running_evaluation() : m_record(&t_record.get()) {
  if (++m_record->depth == 1)
    chooseSleep(m_record->ident == startingThread());
}

running_evaluation::~running_evaluation() {
  if (--m_record->depth > 0 || !m_record->interrupted)
    return;
  m_record->interrupted = false;
  // An interrupt that came after the code's last bytecode must not surface in
  // whatever Python this thread runs next.
  (void)PyThreadState_SetAsyncExc(m_record->ident, nullptr);
}

bool interruptEvaluation(std::int64_t thread) {
  if (pythonShutDown())
    return false;
  ensurePythonReady();
  py::gil lock;
  auto &r = registry();
  std::lock_guard guard(r.lock); // taken after the interpreter lock, and no Python runs under it
  const auto found = r.threads.find(static_cast<unsigned long>(thread));
  if (found == r.threads.end() || found->second->depth == 0)
    return false;
  found->second->interrupted = true; // also ends a sliced sleep
  return PyThreadState_SetAsyncExc(found->first, PyExc_KeyboardInterrupt) == 1;
}

namespace {
/// The sliced sleep while it stands in the time module (with the interpreter lock).
PyObject *g_sliced_sleep = nullptr;
/// Set once an evaluation ran on a thread other than the one that started Python.
bool g_evaluated_elsewhere = false;

/// Asked by the host: Python's own sleep on the thread that started Python.
std::atomic<bool> g_keep_standard_sleep{false};

/// Puts Python's own sleep back in the time module, unless code put a sleep
/// of its own there meanwhile.
void restore_sleep() {
  auto time = py::object::steal(PyImport_ImportModule("time"));
  auto current = py::object::steal(time ? PyObject_GetAttrString(time.get(), "sleep") : nullptr);
  if (current.get() == g_sliced_sleep && PyObject_SetAttrString(time.get(), "sleep", g_original_sleep) < 0)
    return PyErr_Clear();
  PyErr_Clear(); // a time module without sleep has nothing to put back
  Py_DecRef(std::exchange(g_sliced_sleep, nullptr));
}
} // namespace

void installInterruptibleSleep() {
  if (g_sliced_sleep)
    return; // in place already
  auto time = py::object::steal(PyImport_ImportModule("time"));
  if (!time)
    return PyErr_Clear(); // without the time module, there is no sleep to cut
  if (!g_original_sleep) {
    auto original = py::object::steal(PyObject_GetAttrString(time.get(), "sleep"));
    if (!original)
      return PyErr_Clear();
    g_original_sleep = original.release();
  }
  auto module_name = py::object::steal(PyUnicode_FromString("time"));
  auto sliced = py::object::steal(
      module_name ? PyCFunction_NewEx(&sliced_sleep_definition, time.get(), module_name.get()) : nullptr);
  if (!sliced || PyObject_SetAttrString(time.get(), "sleep", sliced.get()) < 0)
    return PyErr_Clear();
  g_sliced_sleep = sliced.release(); // kept, to know it and to take it out again
}

void chooseSleep(bool startingThread) {
  if (!startingThread)
    g_evaluated_elsewhere = true;
  // Only the sliced sleep ends on an interrupt; a host that interrupts the
  // thread that started Python by a signal instead (sarvode sends SIGINT,
  // which ends Python's own sleep as under python3) keeps the standard one
  // there, with its identity, while no other thread evaluates.
  if (g_evaluated_elsewhere || !g_keep_standard_sleep.load())
    installInterruptibleSleep();
  else if (g_sliced_sleep)
    restore_sleep();
}

void keepStandardSleep(bool keep) {
  g_keep_standard_sleep = keep;
  if (!keep || pythonShutDown())
    return; // the next evaluation puts the sliced sleep in place
  ensurePythonReady();
  py::gil lock;
  if (g_sliced_sleep && !g_evaluated_elsewhere)
    restore_sleep();
}

} // namespace sarvode
