// The inspect.Signature of a host callable.

#include "pyobject/python_signature.hpp"

#include "convert/to_python.hpp"
#include "language/python_helper.hpp"

#include <kest/kest.hpp>

#include <atomic>

namespace sarvode {

namespace {
constexpr const char *signature_source = R"py(
def make_signature(parameters, variadic, result):
    from inspect import Parameter, Signature

    made = [
        Parameter(name, Parameter.POSITIONAL_OR_KEYWORD,
                  default=default if has_default else Parameter.empty,
                  annotation=annotation if has_annotation else Parameter.empty)
        for name, has_annotation, annotation, has_default, default in parameters
    ]
    if variadic:
        made.append(Parameter("args", Parameter.VAR_POSITIONAL))
    return Signature(made, return_annotation=result[1] if result[0] else Signature.empty)
)py";

/// The annotation for a host type: Python's own type for the host's plain
/// values, the host class otherwise; nothing for Untyped.
py::object annotation_of(const kest::Type &type) {
  if (type.isUntyped())
    return {};
  const auto cls = type.toClass();
  const std::pair<kest::Class_Generic, PyObject *> plain[] = {
      {kest::String::getClass(), reinterpret_cast<PyObject *>(&PyUnicode_Type)},
      {kest::Integer::getClass(), reinterpret_cast<PyObject *>(&PyLong_Type)},
      {kest::Float::getClass(), reinterpret_cast<PyObject *>(&PyFloat_Type)},
      {kest::Boolean::getClass(), reinterpret_cast<PyObject *>(&PyBool_Type)},
      {kest::ByteArray::getClass(), reinterpret_cast<PyObject *>(&PyBytes_Type)},
      {kest::None::getClass(), Py_None},
  };
  for (const auto &[host, python] : plain)
    if (cls.isSame(host))
      return py::object::borrow(python);
  return py::object::steal(toPythonLocked(cls));
}

/// (has_annotation, annotation) as Python values.
py::object annotation_pair(const kest::Type &type) {
  auto annotation = annotation_of(type);
  PyErr_Clear(); // a type without a Python form is left unannotated
  return py::object::steal(Py_BuildValue("(OO)", annotation ? Py_True : Py_False,
                                         annotation ? annotation.get() : Py_None));
}
} // namespace

PyObject *pythonSignature(const kest::I_Callable_Generic &callable) {
  static std::atomic<PyObject *> helper{nullptr};
  PyObject *make = pythonHelper(helper, signature_source, "make_signature");
  if (!make) {
    PyErr_SetString(PyExc_ValueError, "no signature found for the host callable");
    return nullptr;
  }
  const auto signature = callable.signature();
  const auto parameters = signature.parameters();
  const auto defaults = callable.defaults();
  // The defaults belong to the last parameters.
  const std::size_t first_default = parameters.size() >= defaults.size() ? parameters.size() - defaults.size() : 0;
  auto list = py::object::steal(PyList_New(0));
  if (!list)
    return nullptr;
  for (std::size_t i = 0; i < parameters.size(); ++i) {
    auto annotation = annotation_pair(parameters[i].type());
    const bool has_default = i >= first_default && i - first_default < defaults.size();
    auto name = py::object::steal(toPythonLocked(parameters[i].name()));
    auto fallback = py::object::steal(has_default ? toPythonLocked(defaults[i - first_default]) : nullptr);
    if (!annotation || !name || (has_default && !fallback))
      return nullptr;
    auto entry = py::object::steal(Py_BuildValue("(OOOOO)", name.get(), PyTuple_GetItem(annotation.get(), 0),
                                                 PyTuple_GetItem(annotation.get(), 1), has_default ? Py_True : Py_False,
                                                 has_default ? fallback.get() : Py_None));
    if (!entry || PyList_Append(list.get(), entry.get()) < 0)
      return nullptr;
  }
  auto result = annotation_pair(signature.resultType());
  if (!result)
    return nullptr;
  return PyObject_CallFunction(make, "OOO", list.get(), signature.hasVariadicParameters() ? Py_True : Py_False,
                               result.get());
}

} // namespace sarvode
