// Small functions of the extension's own, written in Python.

#include "language/python_helper.hpp"

#include "runtime/sandbox.hpp"

namespace sarvode {

PyObject *pythonHelper(std::atomic<PyObject *> &kept, const char *source, const char *name) {
  if (PyObject *helper = kept.load(std::memory_order_acquire))
    return helper;
  SandboxPause host_work; // the extension's own code, made inside a sandboxed call as outside
  // A file name of its own: the helper's frames are never taken for the user's "<string>".
  auto code = py::object::steal(Py_CompileString(source, "<sarvode helper>", Py_file_input));
  auto globals = py::object::steal(code ? PyDict_New() : nullptr);
  PyObject *made = nullptr;
  if (globals && PyDict_SetItemString(globals.get(), "__builtins__", PyEval_GetBuiltins()) == 0)
    if (auto ran = py::object::steal(PyEval_EvalCode(code.get(), globals.get(), globals.get())))
      made = PyDict_GetItemString(globals.get(), name); // borrowed
  if (!made) {
    PyErr_Clear();
    return nullptr;
  }
  Py_IncRef(made);
  PyObject *expected = nullptr;
  if (!kept.compare_exchange_strong(expected, made, std::memory_order_acq_rel))
    Py_DecRef(made); // another thread kept its helper first
  return kept.load(std::memory_order_acquire);
}

} // namespace sarvode
