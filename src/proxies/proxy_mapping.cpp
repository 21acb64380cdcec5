// CPythonProxyMapping: a Python mapping as a live, mutable host map.

#include "proxies/native_protocols.hpp"
#include "proxies/proxy_classes.hpp"
#include "proxies/proxy_members.hpp"

namespace sarvode {

namespace {
using namespace proxy;

void build(builder &b) {
  const auto untyped = kest::Type();
  for (auto &entry : class_head("CPythonProxyMapping", "Proxy of a Python mapping.",
                                {kest::I_MutableMap::genericInstance(untyped, untyped)}))
    b.add_entry(entry);
  b.add_entry(forwarding_method("set", "__setitem__", "self, key, value", result_as::none));
  b.add_entry(forwarding_method("remove", "pop", "self, key", result_as::any));
  b.add_entry(forwarding_method("get", "__getitem__", "self, key", result_as::any));
  b.add_entry(forwarding_method("contains", "__contains__", "self, key", result_as::boolean));
  b.add_entry(forwarding_method("clear", "clear", "self", result_as::none));
  b.add_entry(property("$$valuesType", kest::make_method([](kest::Any) { return kest::Type(); })));
  b.add_entry(property("$$values", kest::make_method([](kest::Any self) { return listed_view(self, "values"); })));
  b.add_entry(property("$$__len__", kest::make_method([](kest::Any self) {
                         return cast_result(callPythonMethod(self, "__len__", {}), result_as::integer);
                       })));
  b.add_entry(property("$$keysType", kest::make_method([](kest::Any) { return kest::Type(); })));
  b.add_entry(property("$$keys", kest::make_method([](kest::Any self) { return listed_view(self, "keys"); })));
  b.add_entry(iter_method()); // a host loop over a map goes over its keys, as in Python
}

kest::internal::class_declaration g_declaration("CPythonProxyMapping", &build);
} // namespace

kest::Class_Generic cpythonProxyMappingClass() {
  static const kest::Class_Generic cls = withNativeProtocol(g_declaration.get(), native::mapping());
  return cls;
}

} // namespace sarvode
