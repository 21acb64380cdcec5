// The record of threads that run evaluations, and the interrupt requests.

#include "language/interrupts.hpp"

#include "runtime/python_ready.hpp"

#include <chrono>
#include <unordered_map>

namespace sarvode {

namespace {
/// Per thread that runs evaluations: how deeply they nest, and whether an
/// interrupt was asked for. Read and written only with the interpreter lock held.
struct thread_record {
  int depth = 0;
  bool interrupted = false;
};
std::unordered_map<unsigned long, thread_record> &running() {
  static auto *threads = new std::unordered_map<unsigned long, thread_record>;
  return *threads;
}

bool interrupt_asked_here() {
  auto found = running().find(PyThread_get_thread_ident());
  return found != running().end() && found->second.interrupted;
}

constexpr double slice_seconds = 0.02;

/// time.sleep, cut into slices when it is long: after each slice it looks
/// whether an interrupt was asked for this thread, and then returns at once,
/// so that the caller raises the pending KeyboardInterrupt at its next
/// bytecode. Written in C so that no frame of its own shows in tracebacks.
/// Other arguments, and their errors, go to the original unchanged.
PyObject *sliced_sleep(PyObject *original, PyObject *seconds) {
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

running_evaluation::running_evaluation() : m_thread(PyThread_get_thread_ident()) { ++running()[m_thread].depth; }

running_evaluation::~running_evaluation() {
  auto found = running().find(m_thread);
  if (found == running().end() || --found->second.depth > 0)
    return;
  running().erase(found);
  // An interrupt that came after the code's last bytecode must not surface in
  // whatever Python this thread runs next.
  (void)PyThreadState_SetAsyncExc(m_thread, nullptr);
}

bool interruptEvaluation(std::int64_t thread) {
  ensurePythonReady();
  py::gil lock;
  const auto found = running().find(static_cast<unsigned long>(thread));
  if (found == running().end())
    return false;
  found->second.interrupted = true; // ends a sliced sleep
  return PyThreadState_SetAsyncExc(found->first, PyExc_KeyboardInterrupt) == 1;
}

void installInterruptibleSleep() {
  auto time = py::object::steal(PyImport_ImportModule("time"));
  auto original = py::object::steal(time ? PyObject_GetAttrString(time.get(), "sleep") : nullptr);
  if (!original)
    return PyErr_Clear(); // without the time module, there is no sleep to cut
  if (PyCFunction_Check(original.get()) && PyCFunction_GetFunction(original.get()) == &sliced_sleep)
    return; // installed already
  auto module_name = py::object::steal(PyUnicode_FromString("time"));
  auto sliced = py::object::steal(
      module_name ? PyCFunction_NewEx(&sliced_sleep_definition, original.get(), module_name.get()) : nullptr);
  if (!sliced || PyObject_SetAttrString(time.get(), "sleep", sliced.get()) < 0)
    PyErr_Clear();
}

} // namespace sarvode
