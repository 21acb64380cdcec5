// The base type of KestObject and making its instances.
//
// The attribute, call, iteration and operator slots join this type with the
// host-object protocols; until then a KestObject carries its value through
// Python and back unchanged.

#include "pyobject/kest_object.hpp"

#include <mutex>

namespace sarvode {

namespace {
void KestObject_dealloc(PyObject *self) {
  py::gil lock;
  auto *object = reinterpret_cast<KestObject *>(self);
  delete std::exchange(object->value, nullptr);
  PyTypeObject *type = Py_TYPE(self);
  PyObject_Free(self);
  Py_DecRef(reinterpret_cast<PyObject *>(type)); // instances of heap types own a reference to it
}

PyType_Slot KestObject_slots[] = {
    {Py_tp_dealloc, reinterpret_cast<void *>(&KestObject_dealloc)},
    {Py_tp_doc, const_cast<char *>("Wrapper around of a Kest object")},
    {0, nullptr},
};

PyType_Spec KestObject_spec = {
    ">KestObject", static_cast<int>(sizeof(KestObject)), 0, Py_TPFLAGS_DEFAULT | Py_TPFLAGS_BASETYPE,
    KestObject_slots,
};
} // namespace

PyTypeObject *kestObjectBaseType() {
  static PyTypeObject *type = [] {
    py::gil lock;
    return reinterpret_cast<PyTypeObject *>(PyType_FromSpec(&KestObject_spec));
  }();
  return type;
}

PyObject *wrapKestObject(const kest::Any &value) {
  py::gil lock;
  PyTypeObject *type = kestObjectBaseType();
  if (!type)
    return nullptr;
  PyObject *self = PyType_GenericAlloc(type, 0);
  if (!self)
    return nullptr;
  reinterpret_cast<KestObject *>(self)->value = new kest::Any(value);
  return self;
}

bool isKestObject(PyObject *object) {
  PyTypeObject *base = kestObjectBaseType();
  return object && base &&
         (Py_TYPE(object) == base || PyType_IsSubtype(Py_TYPE(object), base));
}

kest::Any kestObjectValue(PyObject *object) {
  auto *value = reinterpret_cast<KestObject *>(object)->value;
  return value ? *value : kest::Any();
}

} // namespace sarvode
