// The callbacks as built-in functions over a capsule that points at the
// evaluation's state while it runs.

#include "language/evaluation_callbacks.hpp"

#include "convert/from_python.hpp"
#include "convert/python_names.hpp"
#include "convert/to_python.hpp"
#include "pyobject/slots.hpp"

#include <kest/kest.hpp>

namespace sarvode {

namespace {
constexpr const char *capsule_name = "kest.evaluation_callbacks";

/// What a capsule points at once its evaluation has ended.
EvaluationCallbacks::state g_ended{nullptr, {}};

/// The running evaluation's state, or null with a RuntimeError set.
EvaluationCallbacks::state *state_of(PyObject *binding) {
  auto *s = static_cast<EvaluationCallbacks::state *>(PyCapsule_GetPointer(binding, capsule_name));
  if (s && s != &g_ended)
    return s;
  if (!PyErr_Occurred())
    PyErr_SetString(PyExc_RuntimeError, "the evaluation that made this function has ended");
  return nullptr;
}

PyObject *store_result(PyObject *binding, PyObject *value) {
  return guarded<PyObject *>(nullptr, [&]() -> PyObject * {
    auto *s = state_of(binding);
    if (!s)
      return nullptr;
    *s->result = fromPython(value);
    return toPythonLocked(kest::Any()); // None
  });
}

PyObject *store_local(PyObject *binding, PyObject *args) {
  return guarded<PyObject *>(nullptr, [&]() -> PyObject * {
    auto *s = state_of(binding);
    if (!s)
      return nullptr;
    if (!PyTuple_Check(args) || PyTuple_Size(args) != 2) {
      PyErr_SetString(PyExc_TypeError, "kest_store_local() takes a name and a value");
      return nullptr;
    }
    const kest::Any name = fromPython(PyTuple_GetItem(args, 0));
    const kest::Any value = fromPython(PyTuple_GetItem(args, 1));
    auto stored = kest::internal::result_unwrap_lazy(kest::I_MutableMap::unsafeFrom(s->out_locals).setChecked(name, value));
    return toPythonLocked(kest::Error::isInstance(stored) ? stored : kest::Any()); // an error raises
  });
}

PyMethodDef store_result_def{"kest_store_result", &store_result, METH_O, nullptr};
PyMethodDef store_local_def{"kest_store_local", &store_local, METH_VARARGS, nullptr};

bool set_function(PyObject *locals, PyMethodDef &def, PyObject *binding) {
  auto function = py::object::steal(PyCFunction_NewEx(&def, binding, nullptr));
  auto name = py::object::steal(function ? pythonName(def.ml_name) : nullptr);
  return name && PyDict_SetItem(locals, name.get(), function.get()) == 0;
}
} // namespace

EvaluationCallbacks::EvaluationCallbacks(kest::Any &result, const kest::Union<kest::I_MutableMap, kest::None> &outLocals)
    : m_state{&result, !kest::is_none(outLocals) && outLocals.is<kest::I_MutableMap>() ? kest::Any(outLocals.unsafeAs<kest::I_MutableMap>())
                                                          : kest::Any()} {}

EvaluationCallbacks::~EvaluationCallbacks() {
  if (m_binding && PyCapsule_SetPointer(m_binding.get(), &g_ended) < 0)
    PyErr_Clear();
}

bool EvaluationCallbacks::install(PyObject *locals) {
  m_binding = py::object::steal(PyCapsule_New(&m_state, capsule_name, nullptr));
  if (!m_binding || !set_function(locals, store_result_def, m_binding.get()))
    return false;
  return m_state.out_locals.empty() || set_function(locals, store_local_def, m_binding.get());
}

} // namespace sarvode
