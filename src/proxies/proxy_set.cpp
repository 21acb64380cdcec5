// CPythonProxySet: a Python set as a live, mutable host set.

#include "proxies/native_protocols.hpp"
#include "proxies/proxy_classes.hpp"
#include "proxies/proxy_members.hpp"

#include "convert/to_python.hpp"
#include "proxies/cpython_object.hpp"
#include "proxies/python_entry.hpp"

#include <fmt/format.h>

namespace sarvode {

namespace {
using namespace proxy;

/// Removes a value; an absent value (or any error Python raises) is false.
kest::Any remove(const kest::Any &self, const kest::Any &value) {
  PythonEntry entry(self);
  PyObject *object = entry.object();
  if (!object)
    return nullObjectError();
  auto method = py::object::steal(PyObject_GetAttrString(object, "remove"));
  if (!method) {
    PyErr_Clear();
    return kest::Error(kest::String::fromUtf8(fmt::format("The method is missing in {}.", reprForMessage(object))));
  }
  auto converted = py::object::steal(toPythonLocked(value));
  if (!converted)
    return pythonErrorOr(kest::Error(kest::String::fromUtf8(
        fmt::format("Unable to convert an argument: {}.", kest::display(value).utf8View()))));
  auto result = py::object::steal(PyObject_CallFunctionObjArgs(method.get(), converted.get(), nullptr));
  if (!result) {
    PyErr_Clear(); // a KeyError for an absent value, or anything else: not removed
    return kest::Boolean(false);
  }
  return kest::Boolean(true);
}

/// Adds each element of a host iterable in its order; the first error ends it.
kest::Any extend(const kest::Any &self, const kest::Any &values) {
  auto iterable = kest::I_Iterable::checkedCast(values);
  if (iterable.isError())
    return kest::Error::unsafeFrom(iterable);
  kest::internal::iterator_iterable it(iterable.unsafeAs<kest::I_Iterable>()), end;
  for (; it != end; ++it) {
    auto added = callPythonMethod(self, "add", {*it});
    if (kest::Error::isInstance(added))
      return added;
  }
  if (it.error())
    return it.error();
  return kest::None();
}

void build(builder &b) {
  const auto untyped = kest::Type();
  for (auto &entry : class_head("CPythonProxySet", "Proxy of a Python set.",
                                {kest::I_MutableSet::genericInstance(untyped), kest::I_Set::genericInstance(untyped)}))
    b.add_entry(entry);
  b.add_entry(method("remove", kest::make_method([](kest::Any self, kest::Any value) { return remove(self, value); }),
                     "self, value"));
  b.add_entry(forwarding_method("insert", "add", "self, value", result_as::none));
  b.add_entry(method("extend", kest::make_method([](kest::Any self, kest::Any values) { return extend(self, values); }),
                     "self, values"));
  b.add_entry(forwarding_method("clear", "clear", "self", result_as::none));
  b.add_entry(property("$$__len__", kest::make_method([](kest::Any self) {
                         return cast_result(callPythonMethod(self, "__len__", {}), result_as::integer);
                       })));
  b.add_entry(forwarding_method("contains", "__contains__", "self, value", result_as::boolean));
  b.add_entry(iter_method());
}

kest::internal::class_declaration g_declaration("CPythonProxySet", &build);
} // namespace

kest::Class_Generic cpythonProxySetClass() {
  static const kest::Class_Generic cls = withNativeProtocol(g_declaration.get(), native::set());
  return cls;
}

} // namespace sarvode
