// Making KestObjects and reading their values back.

#include "pyobject/kest_object.hpp"

#include "pyobject/slots.hpp"
#include "pyobject/type_for_class.hpp"

#include <kest/reflection.hpp>

namespace sarvode {

PyObject *wrapKestObject(const kest::Any &value) {
  py::gil lock;
  return wrapKestObjectLocked(value);
}

PyObject *wrapKestObjectLocked(const kest::Any &value) {
  auto type = py::object::steal(reinterpret_cast<PyObject *>(typeForClassLocked(kest::raw_class_of(value))));
  if (!type)
    return nullptr;
  PyObject *self = PyType_GenericAlloc(reinterpret_cast<PyTypeObject *>(type.get()), 0);
  if (!self)
    return nullptr;
  reinterpret_cast<KestObject *>(self)->value = new kest::Any(value);
  return self;
}

bool isKestObject(PyObject *object) {
  // Every KestObject type, per-class or shared, has this deallocation slot.
  return object && PyType_GetSlot(Py_TYPE(object), Py_tp_dealloc) == reinterpret_cast<void *>(&KestObject_dealloc);
}

kest::Any kestObjectValue(PyObject *object) {
  auto *value = reinterpret_cast<KestObject *>(object)->value;
  return value ? *value : kest::Any();
}

} // namespace sarvode
