// Running the code of __main__ from the host, with no Python frame beneath it.

#include "language/main_code.hpp"

#include "language/interrupts.hpp"
#include "language/output_capture.hpp"
#include "language/python_error.hpp"
#include "runtime/compile_source.hpp"
#include "runtime/python_ready.hpp"
#include "runtime/python_shutdown.hpp"
#include "runtime/sandbox.hpp"

#include <kest/error.hpp>

#include <optional>
#include <string>

namespace sarvode {

namespace {

/// True for a code object (its exact type: PyEval_EvalCode takes nothing
/// else), -1 with an error pending when the type could not be found. The
/// type is that of a compiled empty text, kept for the process: the `types`
/// module would be one more import at start.
int is_code(PyObject *target) {
  static PyObject *code_type = nullptr; // guarded by the interpreter lock
  if (!code_type) {
    auto empty = py::object::steal(Py_CompileString("", "<empty>", Py_file_input));
    if (!empty)
      return -1;
    code_type = reinterpret_cast<PyObject *>(Py_TYPE(empty.get()));
    Py_IncRef(code_type);
  }
  return reinterpret_cast<PyObject *>(Py_TYPE(target)) == code_type ? 1 : 0;
}

/// A staged call with arguments: (callable, tuple of arguments). It is made
/// from C, so no frame of the stager's lies beneath the callable's.
bool is_call_with_arguments(PyObject *target) {
  return PyTuple_Check(target) && PyTuple_Size(target) == 2 && PyCallable_Check(PyTuple_GetItem(target, 0)) &&
         PyTuple_Check(PyTuple_GetItem(target, 1));
}

/// A staged text: (source, filename), a str or bytes and a str, compiled here
/// as __main__'s code, so that no compile of the stager's runs first.
bool is_source(PyObject *target) {
  return PyTuple_Check(target) && PyTuple_Size(target) == 2 &&
         (PyUnicode_Check(PyTuple_GetItem(target, 0)) || PyBytes_Check(PyTuple_GetItem(target, 0))) &&
         PyUnicode_Check(PyTuple_GetItem(target, 1));
}

/// The outcome of the staged target: null with the exception pending when it raised.
py::object run_target(PyObject *target, bool code) {
  if (!code && is_source(target)) {
    auto compiled = py::object::steal(
        compileSource(PyTuple_GetItem(target, 0), PyTuple_GetItem(target, 1), Py_file_input));
    return compiled ? run_target(compiled.get(), true) : py::object();
  }
  if (!code && is_call_with_arguments(target))
    return py::object::steal(PyObject_Call(PyTuple_GetItem(target, 0), PyTuple_GetItem(target, 1), nullptr));
  if (!code)
    return py::object::steal(PyObject_CallNoArgs(target));
  PyObject *main = PyImport_AddModule("__main__"); // borrowed
  if (!main)
    return {};
  PyObject *names = PyModule_GetDict(main); // borrowed
  return py::object::steal(PyEval_EvalCode(target, names, names));
}

kest::Any run_staged(const std::string &holder_name, bool sandboxed) {
  auto holder = py::object::steal(PyImport_ImportModule(holder_name.c_str()));
  if (!holder)
    return errorFromPython(0, 0);
  auto target = py::object::steal(PyObject_GetAttrString(holder.get(), "main_target"));
  if (!target)
    return errorFromPython(0, 0);
  if (target.get() == Py_None)
    return kest::Error(kest::String::fromUtf8("nothing is staged in " + holder_name + ".main_target"));
  const int code = is_code(target.get());
  if (code < 0)
    return errorFromPython(0, 0);
  if (!code && !PyCallable_Check(target.get()) && !is_call_with_arguments(target.get()) && !is_source(target.get()))
    return kest::Error(kest::String::fromUtf8(holder_name +
                                              ".main_target is neither code, nor a callable, nor (callable, arguments)"));
  if (PyObject_SetAttrString(holder.get(), "main_target", Py_None) < 0)
    return errorFromPython(0, 0);
  py::object error;
  {
    std::optional<SandboxScope> sandbox; // only the user's code is judged
    if (sandboxed)
      sandbox.emplace();
    running_evaluation running; // an interrupt aimed at this thread is raised in the code
    if (!run_target(target.get(), code != 0))
      error = takePendingException().value;
  }
  target.reset(); // the code's own references go before the report
  flushRedirectedOutput();
  if (PyObject_SetAttrString(holder.get(), "main_error", error ? error.get() : Py_None) < 0)
    return errorFromPython(0, 0);
  return {};
}

} // namespace

kest::Any runStagedMain(const kest::String &holder, bool sandboxed) {
  if (pythonShutDown())
    return pythonShutDownError();
  ensurePythonReady();
  const std::string name(holder.utf8View());
  py::gil lock;
  return run_staged(name, sandboxed);
}

} // namespace sarvode
