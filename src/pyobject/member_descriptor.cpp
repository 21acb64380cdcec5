// kest.method_descriptor and kest.property_descriptor: a host class's instance
// members seen through the class. Both hold the class and the member; the
// method descriptor calls the member with a checked instance, the property
// descriptor reads and writes it on one.

#include "pyobject/member_descriptor.hpp"

#include "convert/from_python.hpp"
#include "convert/to_python.hpp"
#include "pyobject/kest_object.hpp"
#include "pyobject/python_signature.hpp"
#include "pyobject/slots.hpp"

#include <kest/kest.hpp>

#include <string>

namespace sarvode {

namespace {
struct MemberDescriptor {
  PyObject_HEAD
  kest::Any *owner;  // owned: the class whose instances the member applies to
  kest::Any *member; // owned: the method (a callable) or the property
  PyObject *name;    // owned: a str
};

MemberDescriptor *descriptor(PyObject *self) { return reinterpret_cast<MemberDescriptor *>(self); }
kest::Class_Generic owner_of(PyObject *self) { return kest::Class_Generic::unsafeFrom(*descriptor(self)->owner); }
std::string owner_name(PyObject *self) { return owner_of(self).name().toUtf8(); }

void MemberDescriptor_dealloc(PyObject *self) {
  // Releasing host values may run host finalisers; a pending exception survives them.
  PyObject *type = nullptr, *error = nullptr, *traceback = nullptr;
  PyErr_Fetch(&type, &error, &traceback);
  auto *d = descriptor(self);
  delete std::exchange(d->owner, nullptr);
  delete std::exchange(d->member, nullptr);
  Py_DecRef(std::exchange(d->name, nullptr));
  PyErr_Restore(type, error, traceback);
  PyTypeObject *own_type = Py_TYPE(self);
  PyObject_Free(self);
  Py_DecRef(reinterpret_cast<PyObject *>(own_type));
}

/// The name Python gives the type of `object` in a message: the host class for
/// a KestObject, the Python type's name otherwise.
std::string type_name_of(PyObject *object) {
  if (isKestObject(object))
    return kest::raw_class_of(kestObjectValue(object)).name().toUtf8();
  auto name = py::object::steal(PyType_GetName(Py_TYPE(object)));
  if (!name) {
    PyErr_Clear();
    return "object";
  }
  return std::string(py::utf8(name.get()));
}

/// The host value of `object` when it is an instance of the descriptor's class;
/// otherwise an empty value, with the TypeError Python raises for a descriptor
/// given the wrong object.
kest::Any instance_for(PyObject *self, PyObject *object) {
  kest::Any value = fromPython(object);
  if (kest::raw_class_of(value).derivesFrom(owner_of(self)))
    return value;
  PyErr_Format(PyExc_TypeError, "descriptor '%U' for '%s' objects doesn't apply to a '%s' object", descriptor(self)->name,
               owner_name(self).c_str(), type_name_of(object).c_str());
  return {};
}

PyObject *MemberDescriptor_get_name(PyObject *self, void *) {
  Py_IncRef(descriptor(self)->name);
  return descriptor(self)->name;
}

PyObject *MemberDescriptor_get_qualname(PyObject *self, void *) {
  return PyUnicode_FromFormat("%s.%U", owner_name(self).c_str(), descriptor(self)->name);
}

PyObject *MemberDescriptor_get_objclass(PyObject *self, void *) {
  return guarded<PyObject *>(nullptr, [&] { return toPythonLocked(owner_of(self)); });
}

// --- methods ------------------------------------------------------------------

kest::I_Callable_Generic descriptor_method(PyObject *self) { return kest::I_Callable_Generic::unsafeFrom(*descriptor(self)->member); }

PyObject *MethodDescriptor_repr(PyObject *self) {
  return PyUnicode_FromFormat("<method '%U' of '%s' objects>", descriptor(self)->name, owner_name(self).c_str());
}

PyObject *MethodDescriptor_call(PyObject *self, PyObject *args, PyObject *kwargs) {
  return guarded<PyObject *>(nullptr, [&]() -> PyObject * {
    if (PyTuple_Size(args) < 1) {
      PyErr_Format(PyExc_TypeError, "unbound method %s.%U() needs an argument", owner_name(self).c_str(),
                   descriptor(self)->name);
      return nullptr;
    }
    const kest::Any instance = instance_for(self, PyTuple_GetItem(args, 0));
    if (!instance)
      return nullptr;
    return callWithPythonArguments(descriptor_method(self).bindInstance(instance), args, kwargs, 1);
  });
}

/// `Drawing.append.__get__(drawing)`: the method bound to the instance.
PyObject *MethodDescriptor_descr_get(PyObject *self, PyObject *object, PyObject *) {
  return guarded<PyObject *>(nullptr, [&]() -> PyObject * {
    if (!object || object == Py_None) {
      Py_IncRef(self);
      return self;
    }
    const kest::Any instance = instance_for(self, object);
    if (!instance)
      return nullptr;
    return toPythonLocked(descriptor_method(self).bindInstance(instance));
  });
}

PyObject *MethodDescriptor_get_doc(PyObject *self, void *) {
  return guarded<PyObject *>(nullptr, [&] { return toPythonLocked(descriptor_method(self).doc()); });
}

PyObject *MethodDescriptor_get_text_signature(PyObject *self, void *) {
  return guarded<PyObject *>(nullptr, [&] { return toPythonLocked(descriptor_method(self).signature().toString()); });
}

PyObject *MethodDescriptor_get_signature(PyObject *self, void *) {
  return guarded<PyObject *>(nullptr, [&] { return pythonSignature(descriptor_method(self)); });
}

PyGetSetDef MethodDescriptor_getset[] = {
    {"__name__", &MemberDescriptor_get_name, nullptr, nullptr, nullptr},
    {"__qualname__", &MemberDescriptor_get_qualname, nullptr, nullptr, nullptr},
    {"__objclass__", &MemberDescriptor_get_objclass, nullptr, nullptr, nullptr},
    {"__doc__", &MethodDescriptor_get_doc, nullptr, nullptr, nullptr},
    {"__text_signature__", &MethodDescriptor_get_text_signature, nullptr, nullptr, nullptr},
    {"__signature__", &MethodDescriptor_get_signature, nullptr, nullptr, nullptr},
    {nullptr, nullptr, nullptr, nullptr, nullptr},
};

PyType_Slot MethodDescriptor_slots[] = {
    {Py_tp_dealloc, reinterpret_cast<void *>(&MemberDescriptor_dealloc)},
    {Py_tp_repr, reinterpret_cast<void *>(&MethodDescriptor_repr)},
    {Py_tp_call, reinterpret_cast<void *>(&MethodDescriptor_call)},
    {Py_tp_descr_get, reinterpret_cast<void *>(&MethodDescriptor_descr_get)},
    {Py_tp_getset, MethodDescriptor_getset},
    {0, nullptr},
};

PyType_Spec MethodDescriptor_spec{"kest.method_descriptor", static_cast<int>(sizeof(MemberDescriptor)), 0,
                                  Py_TPFLAGS_DEFAULT, MethodDescriptor_slots};

// --- properties ---------------------------------------------------------------

kest::Property descriptor_property(PyObject *self) { return kest::Property::unsafeFrom(*descriptor(self)->member); }

PyObject *PropertyDescriptor_repr(PyObject *self) {
  return PyUnicode_FromFormat("<attribute '%U' of '%s' objects>", descriptor(self)->name, owner_name(self).c_str());
}

PyObject *PropertyDescriptor_descr_get(PyObject *self, PyObject *object, PyObject *) {
  return guarded<PyObject *>(nullptr, [&]() -> PyObject * {
    if (!object || object == Py_None) {
      Py_IncRef(self);
      return self;
    }
    const kest::Any instance = instance_for(self, object);
    if (!instance)
      return nullptr;
    return toPythonLocked(kest::internal::result_unwrap_lazy(descriptor_property(self).get(instance)));
  });
}

int PropertyDescriptor_descr_set(PyObject *self, PyObject *object, PyObject *value) {
  return guarded<int>(-1, [&]() -> int {
    auto property = descriptor_property(self);
    if (!value || !property.setter().is<kest::I_Callable_Generic>()) {
      PyErr_Format(PyExc_AttributeError, "attribute '%U' of '%s' objects is not writable", descriptor(self)->name,
                   owner_name(self).c_str());
      return -1;
    }
    const kest::Any instance = instance_for(self, object);
    if (!instance)
      return -1;
    auto result = kest::internal::result_unwrap_lazy(property.set(instance, fromPython(value)));
    if (kest::Error::isInstance(result)) {
      raiseHostError(result);
      return -1;
    }
    return 0;
  });
}

PyObject *PropertyDescriptor_get_doc(PyObject *self, void *) {
  return guarded<PyObject *>(nullptr, [&] { return toPythonLocked(descriptor_property(self).doc()); });
}

PyGetSetDef PropertyDescriptor_getset[] = {
    {"__name__", &MemberDescriptor_get_name, nullptr, nullptr, nullptr},
    {"__qualname__", &MemberDescriptor_get_qualname, nullptr, nullptr, nullptr},
    {"__objclass__", &MemberDescriptor_get_objclass, nullptr, nullptr, nullptr},
    {"__doc__", &PropertyDescriptor_get_doc, nullptr, nullptr, nullptr},
    {nullptr, nullptr, nullptr, nullptr, nullptr},
};

PyType_Slot PropertyDescriptor_slots[] = {
    {Py_tp_dealloc, reinterpret_cast<void *>(&MemberDescriptor_dealloc)},
    {Py_tp_repr, reinterpret_cast<void *>(&PropertyDescriptor_repr)},
    {Py_tp_descr_get, reinterpret_cast<void *>(&PropertyDescriptor_descr_get)},
    {Py_tp_descr_set, reinterpret_cast<void *>(&PropertyDescriptor_descr_set)},
    {Py_tp_getset, PropertyDescriptor_getset},
    {0, nullptr},
};

PyType_Spec PropertyDescriptor_spec{"kest.property_descriptor", static_cast<int>(sizeof(MemberDescriptor)), 0,
                                    Py_TPFLAGS_DEFAULT, PropertyDescriptor_slots};

PyObject *new_descriptor(PyType_Spec &spec, PyTypeObject *&cache, const kest::Class_Generic &cls,
                         const kest::Any &member, std::string_view name) {
  PyTypeObject *type = py::type_from_spec(spec, cache);
  if (!type)
    return nullptr;
  auto text = py::object::steal(PyUnicode_FromStringAndSize(name.data(), static_cast<Py_ssize_t>(name.size())));
  if (!text)
    return nullptr;
  PyObject *self = PyType_GenericAlloc(type, 0);
  if (!self)
    return nullptr;
  auto *d = descriptor(self);
  d->owner = new kest::Any(cls);
  d->member = new kest::Any(member);
  d->name = text.release();
  return self;
}

/// Whether a member needs the instance it is called on.
bool needs_instance(const kest::I_Callable_Generic &callable) { return callable && !callable.isIndependent(); }

PyTypeObject *g_method_type = nullptr;   // guarded by the interpreter lock
PyTypeObject *g_property_type = nullptr; // guarded by the interpreter lock
} // namespace

PyObject *instanceMemberDescriptor(const kest::Class_Generic &cls, std::string_view name, bool &found) {
  found = false;
  const kest::meta_property_untyped property_name(name);
  if (auto property = cls.definedProperty(property_name); property.is<kest::Property>()) {
    auto p = property.unsafeAs<kest::Property>();
    if (p.isValueProperty() || !needs_instance(p.getter()))
      return nullptr; // a value the class itself can give
    found = true;
    return new_descriptor(PropertyDescriptor_spec, g_property_type, cls, p, name);
  }
  const kest::meta_method_untyped method_name(property_name.info(), false);
  if (auto method = cls.definedMethod(method_name); method.is<kest::I_Callable_Generic>()) {
    auto m = method.unsafeAs<kest::I_Callable_Generic>();
    if (!needs_instance(m))
      return nullptr; // a function the class itself can call
    found = true;
    return new_descriptor(MethodDescriptor_spec, g_method_type, cls, m, name);
  }
  return nullptr;
}

} // namespace sarvode
