// The call protocol in use, found once from the running Python.

#include "runtime/call_protocol.hpp"

#include "platform/platform.hpp"

#include <atomic>

namespace sarvode {

namespace {
using vectorcall_fn = PyObject *(*)(PyObject *callable, PyObject *const *args, std::size_t nargsf, PyObject *kwnames);

// The flag that lets the callee use the slot before the first argument
// (PY_VECTORCALL_ARGUMENTS_OFFSET): the top bit, part of the stable ABI.
constexpr std::size_t arguments_offset = std::size_t{1} << (8 * sizeof(std::size_t) - 1);

/// PyObject_Vectorcall where the running Python's stable ABI has it.
vectorcall_fn available_vectorcall() {
  static const vectorcall_fn found =
      Py_Version >= 0x030C0000 ? reinterpret_cast<vectorcall_fn>(platform::find_interpreter_symbol("PyObject_Vectorcall"))
                               : nullptr;
  return found;
}

/// The vectorcall entry calls use; null: the tuple protocol.
std::atomic<vectorcall_fn> &vectorcall_in_use() {
  static std::atomic<vectorcall_fn> in_use{available_vectorcall()};
  return in_use;
}

PyObject *call_with_tuple(PyObject *callable, PyObject *const *args, std::size_t count) {
  auto tuple = py::object::steal(PyTuple_New(static_cast<Py_ssize_t>(count)));
  if (!tuple)
    return nullptr;
  for (std::size_t i = 0; i < count; ++i) {
    Py_IncRef(args[i]);
    PyTuple_SetItem(tuple.get(), static_cast<Py_ssize_t>(i), args[i]); // steals the new reference
  }
  return PyObject_Call(callable, tuple.get(), nullptr);
}

/// Without vectorcall in the stable ABI: a few arguments go through the
/// interpreter's own argument-list call, which hands them to a callee that
/// takes vectorcall (every Python function) from an array on its stack, with
/// no tuple to make and free. More arguments get a tuple.
PyObject *call_without_vectorcall(PyObject *callable, PyObject *const *a, std::size_t count) {
  switch (count) {
  case 0:
    return PyObject_CallNoArgs(callable);
  case 1:
    return PyObject_CallFunctionObjArgs(callable, a[0], nullptr);
  case 2:
    return PyObject_CallFunctionObjArgs(callable, a[0], a[1], nullptr);
  case 3:
    return PyObject_CallFunctionObjArgs(callable, a[0], a[1], a[2], nullptr);
  case 4:
    return PyObject_CallFunctionObjArgs(callable, a[0], a[1], a[2], a[3], nullptr);
  default:
    return call_with_tuple(callable, a, count);
  }
}
} // namespace

CallProtocol pythonCallProtocol() {
  return vectorcall_in_use().load(std::memory_order_relaxed) ? CallProtocol::vectorcall : CallProtocol::tuple;
}

bool usePythonCallProtocol(CallProtocol protocol) {
  const vectorcall_fn chosen = protocol == CallProtocol::vectorcall ? available_vectorcall() : nullptr;
  if (protocol == CallProtocol::vectorcall && !chosen)
    return false;
  vectorcall_in_use().store(chosen, std::memory_order_relaxed);
  return true;
}

PyObject *callPositional(PyObject *callable, PyObject **slots, std::size_t count) {
  if (const vectorcall_fn vectorcall = vectorcall_in_use().load(std::memory_order_relaxed))
    return vectorcall(callable, slots + 1, count | arguments_offset, nullptr);
  return call_without_vectorcall(callable, slots + 1, count);
}

} // namespace sarvode
