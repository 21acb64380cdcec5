// CPythonProxyIterable and CPythonProxyIterator: iterating a Python iterable
// from the host, one element at a time.

#include "proxies/native_protocols.hpp"
#include "proxies/proxy_classes.hpp"
#include "proxies/proxy_members.hpp"

#include "proxies/cpython_object.hpp"
#include "proxies/python_entry.hpp"

namespace sarvode {

namespace {
using namespace proxy;

void build_iterable(builder &b) {
  for (auto &entry : class_head("CPythonProxyIterable", "Proxy of a Python iterable.",
                                {kest::I_Iterable::genericInstance(kest::Type())}))
    b.add_entry(entry);
  b.add_entry(iter_method());
  b.add_entry(forwarding_method("contains", "__contains__", "self, value", result_as::boolean));
}

void build_iterator(builder &b) {
  for (auto &entry : class_head("CPythonProxyIterator", "Proxy of a Python iterator.",
                                {kest::I_Iterator::getClass()}))
    b.add_entry(entry);
  b.add_entry(method("next", kest::make_method([](kest::Any self) { return native::iterator().next(self); }), "self"));
}

kest::internal::class_declaration g_iterable("CPythonProxyIterable", &build_iterable);
kest::internal::class_declaration g_iterator("CPythonProxyIterator", &build_iterator);
} // namespace

kest::Class_Generic cpythonProxyIterableClass() {
  static const kest::Class_Generic cls = withNativeProtocol(g_iterable.get(), native::iterable());
  return cls;
}
kest::Class_Generic cpythonProxyIteratorClass() {
  static const kest::Class_Generic cls = withNativeProtocol(g_iterator.get(), native::iterator());
  return cls;
}

kest::Any iterateProxy(const kest::Any &wrapper) {
  PythonEntry entry(wrapper);
  PyObject *object = entry.object();
  if (!object)
    return kest::Error(kest::String(u"Invalid object."));
  auto method = py::object::steal(PyObject_GetAttrString(object, "__iter__"));
  if (!method || !PyCallable_Check(method.get())) {
    PyErr_Clear();
    return kest::Error(kest::String(u"Missing '__iter__' method."));
  }
  auto empty = py::object::steal(PyTuple_New(0));
  auto iterator = empty ? py::object::steal(PyObject_Call(method.get(), empty.get(), nullptr)) : py::object();
  if (!iterator)
    return pythonErrorOr(kest::Error(kest::String(u"Missing '__iter__' method.")));
  return newPythonWrapper(cpythonProxyIteratorClass(), iterator.get());
}

} // namespace sarvode
