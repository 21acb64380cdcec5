// The object meta-methods and fallback hooks of CPythonObject: every lookup
// that the members inserted on the host side do not answer reaches the
// Python object's attributes; display is its __str__, comparison its rich
// comparison and then the helper `cmp`.

#include "proxies/cpython_object_members.hpp"

#include "convert/from_python.hpp"
#include "convert/to_python.hpp"
#include "language/python_helper.hpp"
#include "proxies/cpython_function.hpp"
#include "proxies/cpython_object.hpp"
#include "proxies/python_call.hpp"
#include "proxies/python_entry.hpp"

#include <kest/kest.hpp>

#include <fmt/format.h>

#include <atomic>

namespace sarvode {

using kest::internal::result_unwrap_lazy;

namespace {
std::string name_utf8(const kest::String &name) { return name.toUtf8(); }

/// `Python attribute read` of propertyValue, steps 2 to 4.
kest::Any python_attribute(const kest::Any &self, const kest::String &name) {
  PythonEntry entry(self);
  PyObject *object = entry.object();
  if (!object)
    return nullObjectError();
  auto attribute = py::object::steal(PyObject_GetAttrString(object, name_utf8(name).c_str()));
  if (!attribute)
    return pythonErrorOr(kest::Error(kest::String(u"The attribute could not be read.")));
  return fromPython(attribute.get());
}

/// Python attribute assignment of setPropertyValue, steps 3 to 5; empty on success.
kest::Any set_python_attribute(const kest::Any &self, const kest::String &name, const kest::Any &value) {
  PythonEntry entry(self);
  PyObject *object = entry.object();
  if (!object)
    return nullObjectError();
  auto converted = py::object::steal(toPythonLocked(value));
  if (!converted)
    return pythonErrorOr(kest::Error(kest::String::fromUtf8(
        fmt::format("Unable to convert an argument: {}.", kest::display(value).utf8View()))));
  if (PyObject_SetAttrString(object, name_utf8(name).c_str(), converted.get()) < 0)
    return pythonErrorOr(kest::Error(kest::String(u"The attribute could not be set.")));
  return {};
}

kest::Union<kest::Property, kest::None> declared_property(const kest::Any &self, const kest::String &name) {
  return kest::raw_property_of(self, kest::meta_property_untyped(name));
}

kest::Any property_value(const kest::Any &self, const kest::String &name) {
  if (auto property = declared_property(self, name); property.is<kest::Property>())
    return result_unwrap_lazy(property.unsafeAs<kest::Property>().get(self));
  return python_attribute(self, name);
}

kest::Any set_property_value(const kest::Any &self, const kest::String &name, const kest::Any &value) {
  if (auto property = declared_property(self, name); property.is<kest::Property>()) {
    auto p = property.unsafeAs<kest::Property>();
    if (!p.setter().is<kest::I_Callable_Generic>())
      return kest::Error(kest::String::fromUtf8(fmt::format("The property '{}' is read-only for '{}'.",
                                                            name.utf8View(), kest::display(self).utf8View())));
    auto r = result_unwrap_lazy(p.set(self, value));
    return kest::Error::isInstance(r) ? r : kest::Any();
  }
  return set_python_attribute(self, name, value);
}

/// The callable of a Python attribute, or None.
kest::Any callable_of(PyObject *attribute) {
  auto converted = fromPython(attribute);
  if (kest::I_Callable_Generic::isInstance(converted))
    return converted;
  return kest::None();
}

/// The host property for a Python property object: its fget and fset as the
/// accessors, bound to `instance` when there is one (a property read through
/// an instance's type), as they are when the object is a class. None when
/// the accessors cannot be read.
kest::Any accessor_property(const kest::String &name, PyObject *property, PyObject *instance) {
  auto accessor = [&](const char *which) -> kest::Any {
    auto fn = py::object::steal(PyObject_GetAttrString(property, which));
    if (!fn) {
      PyErr_Clear();
      return {};
    }
    if (fn.get() == Py_None)
      return kest::None();
    if (instance)
      fn = py::object::steal(PyObject_CallMethod(fn.get(), "__get__", "OO", instance,
                                                 reinterpret_cast<PyObject *>(Py_TYPE(instance))));
    if (!fn) {
      PyErr_Clear();
      return {};
    }
    return fromPython(fn.get());
  };
  auto getter = kest::I_Callable_Generic::cast(accessor("fget"));
  auto setter = kest::I_Callable_Generic::cast(accessor("fset"));
  if (!getter.is<kest::I_Callable_Generic>())
    return {};
  if (setter.is<kest::I_Callable_Generic>())
    return kest::Property(name, getter.unsafeAs<kest::I_Callable_Generic>(), setter.unsafeAs<kest::I_Callable_Generic>());
  return kest::Property(name, getter.unsafeAs<kest::I_Callable_Generic>());
}

bool is_property(PyObject *object) { return object && PyObject_TypeCheck(object, &PyProperty_Type); }

kest::Any python_property(const kest::Any &self, const kest::String &name) {
  if (auto p = declared_property(self, name); p.is<kest::Property>())
    return p.unsafeAs<kest::Property>();
  PythonEntry entry(self);
  PyObject *object = entry.object();
  if (!object)
    return kest::None();
  const auto utf8 = name_utf8(name);
  // A property of the object's class: read through the instance it would give its value.
  auto on_type = py::object::steal(
      PyObject_GetAttrString(reinterpret_cast<PyObject *>(Py_TYPE(object)), utf8.c_str()));
  PyErr_Clear();
  if (is_property(on_type.get()))
    if (auto p = accessor_property(name, on_type.get(), object))
      return p;
  auto attribute = py::object::steal(PyObject_GetAttrString(object, utf8.c_str()));
  if (!attribute) {
    PyErr_Clear();
    return kest::None();
  }
  if (is_property(attribute.get())) // the object is a class
    if (auto p = accessor_property(name, attribute.get(), nullptr))
      return p;
  return kest::Property::fromValue(name, fromPython(attribute.get()));
}

kest::Any python_method(const kest::Any &self, const kest::String &name) {
  if (auto m = kest::raw_method_of(self, kest::meta_method_untyped(name)); m.is<kest::I_Callable_Generic>())
    return m.unsafeAs<kest::I_Callable_Generic>();
  PythonEntry entry(self);
  PyObject *object = entry.object();
  if (!object)
    return kest::None();
  auto attribute = py::object::steal(PyObject_GetAttrString(object, name_utf8(name).c_str()));
  if (!attribute) {
    PyErr_Clear();
    return kest::None();
  }
  return callable_of(attribute.get());
}

/// Python attribute assignment of a converted host value; None on success.
kest::Any assign(const kest::Any &self, const kest::String &name, const kest::Any &value) {
  auto r = set_python_attribute(self, name, value);
  return r ? r : kest::Any(kest::None());
}

kest::Any python_insert_method(const kest::Any &self, const kest::String &name, const kest::Any &callable) {
  auto c = kest::I_Callable_Generic::checkedCast(callable);
  if (c.isError())
    return kest::Error::unsafeFrom(c);
  auto fn = c.unsafeAs<kest::I_Callable_Generic>();
  // Python will call it without the host instance: bind it to this one first.
  if (!fn.isIndependent() && fn.parameterCount() > 0)
    fn = fn.bindInstance(self);
  return assign(self, name, fn);
}

kest::Any python_insert_property(const kest::Any &self, const kest::String &name, const kest::Any &property) {
  auto p = kest::Property::checkedCast(property);
  if (p.isError())
    return kest::Error::unsafeFrom(p);
  if (!p.unsafeAs<kest::Property>().isValueProperty())
    return kest::Error(kest::String(
        u"Unable to insert non-value property to a python object, use 'raw_insert_property' instead."));
  return assign(self, name, p.unsafeAs<kest::Property>().storedValue());
}

kest::Any display_text(const kest::Any &self) {
  auto r = callPythonMethod(self, "__str__", {});
  if (kest::String::isInstance(r) || kest::Error::isInstance(r))
    return r;
  return kest::internal::result_error_cast_source(kest::String(u"String"), r);
}

/// The helper that orders two Python objects when no rich comparison says so,
/// compiled once and kept for the life of the process. The caller holds the lock.
PyObject *cmp_helper() {
  static std::atomic<PyObject *> kept{nullptr};
  return pythonHelper(kept, "def cmp(a, b):\n    if a > b:\n        return 1\n    else:\n"
                            "        if a < b:\n            return -1\n    return 0\n",
                      "cmp");
}

kest::Any python_compare(const kest::Any &self, const kest::Any &other) {
  const kest::Any other_value = kest::internal::unwrap(other);
  if (!isPythonBacked(other_value))
    return kest::Ordering::fromSign(kest::object_id(self) - kest::object_id(other_value));
  PythonEntry entry(self);
  PyObject *a = entry.object();
  PyObject *b = PythonTarget(other_value).object(); // the local value keeps it alive
  if (a == b)
    return kest::Ordering::equal();
  if (!a || !b)
    return nullObjectError();
  if (PyType_GetSlot(Py_TYPE(a), Py_tp_richcompare)) {
    // Asked in turn; only the True singleton answers.
    for (auto [op, answer] : {std::pair{Py_LT, -1}, std::pair{Py_GT, 1}, std::pair{Py_EQ, 0}}) {
      auto r = py::object::steal(PyObject_RichCompare(a, b, op));
      PyErr_Clear();
      if (r.get() == Py_True)
        return kest::Ordering::fromSign(answer);
    }
  }
  PyObject *helper = cmp_helper();
  if (!helper)
    return kest::Error(kest::String(u"Unable to call helper function."));
  auto result = py::object::steal(PyObject_CallFunctionObjArgs(helper, a, b, nullptr));
  if (!result)
    return pythonErrorOr(kest::Error(kest::String(u"Unable to call helper function.")));
  auto sign = kest::Integer::checkedCast(fromPython(result.get()));
  if (sign.isError())
    return kest::Error::unsafeFrom(sign);
  return kest::Ordering::fromSign(sign.unsafeAs<kest::Integer>().value());
}

kest::HashMap empty_map(const kest::Type &values) { return kest::HashMap(kest::String::getType(), values); }
} // namespace

std::vector<kest::Any> cpythonObjectMembers() {
  using builder = kest::internal::class_builder_base;
  auto entry = [](const char *name, kest::I_Callable_Generic fn, const char *params, const char *doc) {
    const auto text = kest::String::fromUtf8(name);
    return builder::method_entry(kest::meta_method_untyped(text),
                                 kest::internal::declared_function(text, std::move(fn), kest::String::fromUtf8(params),
                                                                   kest::String::fromUtf8(doc), {}));
  };
  using kest::make_method;
  using A = kest::Any;
  using S = kest::String;
  return {
      entry("$__setPropertyValue__", make_method([](A self, S name, A value) { return set_property_value(self, name, value); }),
            "self, name, value", "The host setter, else Python attribute assignment."),
      entry("$__removeProperty__", make_method([](A, S) { return false; }), "self, name", "Nothing is ever removed."),
      entry("$__removeMethod__", make_method([](A, S) { return false; }), "self, name", "Nothing is ever removed."),
      entry("$__propertyValue__", make_method([](A self, S name) { return property_value(self, name); }), "self, name",
            "The host getter, else the Python attribute."),
      entry("$__property__", make_method([](A self, S name) { return python_property(self, name); }), "self, name",
            "The host property, else one made from the Python attribute."),
      entry("$__ownProperty__", make_method([](A self, S name) { return python_property(self, name); }), "self, name",
            "As property."),
      entry("$__ownProperties__", make_method([](A) { return empty_map(kest::Property::getType()); }), "self",
            "Always empty."),
      entry("$__ownMethods__", make_method([](A) { return empty_map(kest::I_Callable_Generic::getType()); }), "self",
            "Always empty."),
      entry("$__ownMethod__", make_method([](A self, S name) { return python_method(self, name); }), "self, name",
            "As method."),
      entry("$__method__", make_method([](A self, S name) { return python_method(self, name); }), "self, name",
            "The host method, else the Python attribute as a callable."),
      entry("$__insertProperty__", make_method([](A self, S name, A p) { return python_insert_property(self, name, p); }),
            "self, name, property", "A value property, set as a Python attribute."),
      entry("$__insertMethod__", make_method([](A self, S name, A m) { return python_insert_method(self, name, m); }),
            "self, name, method", "Set as a Python attribute."),
      entry("$__display__", make_method([](A self) { return display_text(self); }), "self", "The Python __str__."),
      entry("$__compare__", make_method([](A self, A other) { return python_compare(self, other); }), "self, other",
            "Python's rich comparison, then the helper cmp."),
  };
}

void installCPythonObjectHooks(const kest::Class_Generic &cls) {
  cls.setMethodLookupHook([](const kest::Any &self, const kest::meta_method_untyped &name) -> kest::Any {
    return python_method(self, name.string());
  });
  cls.setPropertyGetterHook([](const kest::Any &self, const kest::meta_property_untyped &name) -> kest::Any {
    return property_value(self, name.string());
  });
  cls.setPropertySetterHook(
      [](const kest::Any &self, const kest::meta_property_untyped &name, const kest::Any &value) -> kest::Any {
        return set_property_value(self, name.string(), value);
      });
}

} // namespace sarvode
