// `__doc__` of a host class's Python type.

#include "pyobject/doc_descriptor.hpp"

#include "pyobject/kest_object.hpp"
#include "pyobject/slots.hpp"

namespace sarvode {

namespace {
struct DocDescriptor {
  PyObject_HEAD
  PyObject *type_doc; // the type's text (a str)
};

PyObject *DocDescriptor_get(PyObject *self, PyObject *object, PyObject *) {
  if (object && isKestObject(object)) {
    bool own = false;
    PyObject *doc = kestObjectDoc(object, own);
    if (own || doc)
      return doc;
  }
  // Read on the type itself, or a value without a text of its own: the class's.
  PyObject *text = reinterpret_cast<DocDescriptor *>(self)->type_doc;
  Py_IncRef(text);
  return text;
}

int DocDescriptor_set(PyObject *, PyObject *, PyObject *) {
  PyErr_SetString(PyExc_AttributeError, "attribute '__doc__' of host objects is not writable");
  return -1;
}

void DocDescriptor_dealloc(PyObject *self) {
  Py_DecRef(reinterpret_cast<DocDescriptor *>(self)->type_doc);
  PyTypeObject *type = Py_TYPE(self);
  PyObject_Free(self);
  Py_DecRef(reinterpret_cast<PyObject *>(type));
}

PyType_Slot DocDescriptor_slots[] = {
    {Py_tp_dealloc, reinterpret_cast<void *>(&DocDescriptor_dealloc)},
    {Py_tp_descr_get, reinterpret_cast<void *>(&DocDescriptor_get)},
    {Py_tp_descr_set, reinterpret_cast<void *>(&DocDescriptor_set)},
    {0, nullptr},
};

PyType_Spec DocDescriptor_spec{"kest.doc_descriptor", static_cast<int>(sizeof(DocDescriptor)), 0, Py_TPFLAGS_DEFAULT,
                               DocDescriptor_slots};

PyTypeObject *descriptor_type() {
  static PyTypeObject *type = nullptr; // guarded by the interpreter lock
  return py::type_from_spec(DocDescriptor_spec, type);
}
} // namespace

void addDocDescriptor(PyTypeObject *type, const char *type_doc) {
  PyTypeObject *descriptor_class = type ? descriptor_type() : nullptr;
  auto text = py::object::steal(descriptor_class ? PyUnicode_FromString(type_doc ? type_doc : "") : nullptr);
  auto descriptor = py::object::steal(text ? PyType_GenericAlloc(descriptor_class, 0) : nullptr);
  if (descriptor) {
    reinterpret_cast<DocDescriptor *>(descriptor.get())->type_doc = text.release();
    if (PyObject_SetAttrString(reinterpret_cast<PyObject *>(type), "__doc__", descriptor.get()) == 0)
      return;
  }
  PyErr_Clear();
}

} // namespace sarvode
