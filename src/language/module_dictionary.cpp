// The dictionary of host modules for evaluated code.

#include "language/module_dictionary.hpp"

#include "convert/python_names.hpp"
#include "convert/to_python.hpp"

#include <kest/kest.hpp>

namespace sarvode {

namespace {
void put(PyObject *dict, const kest::String &name, const kest::Any &value) {
  auto converted = py::object::steal(toPython(value));
  if (!converted) {
    PyErr_Clear(); // a value without a Python form is left out
    return;
  }
  if (PyDict_SetItemString(dict, name.toUtf8().c_str(), converted.get()) < 0)
    PyErr_Clear();
}

py::object build() {
  auto dict = py::object::steal(PyDict_New());
  if (!dict)
    return dict;
  for (auto &module : kest::modules()) {
    const auto name = module.name();
    if (kest::compare_objects(kest::Integer(static_cast<std::int64_t>(module.importance())), kest::Integer(10))
                .value() == 0 ||
        name.contains(u'.'))
      continue;
    put(dict.get(), name, module);
    if (!module.inlined())
      continue;
    for (auto &[key, value] : module.classes().copyPairs())
      put(dict.get(), kest::String::unsafeFrom(key), value);
    for (auto &[key, value] : module.callables().copyPairs())
      put(dict.get(), kest::String::unsafeFrom(key), value);
  }
  return dict;
}

PyObject *builtins_name() {
  static PyObject *const name = pythonName("__builtins__"); // kept for the process
  return name;
}

/// The modules and "__builtins__" naming `builtins`, in that order.
py::object build_template(PyObject *modules, PyObject *builtins) {
  auto dict = py::object::steal(PyDict_New());
  if (!dict || PyDict_Merge(dict.get(), modules, 1) < 0 ||
      PyDict_SetItem(dict.get(), builtins_name(), builtins) < 0)
    return {};
  return dict;
}

// Guarded by the interpreter lock. Kept for the life of the process (never
// released at exit, when the interpreter may no longer take a lock).
PyObject *g_dictionary = nullptr;
std::uint64_t g_version = ~std::uint64_t{0};
PyObject *g_template = nullptr;  // made from g_dictionary and g_template_builtins
PyObject *g_template_builtins = nullptr; // borrowed: the template holds it
} // namespace

PyObject *hostModuleDictionary() {
  const auto version = kest::internal::modules_version();
  if (!g_dictionary || version != g_version) {
    PyObject *fresh = build().release();
    if (!fresh)
      return nullptr;
    if (g_dictionary)
      Py_DecRef(g_dictionary);
    g_dictionary = fresh;
    g_version = version;
    if (g_template) {
      Py_DecRef(g_template);
      g_template = nullptr;
    }
  }
  return g_dictionary;
}

py::object newEvaluationGlobals() {
  PyObject *modules = hostModuleDictionary(); // drops the template when the modules changed
  PyObject *builtins = PyEval_GetBuiltins();  // borrowed
  if (!modules || !builtins || !builtins_name()) {
    if (!PyErr_Occurred())
      PyErr_SetString(PyExc_RuntimeError, "the globals of an evaluation cannot be made");
    return {};
  }
  if (!g_template) {
    g_template = build_template(modules, builtins).release();
    g_template_builtins = builtins;
    if (!g_template)
      return {};
  }
  auto globals = py::object::steal(PyDict_Copy(g_template));
  // Code that runs with other builtins (an exec given its own) and calls the
  // host gets those, as the builtin exec would give.
  if (globals && builtins != g_template_builtins && PyDict_SetItem(globals.get(), builtins_name(), builtins) < 0)
    return {};
  return globals;
}

} // namespace sarvode
