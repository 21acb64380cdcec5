// The members of the library's own containers, so that any code that looks
// members up by name (scripts, language bindings) sees the same operations as
// the C++ interface.

#include "containers.hpp"

#include <kest/builders.hpp>
#include <kest/function.hpp>

namespace kest::internal {

namespace {
/// `self` as an interface handle. A method may be called with any value as its
/// `self`; the interface's members check that it conforms, and answer with the
/// cast error when it does not, so the handle is made without a check here.
template <class Interface> Interface self_as(const Any &self) { return Interface(unchecked, self); }

void method(const Class_Generic &cls, const char *name, I_Callable_Generic fn, const char *params) {
  const auto text = String::fromUtf8(name);
  cls->add_method(meta_method_untyped(text), declared_function(text, std::move(fn), String::fromUtf8(params), String()));
}

void length_property(const Class_Generic &cls) {
  property_builder_base builder{String(u"$$__len__")};
  builder.assign_getter(make_method([](Any self) { return self_as<I_Sequence>(self).length(); }));
  cls->add_property(builder.name(), builder.build());
}

Result<Any> unwrap_result(const Result<Any> &r) { return Result<Any>(unchecked, result_unwrap_lazy(r)); }


void iterable_members(const Class_Generic &cls) {
  method(cls, "iter", make_method([](Any self) { return unwrap_result(self_as<I_Iterable>(self).iter()); }), "");
  method(cls, "contains",
         make_method([](Any self, Any value) { return unwrap_result(self_as<I_Iterable>(self).contains(value)); }),
         "value");
}

void sequence_members(const Class_Generic &cls) {
  length_property(cls);
  iterable_members(cls);
  method(cls, "at", make_method([](Any self, std::int64_t i) { return unwrap_result(self_as<I_Sequence>(self).at(i)); }),
         "index");
  method(cls, "indexOf",
         make_method([](Any self, Any value) { return unwrap_result(self_as<I_Sequence>(self).indexOf(value)); }),
         "value");
}
} // namespace

void add_tuple_members(const Class_Generic &cls) { sequence_members(cls); }

void add_list_members(const Class_Generic &cls) {
  sequence_members(cls);
  auto seq = [](const Any &self) { return self_as<I_MutableSequence>(self); };
  method(cls, "append", make_method([seq](Any self, Any v) { return seq(self).append(v); }), "value");
  method(cls, "appendAt",
         make_method([seq](Any self, std::int64_t i, Any v) { return seq(self).appendAt(i, v); }), "index, value");
  method(cls, "set", make_method([seq](Any self, std::int64_t i, Any v) { return seq(self).set(i, v); }),
         "index, value");
  method(cls, "extend", make_method([seq](Any self, Any items) { return seq(self).extend(items); }), "items");
  method(cls, "pop", make_method([seq](Any self) { return seq(self).pop(); }), "");
  method(cls, "removeAt", make_method([seq](Any self, std::int64_t i) { return seq(self).removeAt(i); }), "index");
  method(cls, "removeOne", make_method([seq](Any self, Any v) { return seq(self).removeOne(v); }), "value");
  method(cls, "clear", make_method([seq](Any self) { return seq(self).clear(); }), "");
  method(cls, "concat", make_method([](Any self, Any other) -> Result<Any> {
           if (!List::isInstance(self))
             return wrong_class("List", self);
           auto out = List(List::unsafeFrom(self).elementType(), List::unsafeFrom(self).copyItems());
           auto r = I_MutableSequence::unsafeFrom(out).extend(other);
           if (r.isError())
             return Error::unsafeFrom(r);
           return out;
         }),
         "other");
}

void add_map_members(const Class_Generic &cls) {
  length_property(cls);
  iterable_members(cls);
  auto map = [](const Any &self) { return self_as<I_MutableMap>(self); };
  method(cls, "get", make_method([](Any self, Any key) { return self_as<I_Map>(self).get(key); }), "key");
  method(cls, "set", make_method([map](Any self, Any key, Any v) { return map(self).setChecked(key, v); }),
         "key, value");
  method(cls, "remove", make_method([map](Any self, Any key) { return map(self).remove(key); }), "key");
  method(cls, "clear", make_method([map](Any self) { return map(self).clear(); }), "");
  property_builder_base keys{String(u"$$keys")};
  keys.assign_getter(make_method([](Any self) { return self_as<I_Map>(self).keys(); }));
  cls->add_property(keys.name(), keys.build());
  property_builder_base values{String(u"$$values")};
  values.assign_getter(make_method([](Any self) { return self_as<I_Map>(self).values(); }));
  cls->add_property(values.name(), values.build());
}

void add_set_members(const Class_Generic &cls) {
  length_property(cls);
  iterable_members(cls);
  auto set = [](const Any &self) { return self_as<I_MutableSet>(self); };
  method(cls, "insert", make_method([set](Any self, Any v) { return set(self).insert(v); }), "value");
  method(cls, "remove", make_method([set](Any self, Any v) { return set(self).remove(v); }), "value");
  method(cls, "extend", make_method([set](Any self, Any items) { return set(self).extend(items); }), "items");
  method(cls, "clear", make_method([set](Any self) { return set(self).clear(); }), "");
}

void add_iterator_members(const Class_Generic &cls) {
  method(cls, "next", make_method([](Any self) { return unwrap_result(self_as<I_Iterator>(self).next()); }), "");
}

} // namespace kest::internal
