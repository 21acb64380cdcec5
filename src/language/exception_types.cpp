// The Python exception types that stand for host error classes.

#include "language/exception_types.hpp"

#include <kest/error.hpp>
#include <kest/reflection.hpp>

#include <mutex>
#include <unordered_map>

namespace sarvode {

namespace {
struct type_table {
  kest::spinlock lock;
  std::unordered_map<const void *, PyObject *> by_class;    // host class -> type (owned, never freed)
  std::unordered_map<PyObject *, kest::Class_Generic> by_type; // type -> host class
};
type_table &table() {
  static auto *t = new type_table; // lives for the process, like the types
  return *t;
}
} // namespace

PyObject *exceptionTypeFor(const kest::Class_Generic &errorClass) {
  if (errorClass.isSame(kest::StopIteration::getClass()))
    return PyExc_StopIteration;
  if (errorClass.isSame(kest::Error::getClass()))
    return PyExc_RuntimeError;
  auto &t = table();
  {
    std::lock_guard guard(t.lock);
    if (auto it = t.by_class.find(errorClass.get()); it != t.by_class.end())
      return it->second;
  }
  py::gil lock;
  auto qualified = kest::qualname(errorClass);
  if (!qualified.contains(u'.'))
    qualified = kest::String(u"kest.") + qualified;
  auto dict = py::object::steal(PyDict_New());
  if (!dict || PyDict_SetItemString(dict.get(), "kest", Py_None) < 0)
    return nullptr;
  PyObject *type = PyErr_NewException(qualified.toUtf8().c_str(), PyExc_RuntimeError, dict.get());
  if (!type)
    return nullptr;
  PyObject *kept = nullptr;
  {
    std::lock_guard guard(t.lock);
    // Another thread may have made one meanwhile; the first one stays.
    auto [it, added] = t.by_class.try_emplace(errorClass.get(), type);
    if (added)
      t.by_type.emplace(type, errorClass);
    kept = it->second;
  }
  if (kept != type)
    Py_DecRef(type); // outside the spin lock: freeing a type runs Python code
  return kept;
}

kest::Class_Generic errorClassForExceptionType(PyObject *type) {
  auto &t = table();
  std::lock_guard guard(t.lock);
  auto it = t.by_type.find(type);
  return it == t.by_type.end() ? kest::Class_Generic() : it->second;
}

} // namespace sarvode
