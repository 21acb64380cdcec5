// Small functions of the extension's own, written in Python.

#include "language/python_helper.hpp"

#include "runtime/sandbox.hpp"

namespace sarvode {

namespace {
/// The globals of `source` after running it once (a new reference), with
/// `functions` defined in them first; null with a Python error.
py::object run_source(const char *source, const char *file, std::initializer_list<PyMethodDef *> functions) {
  SandboxPause host_work; // the extension's own code, made inside a sandboxed call as outside
  auto code = py::object::steal(Py_CompileString(source, file, Py_file_input));
  auto globals = py::object::steal(code ? PyDict_New() : nullptr);
  if (!globals || PyDict_SetItemString(globals.get(), "__builtins__", PyEval_GetBuiltins()) < 0)
    return {};
  for (PyMethodDef *definition : functions) {
    auto function = py::object::steal(PyCFunction_New(definition, nullptr));
    if (!function || PyDict_SetItemString(globals.get(), definition->ml_name, function.get()) < 0)
      return {};
  }
  if (!py::object::steal(PyEval_EvalCode(code.get(), globals.get(), globals.get())))
    return {};
  return globals;
}

/// Keeps `made` in `kept` unless another thread kept its own first; the kept one (borrowed).
PyObject *keep_first(std::atomic<PyObject *> &kept, PyObject *made) {
  PyObject *expected = nullptr;
  if (!kept.compare_exchange_strong(expected, made, std::memory_order_acq_rel))
    Py_DecRef(made);
  return kept.load(std::memory_order_acquire);
}
} // namespace

PyObject *pythonHelper(std::atomic<PyObject *> &kept, const char *source, const char *name) {
  if (PyObject *helper = kept.load(std::memory_order_acquire))
    return helper;
  // A file name of its own: the helper's frames are never taken for the user's "<string>".
  auto globals = run_source(source, "<sarvode helper>", {});
  PyObject *made = globals ? PyDict_GetItemString(globals.get(), name) : nullptr; // borrowed
  if (!made) {
    PyErr_Clear();
    return nullptr;
  }
  Py_IncRef(made);
  return keep_first(kept, made);
}

PyObject *pythonHelperGlobals(std::atomic<PyObject *> &kept, const char *source, const char *file,
                              std::initializer_list<PyMethodDef *> functions) {
  if (PyObject *globals = kept.load(std::memory_order_acquire))
    return globals;
  auto globals = run_source(source, file, functions);
  if (!globals) {
    PyErr_Clear();
    return nullptr;
  }
  return keep_first(kept, globals.release());
}

} // namespace sarvode
