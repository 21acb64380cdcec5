// Python types as host classes.

#include "convert/type_mapping.hpp"

#include "convert/from_python.hpp"
#include "convert/python_classes.hpp"
#include "language/exception_types.hpp"
#include "proxies/cpython_object.hpp"

#include <kest/kest.hpp>

#include <mutex>
#include <optional>
#include <unordered_map>

namespace sarvode {

namespace {
struct class_tables {
  kest::spinlock lock;
  std::unordered_map<PyObject *, kest::Class_Generic> builtins; // filled once
  bool builtins_ready = false;
  std::unordered_map<PyObject *, kest::Class_Generic> made;     // Python type -> host class
  std::unordered_map<const void *, PyObject *> types;           // host class -> Python type (owned)
};
class_tables &tables() {
  static auto *t = new class_tables; // types and classes live for the process
  return *t;
}

/// The built-in rows, looked up by name; a missing name leaves its row out.
/// Dates, times and decimals are matched in `module_row`, so that start-up
/// imports neither of their modules.
void fill_builtins(class_tables &t) {
  std::unordered_map<PyObject *, kest::Class_Generic> rows(16);
  auto add = [&](PyObject *dict, const char *name, const kest::Class_Generic &cls) {
    if (!dict)
      return;
    if (PyObject *type = PyDict_GetItemString(dict, name)) { // borrowed; the module keeps it alive
      Py_IncRef(type);
      rows.emplace(type, cls);
    }
  };
  PyObject *builtins = PyEval_GetBuiltins();
  add(builtins, "bytearray", kest::ByteArray::getClass());
  add(builtins, "bytes", kest::ByteArray::getClass());
  add(builtins, "memoryview", kest::ByteArray::getClass());
  add(builtins, "int", kest::Integer::getClass());
  add(builtins, "str", kest::String::getClass());
  add(builtins, "float", kest::Float::getClass());
  add(builtins, "bool", kest::Boolean::getClass());
  add(builtins, "type", kest::Class_Generic::getClass());
  std::lock_guard guard(t.lock);
  if (!t.builtins_ready) {
    t.builtins.swap(rows);
    t.builtins_ready = true;
  }
}

/// The host class of the classes of datetime and decimal, if `type` is one.
std::optional<kest::Class_Generic> module_row(PyObject *type) {
  if (type == python_classes::datetime_if_imported())
    return kest::DateTime::getClass();
  if (type == python_classes::date_if_imported())
    return kest::Date::getClass();
  if (type == python_classes::time_if_imported())
    return kest::Time::getClass();
  if (type == python_classes::decimal_if_imported())
    return kest::Decimal::getClass();
  return std::nullopt;
}

std::string text_attribute(PyObject *object, const char *name) {
  auto value = py::object::steal(PyObject_GetAttrString(object, name));
  if (!value)
    PyErr_Clear();
  return std::string(py::utf8(value.get()));
}

/// Makes the host class for a Python class: its name after the last ".", its
/// documentation and its bases. The members follow in `add_members`.
kest::Class_Generic make_class(PyObject *type) {
  auto name = py::object::steal(PyType_GetName(reinterpret_cast<PyTypeObject *>(type)));
  if (!name)
    PyErr_Clear();
  std::string text(py::utf8(name.get()));
  if (auto dot = text.rfind('.'); dot != std::string::npos)
    text = text.substr(dot + 1);

  std::vector<kest::Class_Generic> bases;
  auto py_bases = py::object::steal(PyObject_GetAttrString(type, "__bases__"));
  if (py_bases && PyTuple_Check(py_bases.get())) {
    for (Py_ssize_t i = 0, n = PyTuple_Size(py_bases.get()); i < n; ++i) {
      auto base = typeFromPython(PyTuple_GetItem(py_bases.get(), i));
      if (kest::Class_Generic::isInstance(base))
        bases.push_back(kest::Class_Generic::unsafeFrom(base));
    }
  }
  PyErr_Clear();
  // Every such class wraps Python objects.
  bases.push_back(cpythonObjectClass());
  auto cls = kest::Class_Generic::create(kest::String::fromUtf8(text), 0, bases);
  cls.setDoc(kest::String::fromUtf8(text_attribute(type, "__doc__")));
  return cls;
}

/// One class property per entry of the type's __dict__. Runs after the class
/// is in the table, so that a member that refers to the class itself, or to a
/// subclass whose base it is, finds it there instead of making it again.
void add_members(const kest::Class_Generic &cls, PyObject *type) {
  auto members = py::object::steal(PyDict_New());
  auto proxy = py::object::steal(PyObject_GetAttrString(type, "__dict__"));
  if (members && proxy && PyDict_Update(members.get(), proxy.get()) == 0) {
    PyObject *key = nullptr, *value = nullptr;
    Py_ssize_t pos = 0;
    while (PyDict_Next(members.get(), &pos, &key, &value)) {
      const auto member = py::utf8(key);
      if (member.empty())
        continue;
      // Each entry is reachable as a class property holding its host form;
      // callables gain their call protocol with the function wrappers.
      auto property = kest::Property::fromValue(kest::String::fromUtf8(member), fromPython(value),
                                                kest::String::fromUtf8(text_attribute(value, "__doc__")));
      cls->add_class_property_unsafe(kest::meta_property_untyped(member), property);
    }
  }
  PyErr_Clear();
}
} // namespace

kest::Any typeFromPython(PyObject *type) {
  if (!type || !PyType_Check(type))
    return kest::Error(kest::String(u"Not a type."));
  if (auto error_class = errorClassForExceptionType(type))
    return error_class; // an exception type made for a host error class
  auto &t = tables();
  bool ready = false;
  {
    std::lock_guard guard(t.lock);
    ready = t.builtins_ready;
  }
  if (!ready)
    fill_builtins(t);
  {
    std::lock_guard guard(t.lock);
    if (auto it = t.builtins.find(type); it != t.builtins.end())
      return it->second;
    if (auto it = t.made.find(type); it != t.made.end())
      return it->second;
  }
  if (auto row = module_row(type))
    return *row;
  auto cls = make_class(type);
  {
    std::lock_guard guard(t.lock);
    auto [it, added] = t.made.try_emplace(type, cls);
    if (!added)
      return it->second; // another thread made one meanwhile; the first one stays
    Py_IncRef(type); // the table keeps the type; no Python code runs for an increment
    t.types.emplace(cls.get(), type);
  }
  add_members(cls, type);
  return cls;
}

PyObject *pythonTypeOfClass(const kest::Class_Generic &cls) {
  auto &t = tables();
  std::lock_guard guard(t.lock);
  auto it = t.types.find(cls.get());
  return it == t.types.end() ? nullptr : it->second;
}

} // namespace sarvode
