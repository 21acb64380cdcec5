// CPythonProxySequence: a Python sequence as a live, mutable host sequence.
// Indices go to Python as they are, so negative ones count from the end.

#include "proxies/native_protocols.hpp"
#include "proxies/proxy_classes.hpp"
#include "proxies/proxy_members.hpp"

#include "convert/from_python.hpp"
#include "convert/to_python.hpp"
#include "proxies/cpython_object.hpp"
#include "proxies/python_entry.hpp"

namespace sarvode {

namespace {
using namespace proxy;

/// Removes the first occurrence; a missing value is false, never an error.
kest::Any remove_one(const kest::Any &self, const kest::Any &value) {
  auto count = cast_result(callPythonMethod(self, "count", {value}), result_as::integer);
  if (kest::Error::isInstance(count))
    return count;
  if (kest::Integer::unsafeFrom(count).value() <= 0)
    return kest::Boolean(false);
  auto removed = callPythonMethod(self, "remove", {value});
  return kest::Error::isInstance(removed) ? removed : kest::Any(kest::Boolean(true));
}

/// The index of the first occurrence at `start` or later; -1 when there is none.
kest::Any index_of(const kest::Any &self, const kest::Any &value, std::int64_t start) {
  PythonEntry entry(self);
  PyObject *object = entry.object();
  if (!object)
    return nullObjectError();
  auto converted = py::object::steal(toPythonLocked(value));
  if (!converted) {
    PyErr_Clear();
    return kest::Integer(-1);
  }
  auto index = py::object::steal(
      PyObject_CallMethod(object, "index", "Oi", converted.get(), static_cast<int>(start)));
  if (!index) {
    PyErr_Clear(); // ValueError for a missing value, or anything else
    return kest::Integer(-1);
  }
  return kest::internal::result_unwrap_lazy(kest::Integer::checkedCast(fromPython(index.get())));
}

kest::Any at_or(const kest::Any &self, const kest::Any &index, const kest::Any &fallback) {
  auto item = callPythonMethod(self, "__getitem__", {index});
  return kest::Error::isInstance(item) ? fallback : item;
}

void build(builder &b) {
  const auto untyped = kest::Type();
  for (auto &entry : class_head("CPythonProxySequence", "Proxy of a Python sequence.",
                                {kest::I_MutableSequence::genericInstance(untyped),
                                 kest::I_Sequence::genericInstance(untyped)}))
    b.add_entry(entry);
  b.add_entry(forwarding_method("set", "__setitem__", "self, index, value", result_as::none));
  b.add_entry(forwarding_method("removeAt", "__delitem__", "self, index", result_as::none));
  b.add_entry(method("removeOne", kest::make_method([](kest::Any self, kest::Any value) { return remove_one(self, value); }),
                     "self, value"));
  b.add_entry(forwarding_method("pop", "pop", "self, index", result_as::any, {kest::Integer(-1)}));
  b.add_entry(forwarding_method("extend", "extend", "self, values", result_as::none));
  b.add_entry(forwarding_method("clear", "clear", "self", result_as::none));
  b.add_entry(forwarding_method("appendAt", "insert", "self, index, value", result_as::none));
  b.add_entry(forwarding_method("append", "append", "self, value", result_as::none));
  b.add_entry(method("indexOf", kest::make_method([](kest::Any self, kest::Any value, std::int64_t start) {
                       return index_of(self, value, start);
                     }),
                     "self, value, start", {kest::Integer(0)}));
  b.add_entry(forwarding_method("contains", "__contains__", "self, value", result_as::boolean));
  b.add_entry(method("atOr", kest::make_method([](kest::Any self, kest::Any index, kest::Any fallback) {
                       return at_or(self, index, fallback);
                     }),
                     "self, index, fallback"));
  b.add_entry(forwarding_method("at", "__getitem__", "self, index", result_as::any));
  b.add_entry(property("$$__len__", kest::make_method([](kest::Any self) {
                         return cast_result(callPythonMethod(self, "__len__", {}), result_as::integer);
                       })));
  b.add_entry(iter_method());
}

kest::internal::class_declaration g_declaration("CPythonProxySequence", &build);
} // namespace

kest::Class_Generic cpythonProxySequenceClass() {
  static const kest::Class_Generic cls = withNativeProtocol(g_declaration.get(), native::sequence());
  return cls;
}

} // namespace sarvode
