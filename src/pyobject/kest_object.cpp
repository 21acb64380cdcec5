// The base type of KestObject and making its instances.
//
// The attribute, call, iteration and operator slots join this type with the
// host-object protocols; until then a KestObject carries its value through
// Python and back unchanged.

#include "pyobject/kest_object.hpp"

#include "convert/from_python.hpp"
#include "convert/to_python.hpp"

#include <kest/kest.hpp>

#include <exception>
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

/// Runs a slot body so that no C++ exception reaches the interpreter: a host
/// exception becomes SystemError.
template <class F> PyObject *guarded(F &&body) {
  try {
    return body();
  } catch (const std::exception &e) {
    PyErr_SetString(PyExc_SystemError, e.what());
  } catch (...) {
    PyErr_SetString(PyExc_SystemError, "unknown host exception");
  }
  return nullptr;
}

/// Calls the wrapped host callable with converted arguments.
PyObject *KestObject_call(PyObject *self, PyObject *args, PyObject *kwargs) {
  return guarded([&]() -> PyObject * {
    py::gil lock;
    const kest::Any value = kestObjectValue(self);
    if (!kest::I_Callable_Generic::isInstance(value)) {
      PyErr_Format(PyExc_RuntimeError, "Non-callable object: %s", kest::display(value).toUtf8().c_str());
      return nullptr;
    }
    auto callable = kest::I_Callable_Generic::unsafeFrom(value);
    std::vector<kest::Any> positional;
    const Py_ssize_t n = args ? PyTuple_Size(args) : 0;
    positional.reserve(static_cast<std::size_t>(n));
    for (Py_ssize_t i = 0; i < n; ++i)
      positional.push_back(fromPython(PyTuple_GetItem(args, i)));
    kest::Any result;
    if (kwargs && PyDict_Size(kwargs) > 0) {
      kest::HashMap named(kest::String::getType(), kest::Type());
      PyObject *key = nullptr, *item = nullptr;
      Py_ssize_t pos = 0;
      while (PyDict_Next(kwargs, &pos, &key, &item))
        (void)named.setChecked(fromPython(key), fromPython(item));
      result = kest::internal::result_unwrap_lazy(callable.callWithNamed(positional, named));
    } else {
      result = kest::internal::result_unwrap_lazy(callable.callWith(positional));
    }
    return toPython(result); // a host Error is raised as its Python exception
  });
}

PyType_Slot KestObject_slots[] = {
    {Py_tp_dealloc, reinterpret_cast<void *>(&KestObject_dealloc)},
    {Py_tp_call, reinterpret_cast<void *>(&KestObject_call)},
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
