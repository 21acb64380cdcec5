// The dictionary of host modules for evaluated code.

#include "language/module_dictionary.hpp"

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

// Guarded by the interpreter lock. Kept for the life of the process (never
// released at exit, when the interpreter may no longer take a lock).
PyObject *g_dictionary = nullptr;
std::uint64_t g_version = ~std::uint64_t{0};
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
  }
  return g_dictionary;
}

} // namespace sarvode
