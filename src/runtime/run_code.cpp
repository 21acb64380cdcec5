// Running compiled code as exec does, with the audit event it raises.

#include "runtime/run_code.hpp"

#include "convert/python_names.hpp"
#include "platform/platform.hpp"
#include "runtime/python_ready.hpp"

#include <atomic>

namespace sarvode {

namespace {
/// PySys_Audit: exported by every interpreter library, though not in the
/// stable ABI of 3.11, so it is looked up in the library that is loaded.
using audit_fn = int (*)(const char *event, const char *format, ...);

audit_fn available_audit() {
  static const audit_fn found = reinterpret_cast<audit_fn>(platform::find_interpreter_symbol("PySys_Audit"));
  return found;
}

std::atomic<audit_fn> &audit_in_use() {
  static std::atomic<audit_fn> in_use{available_audit()};
  return in_use;
}

/// The way before, kept for an interpreter whose PySys_Audit cannot be found:
/// the builtin raises the audit event. Its eval runs statements' code too and
/// gives what PyEval_EvalCode gives (None for statements).
PyObject *run_through_builtin(PyObject *code, PyObject *globals, PyObject *locals) {
  PyObject *eval = builtinFunction("eval"); // borrowed
  return eval ? PyObject_CallFunctionObjArgs(eval, code, globals, locals, nullptr) : nullptr;
}
} // namespace

PyObject *runCode(PyObject *code, PyObject *globals, PyObject *locals, GlobalBuiltins builtins_in_globals) {
  const audit_fn audit = audit_in_use().load(std::memory_order_relaxed);
  if (!audit)
    return run_through_builtin(code, globals, locals);
  // As exec: the globals name the builtins the code runs with, unless they
  // already do, and audit hooks hear of the code before it runs.
  static PyObject *const builtins_name = pythonName("__builtins__"); // kept for the process
  if (!builtins_name)
    return nullptr;
  const int present = builtins_in_globals == GlobalBuiltins::present ? 1 : PyDict_Contains(globals, builtins_name);
  if (present < 0)
    return nullptr;
  if (present == 0) {
    PyObject *builtins = PyEval_GetBuiltins(); // borrowed
    if (!builtins || PyDict_SetItem(globals, builtins_name, builtins) < 0)
      return nullptr;
  }
  if (audit("exec", "O", code) < 0)
    return nullptr;
  return PyEval_EvalCode(code, globals, locals);
}

bool runCodeThroughBuiltin(bool through_builtin) {
  const audit_fn chosen = through_builtin ? nullptr : available_audit();
  if (!through_builtin && !chosen)
    return false;
  audit_in_use().store(chosen, std::memory_order_relaxed);
  return true;
}

} // namespace sarvode
