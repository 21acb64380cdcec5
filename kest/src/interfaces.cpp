// The container and capability interfaces: their classes and the operations
// that work on native containers directly and on other values through members.

#include "containers.hpp"
#include "hooks.hpp"

#include <kest/reflection.hpp>

#include <fmt/format.h>

#include <array>

namespace kest {

using namespace internal;

namespace {
Class_Generic interface_class(const char *name, std::uint64_t flags, std::initializer_list<class_getter> bases = {}) {
  return make_builtin_class(name, class_flags::interface | flags, bases);
}

/// The error for a value whose class does not derive from `Interface` (a handle made unchecked).
template <class Interface> Error not_conforming(const Any &self) {
  return result_error_cast_source(Interface::getClass().name(), self);
}

/// Calls the named method of `self` with `args`: the method-not-found error when
/// there is none, the cast error when `self` does not conform to `Interface` (so
/// that a same-named method of an unrelated value is never called).
template <class Interface>
Result<Any> call_member(const Any &self, const char *name, std::initializer_list<Any> args) {
  if (!Interface::isInstance(self))
    return not_conforming<Interface>(self);
  // A class implements an interface by declaring its members: they are found
  // before any lookup hook is asked.
  const meta_method_untyped member(name);
  auto method = raw_method_of(self, member);
  if (!method.is<I_Callable_Generic>())
    method = method_of(self, member);
  if (!method.is<I_Callable_Generic>())
    return helpers::error_method_not_found(String::fromUtf8(name), self);
  auto callable = method.unsafeAs<I_Callable_Generic>();
  if (!callable.isIndependent()) {
    std::vector<Any> full{self};
    full.insert(full.end(), args.begin(), args.end());
    return Result<Any>(unchecked, result_unwrap_lazy(callable.callWith(full)));
  }
  return Result<Any>(unchecked, result_unwrap_lazy(callable.callWith(std::span<const Any>(args.begin(), args.size()))));
}

/// Reads the named property of `self`, or the cast error when it does not conform to `Interface`.
template <class Interface> Result<Any> member_property(const Any &self, const char *name) {
  if (!Interface::isInstance(self))
    return not_conforming<Interface>(self);
  return Result<Any>(unchecked, result_unwrap_lazy(self.propertyValue(meta_property_untyped(name))));
}

/// What a native operation gave, as the result of an operation that yields a `T`.
template <class T> Result<T> as_result(const Any &v) {
  if (T::isInstance(v))
    return T::unsafeFrom(v);
  if (Error::isInstance(v))
    return Error::unsafeFrom(v);
  return result_error_cast_source(T::getClass().name(), v);
}

Result<None> as_none_result(const Result<Any> &r) {
  if (r.isError())
    return Error::unsafeFrom(r);
  return None();
}

/// The length of a native container, string or byte array, else the "$$__len__"
/// property of a value that conforms to `Interface`.
template <class Interface> Result<Integer> length_of(const Any &self) {
  switch (self.kind()) {
  case ObjectType::List:
    return Integer(List::unsafeFrom(self).length());
  case ObjectType::Tuple:
    return Integer(Tuple::unsafeFrom(self).length());
  case ObjectType::HashMap:
    return Integer(HashMap::unsafeFrom(self).length());
  case ObjectType::HashSet:
    return Integer(HashSet::unsafeFrom(self).length());
  case ObjectType::String:
    return Integer(String::unsafeFrom(self).length());
  case ObjectType::ByteArray:
    return Integer(ByteArray::unsafeFrom(self).length());
  default:
    break;
  }
  if (auto *native = native_protocol_of(self); native && native->length)
    return as_result<Integer>(native->length(self));
  const Any v = member_property<Interface>(self, "$$__len__");
  if (Integer::isInstance(v))
    return Integer::unsafeFrom(v);
  if (Error::isInstance(v))
    return Error::unsafeFrom(v);
  return result_error_cast_source(String(u"Integer"), v);
}
} // namespace

KEST_DEFINE_HANDLE(I_Iterable, value_derives(a, I_Iterable::getClass()), interface_class("I_Iterable", 0))
KEST_DEFINE_HANDLE(I_Iterator, value_derives(a, I_Iterator::getClass()), interface_class("I_Iterator", 0))
KEST_DEFINE_HANDLE(I_Sequence, value_derives(a, I_Sequence::getClass()),
                   interface_class("I_Sequence", class_flags::sequence, {&I_Iterable::getClass}))
KEST_DEFINE_HANDLE(I_MutableSequence, value_derives(a, I_MutableSequence::getClass()),
                   interface_class("I_MutableSequence", 0, {&I_Sequence::getClass}))
KEST_DEFINE_HANDLE(I_Map, value_derives(a, I_Map::getClass()),
                   interface_class("I_Map", class_flags::map, {&I_Iterable::getClass}))
KEST_DEFINE_HANDLE(I_MutableMap, value_derives(a, I_MutableMap::getClass()),
                   interface_class("I_MutableMap", 0, {&I_Map::getClass}))
KEST_DEFINE_HANDLE(I_Set, value_derives(a, I_Set::getClass()),
                   interface_class("I_Set", class_flags::set, {&I_Iterable::getClass}))
KEST_DEFINE_HANDLE(I_MutableSet, value_derives(a, I_MutableSet::getClass()),
                   interface_class("I_MutableSet", 0, {&I_Set::getClass}))
KEST_DEFINE_HANDLE(I_Tuple, value_derives(a, I_Tuple::getClass()),
                   interface_class("I_Tuple", 0, {&I_Sequence::getClass, &I_Immutable::getClass}))
KEST_DEFINE_HANDLE(I_Immutable, value_derives(a, I_Immutable::getClass()), interface_class("I_Immutable", 0))
KEST_DEFINE_HANDLE(I_RuntimeOnly, value_derives(a, I_RuntimeOnly::getClass()), interface_class("I_RuntimeOnly", 0))
KEST_DEFINE_HANDLE(I_Cloneable, value_derives(a, I_Cloneable::getClass()), interface_class("I_Cloneable", 0))
KEST_DEFINE_HANDLE(I_HasName, value_derives(a, I_HasName::getClass()), interface_class("I_HasName", 0))
KEST_DEFINE_HANDLE(I_HasDoc, value_derives(a, I_HasDoc::getClass()), interface_class("I_HasDoc", 0))
KEST_DEFINE_HANDLE(I_HasCode, value_derives(a, I_HasCode::getClass()), interface_class("I_HasCode", 0))

// --- I_Iterable -----------------------------------------------------------------

Result<Any> I_Iterable::iter() const {
  if (auto it = native_iterator(*this))
    return Result<Any>(unchecked, it);
  if (auto *native = native_protocol_of(*this); native && native->iter)
    return Result<Any>(unchecked, native->iter(*this));
  return call_member<I_Iterable>(*this, "iter", {});
}

Type I_Iterable::elementsType() const {
  switch (kind()) {
  case ObjectType::List:
    return List::unsafeFrom(*this).elementType();
  case ObjectType::HashMap:
    return HashMap::unsafeFrom(*this).keyType();
  case ObjectType::HashSet:
    return HashSet::unsafeFrom(*this).elementType();
  default:
    break;
  }
  auto args = raw_class_of(*this).genericArguments();
  return args.empty() ? Type() : args.front();
}

Result<Any> I_Iterable::contains(const Any &value) const {
  switch (kind()) {
  case ObjectType::HashMap:
    return Boolean(HashMap::unsafeFrom(*this).contains(value));
  case ObjectType::HashSet:
    return Boolean(HashSet::unsafeFrom(*this).contains(value));
  case ObjectType::List:
  case ObjectType::Tuple: {
    auto items = kind() == ObjectType::List ? List::unsafeFrom(*this).copyItems()
                                            : std::vector<Any>(Tuple::unsafeFrom(*this).items().begin(),
                                                               Tuple::unsafeFrom(*this).items().end());
    for (auto &item : items)
      if (compare_objects(item, value).value() == 0)
        return Boolean(true);
    return Boolean(false);
  }
  default:
    break;
  }
  if (!isInstance(*this))
    return not_conforming<I_Iterable>(*this);
  if (method_of(*this, meta_method_untyped("contains")).is<I_Callable_Generic>())
    return call_member<I_Iterable>(*this, "contains", {value});
  internal::iterator_iterable it(*this), end;
  for (; it != end; ++it)
    if (compare_objects(*it, value).value() == 0)
      return Boolean(true);
  if (it.error())
    return Error::unsafeFrom(it.error());
  return Boolean(false);
}

Result<List> I_Iterable::collectImpl() const {
  if (kind() == ObjectType::List)
    return List(List::unsafeFrom(*this).elementType(), List::unsafeFrom(*this).copyItems());
  List out(elementsType());
  internal::iterator_iterable it(*this), end;
  for (; it != end; ++it) {
    auto added = out.append(*it);
    if (added.isError()) // an element that does not fit the declared element type
      return Error::unsafeFrom(added);
  }
  if (it.error())
    return Error::unsafeFrom(it.error());
  return out;
}

List I_Iterable::createInstance(const Type &elementType) { return List(elementType); }
Class_Generic I_Iterable::genericInstance(const Type &elementType) {
  return generic_instance_of(getClass(), std::array{elementType});
}

// --- I_Iterator -----------------------------------------------------------------

Result<Any> I_Iterator::next() const {
  if (auto *native = native_protocol_of(*this); native && native->next)
    return Result<Any>(unchecked, native->next(*this));
  if (auto *it = dynamic_cast<const object_value_native_iterator *>(get()))
    return Result<Any>(unchecked, it->next());
  return call_member<I_Iterator>(*this, "next", {});
}

// --- I_Sequence -----------------------------------------------------------------

Result<Integer> I_Sequence::length() const { return length_of<I_Sequence>(*this); }

Result<Any> I_Sequence::at(std::int64_t index) const {
  switch (kind()) {
  case ObjectType::List:
    return List::unsafeFrom(*this).at(index);
  case ObjectType::Tuple: {
    auto t = Tuple::unsafeFrom(*this);
    if (index < -t.length() || index >= t.length())
      return Error(String::fromUtf8(
          fmt::format("Index {} is out of range for a sequence of length {}.", index, t.length())));
    return Result<Any>(unchecked, t.at(index));
  }
  default:
    if (auto *native = native_protocol_of(*this); native && native->at)
      return Result<Any>(unchecked, native->at(*this, index));
    return call_member<I_Sequence>(*this, "at", {Integer(index)});
  }
}

Result<Any> I_Sequence::sliced(std::int64_t start, std::int64_t length) const {
  if (kind() == ObjectType::List || kind() == ObjectType::Tuple) {
    std::vector<Any> items = kind() == ObjectType::List
                                 ? List::unsafeFrom(*this).copyItems()
                                 : std::vector<Any>(Tuple::unsafeFrom(*this).items().begin(),
                                                    Tuple::unsafeFrom(*this).items().end());
    const auto n = static_cast<std::int64_t>(items.size());
    if (start < 0)
      start = std::max<std::int64_t>(0, start + n);
    start = std::min(start, n);
    const auto end = length < 0 ? n : std::min(n, start + length);
    std::vector<Any> part(items.begin() + start, items.begin() + end);
    if (kind() == ObjectType::Tuple)
      return Tuple(std::move(part));
    return List(List::unsafeFrom(*this).elementType(), std::move(part));
  }
  return call_member<I_Sequence>(*this, "sliced", {Integer(start), Integer(length)});
}

Result<Any> I_Sequence::indexOf(const Any &value) const {
  if (kind() == ObjectType::List || kind() == ObjectType::Tuple) {
    std::int64_t i = 0;
    for (auto it = begin(), e = end(); it != e; ++it, ++i)
      if (compare_objects(*it, value).value() == 0)
        return Integer(i);
    return Integer(-1);
  }
  return call_member<I_Sequence>(*this, "indexOf", {value});
}

internal::iterator_sequence I_Sequence::end() const {
  auto n = length();
  return {*this, n.is<Integer>() ? n.unsafeAs<Integer>().value() : 0};
}

Class_Generic I_Sequence::genericInstance(const Type &elementType) {
  return generic_instance_of(getClass(), std::array{elementType});
}

Any internal::iterator_sequence::operator*() const {
  return result_unwrap_lazy(I_Sequence::unsafeFrom(m_sequence).at(m_index));
}

// --- I_MutableSequence --------------------------------------------------------------

Result<None> I_MutableSequence::append(const Any &value) const {
  if (kind() == ObjectType::List)
    return List::unsafeFrom(*this).append(value);
  return as_none_result(call_member<I_MutableSequence>(*this, "append", {value}));
}
Result<None> I_MutableSequence::appendAt(std::int64_t index, const Any &value) const {
  if (kind() == ObjectType::List)
    return List::unsafeFrom(*this).insert(index, value);
  return as_none_result(call_member<I_MutableSequence>(*this, "appendAt", {Integer(index), value}));
}
Result<None> I_MutableSequence::set(std::int64_t index, const Any &value) const {
  if (kind() == ObjectType::List)
    return List::unsafeFrom(*this).set(index, value);
  return as_none_result(call_member<I_MutableSequence>(*this, "set", {Integer(index), value}));
}
Result<None> I_MutableSequence::extend(const Any &iterable) const {
  if (kind() == ObjectType::List) {
    if (!I_Iterable::isInstance(iterable))
      return not_conforming<I_Iterable>(iterable);
    auto items = I_Iterable::unsafeFrom(iterable).collectImpl();
    if (items.isError())
      return Error::unsafeFrom(items);
    for (auto &item : items.unsafeAs<List>().copyItems()) {
      auto r = List::unsafeFrom(*this).append(item);
      if (r.isError())
        return r;
    }
    return None();
  }
  return as_none_result(call_member<I_MutableSequence>(*this, "extend", {iterable}));
}
Result<Any> I_MutableSequence::pop() const {
  if (kind() == ObjectType::List)
    return List::unsafeFrom(*this).removeAt(-1);
  return call_member<I_MutableSequence>(*this, "pop", {});
}
Result<Any> I_MutableSequence::removeAt(std::int64_t index) const {
  if (kind() == ObjectType::List)
    return List::unsafeFrom(*this).removeAt(index);
  return call_member<I_MutableSequence>(*this, "removeAt", {Integer(index)});
}
Result<Any> I_MutableSequence::removeOne(const Any &value) const {
  if (kind() == ObjectType::List) {
    auto index = I_Sequence::unsafeFrom(*this).indexOf(value);
    if (index.is<Integer>() && index.unsafeAs<Integer>().value() >= 0) {
      List::unsafeFrom(*this).removeAt(index.unsafeAs<Integer>().value());
      return Boolean(true);
    }
    return Boolean(false);
  }
  return call_member<I_MutableSequence>(*this, "removeOne", {value});
}
Result<None> I_MutableSequence::clear() const {
  if (kind() == ObjectType::List) {
    List::unsafeFrom(*this).clear();
    return None();
  }
  return as_none_result(call_member<I_MutableSequence>(*this, "clear", {}));
}
Class_Generic I_MutableSequence::genericInstance(const Type &elementType) {
  return generic_instance_of(getClass(), std::array{elementType});
}

// --- I_Map / I_MutableMap -------------------------------------------------------

Result<Any> I_Map::get(const Any &key) const {
  if (kind() == ObjectType::HashMap) {
    auto map = HashMap::unsafeFrom(*this);
    if (!map.contains(key))
      return Error(String::fromUtf8(fmt::format("Key not found: {}.", display(key).utf8View())));
    return Result<Any>(unchecked, map.find(key));
  }
  if (auto *native = native_protocol_of(*this); native && native->get)
    return Result<Any>(unchecked, native->get(*this, key));
  return call_member<I_Map>(*this, "get", {key});
}
Result<Any> I_Map::contains(const Any &key) const {
  if (kind() == ObjectType::HashMap)
    return Boolean(HashMap::unsafeFrom(*this).contains(key));
  return call_member<I_Map>(*this, "contains", {key});
}
Result<Any> I_Map::keys() const {
  if (kind() == ObjectType::HashMap) {
    auto map = HashMap::unsafeFrom(*this);
    return List(map.keyType(), map.copyKeys());
  }
  return member_property<I_Map>(*this, "$$keys");
}
Result<Any> I_Map::values() const {
  if (kind() == ObjectType::HashMap) {
    auto map = HashMap::unsafeFrom(*this);
    List out(map.valueType());
    for (auto &[k, v] : map.copyPairs())
      out.append(v);
    return out;
  }
  return member_property<I_Map>(*this, "$$values");
}
Result<Integer> I_Map::length() const { return length_of<I_Map>(*this); }
Type I_Map::keysType() const {
  if (kind() == ObjectType::HashMap)
    return HashMap::unsafeFrom(*this).keyType();
  auto v = result_unwrap_lazy(propertyValue(meta_property_untyped("$$keysType")));
  return Type::isInstance(v) ? Type::unsafeFrom(v) : Type();
}
Type I_Map::valuesType() const {
  if (kind() == ObjectType::HashMap)
    return HashMap::unsafeFrom(*this).valueType();
  auto v = result_unwrap_lazy(propertyValue(meta_property_untyped("$$valuesType")));
  return Type::isInstance(v) ? Type::unsafeFrom(v) : Type();
}
Class_Generic I_Map::genericInstance(const Type &keyType, const Type &valueType) {
  return generic_instance_of(getClass(), std::array{keyType, valueType});
}

Result<None> I_MutableMap::setChecked(const Any &key, const Any &value) const {
  if (kind() == ObjectType::HashMap)
    return HashMap::unsafeFrom(*this).setChecked(key, value);
  return as_none_result(call_member<I_MutableMap>(*this, "set", {key, value}));
}
Result<Any> I_MutableMap::remove(const Any &key) const {
  if (kind() == ObjectType::HashMap)
    return Boolean(HashMap::unsafeFrom(*this).remove(key));
  return call_member<I_MutableMap>(*this, "remove", {key});
}
Result<None> I_MutableMap::clear() const {
  if (kind() == ObjectType::HashMap) {
    HashMap::unsafeFrom(*this).clear();
    return None();
  }
  return as_none_result(call_member<I_MutableMap>(*this, "clear", {}));
}
HashMap I_MutableMap::createInstance(const Type &keyType, const Type &valueType) {
  return HashMap(keyType, valueType);
}
Class_Generic I_MutableMap::genericInstance(const Type &keyType, const Type &valueType) {
  return generic_instance_of(getClass(), std::array{keyType, valueType});
}

// --- I_Set / I_MutableSet ---------------------------------------------------------

Result<Integer> I_Set::length() const { return length_of<I_Set>(*this); }
Result<Any> I_Set::contains(const Any &value) const {
  if (!isInstance(*this))
    return not_conforming<I_Set>(*this);
  return I_Iterable::unsafeFrom(*this).contains(value);
}
Class_Generic I_Set::genericInstance(const Type &elementType) { return generic_instance_of(getClass(), std::array{elementType}); }

Result<Any> I_MutableSet::insert(const Any &value) const {
  if (kind() == ObjectType::HashSet)
    return HashSet::unsafeFrom(*this).insert(value);
  return call_member<I_MutableSet>(*this, "insert", {value});
}
Result<Any> I_MutableSet::remove(const Any &value) const {
  if (kind() == ObjectType::HashSet)
    return Boolean(HashSet::unsafeFrom(*this).remove(value));
  return call_member<I_MutableSet>(*this, "remove", {value});
}
Result<None> I_MutableSet::extend(const Any &iterable) const {
  if (kind() == ObjectType::HashSet) {
    internal::iterator_iterable it(iterable), end;
    for (; it != end; ++it) {
      auto r = HashSet::unsafeFrom(*this).insert(*it);
      if (r.isError())
        return Error::unsafeFrom(r);
    }
    if (it.error())
      return Error::unsafeFrom(it.error());
    return None();
  }
  return as_none_result(call_member<I_MutableSet>(*this, "extend", {iterable}));
}
Result<None> I_MutableSet::clear() const {
  if (kind() == ObjectType::HashSet) {
    HashSet::unsafeFrom(*this).clear();
    return None();
  }
  return as_none_result(call_member<I_MutableSet>(*this, "clear", {}));
}
Class_Generic I_MutableSet::genericInstance(const Type &elementType) {
  return generic_instance_of(getClass(), std::array{elementType});
}

// --- capabilities -----------------------------------------------------------------

Result<Any> I_Cloneable::clone() const { return call_member<I_Cloneable>(*this, "clone", {}); }
Result<Any> I_Cloneable::deepClone() const { return call_member<I_Cloneable>(*this, "deepClone", {}); }
Result<Any> I_HasName::name() const {
  return member_property<I_HasName>(*this, "$$name");
}
Result<Any> I_HasDoc::doc() const {
  return member_property<I_HasDoc>(*this, "$$doc");
}
Result<Any> I_HasCode::code() const {
  return member_property<I_HasCode>(*this, "$$code");
}

// --- range-for support ----------------------------------------------------------------

internal::iterator_iterable::iterator_iterable(const Any &iterable, throwing_t) : m_throws(true) {
  start(iterable);
}

internal::iterator_iterable::iterator_iterable(const Any &iterable) { start(iterable); }

void internal::iterator_iterable::start(const Any &iterable) {
  // An iterable that walks itself needs no iterator object.
  if (auto *native = native_protocol_of(iterable); native && native->loop_step) {
    Any end = native->loop_step(iterable, m_loop, m_current);
    if (!Undefined::isInstance(end)) {
      m_source = iterable;
      m_loop_step = native->loop_step;
      if (!end.empty())
        finish(std::move(end));
      return;
    }
    m_loop = {};
  }
  if (!I_Iterable::isInstance(iterable)) {
    finish(not_conforming<I_Iterable>(iterable));
    return;
  }
  auto v = result_unwrap_lazy(I_Iterable::unsafeFrom(iterable).iter());
  if (Error::isInstance(v)) {
    finish(std::move(v));
    return;
  }
  if (!I_Iterator::isInstance(v)) { // an "iter" member that returned something else
    finish(not_conforming<I_Iterator>(v));
    return;
  }
  m_source = std::move(v);
  if (auto *native = native_protocol_of(m_source))
    m_next_into = native->next_into;
  ++*this;
}

internal::iterator_iterable &internal::iterator_iterable::advance() {
  if (m_next_into) {
    if (Any end = m_next_into(m_source, m_current); !end.empty()) [[unlikely]]
      finish(std::move(end));
    return *this;
  }
  auto v = result_unwrap_lazy(I_Iterator::unsafeFrom(m_source).next());
  if (Error::isInstance(v)) [[unlikely]] {
    finish(std::move(v));
    return *this;
  }
  m_current = std::move(v);
  return *this;
}

void internal::iterator_iterable::finish(Any &&end) {
  m_source.reset();
  m_current.reset();
  if (StopIteration::isInstance(end))
    return;
  m_error = std::move(end);
  if (m_throws)
    throw exception(Error::unsafeFrom(m_error));
}

} // namespace kest
