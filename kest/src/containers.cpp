// Tuple, List, HashMap and HashSet.

#include "containers.hpp"

#include <kest/reflection.hpp>

#include <fmt/format.h>

#include <array>
#include <mutex>

namespace kest {
namespace internal {

const Class_Generic &native_iterator_class() {
  static const Class_Generic cls = [] {
    auto c = make_builtin_class("Iterator", class_flags::final, {&I_Iterator::getClass});
    add_iterator_members(c);
    return c;
  }();
  return cls;
}

Any object_value_native_iterator::next() const {
  const auto i = position.fetch_add(1, std::memory_order_relaxed);
  if (use_snapshot) {
    if (i < snapshot.size())
      return snapshot[i];
    return StopIteration();
  }
  if (source.kind() == ObjectType::List) {
    auto *l = native<object_value_list>(source);
    std::lock_guard guard(l->lock);
    if (i < l->items.size())
      return l->items[i];
  } else if (source.kind() == ObjectType::Tuple) {
    auto &items = native<object_value_tuple>(source)->items;
    if (i < items.size())
      return items[i];
  }
  return StopIteration();
}

Any native_iterator(const Any &c) {
  switch (c.kind()) {
  case ObjectType::List:
  case ObjectType::Tuple:
    return Any(new object_value_native_iterator(c, {}, false));
  case ObjectType::HashMap:
    return Any(new object_value_native_iterator(c, HashMap::unsafeFrom(c).copyKeys(), true));
  case ObjectType::HashSet:
    return Any(new object_value_native_iterator(c, HashSet::unsafeFrom(c).copyItems(), true));
  default:
    return {};
  }
}

namespace {
Error type_mismatch(const char *what, const Any &value, const Class_Generic &container) {
  return BadArgument(String::fromUtf8(fmt::format("Unable to {} a value of class '{}' in '{}'.", what,
                                                  qualname(raw_class_of(value)).utf8View(),
                                                  qualname(container).utf8View())));
}
Error index_error(std::int64_t index, std::size_t size) {
  return Error(String::fromUtf8(fmt::format("Index {} is out of range for a sequence of length {}.", index, size)));
}
/// Turns a possibly negative index into a position, or -1 when out of range.
std::int64_t position_of(std::int64_t index, std::size_t size) {
  const auto n = static_cast<std::int64_t>(size);
  if (index < 0)
    index += n;
  return index >= 0 && index < n ? index : -1;
}
} // namespace

} // namespace internal

using namespace internal;

// --- Tuple --------------------------------------------------------------------

KEST_DEFINE_HANDLE(Tuple, a.kind() == ObjectType::Tuple, [] {
  auto c = make_builtin_class("Tuple", 0, {&I_Tuple::getClass});
  add_tuple_members(c);
  return c;
}())

Tuple::Tuple(std::vector<Any> items) : Any(unchecked, Any(new object_value_tuple(std::move(items)))) {}
namespace {
/// The elements; a handle made over another class reads as the empty tuple.
std::span<const Any> tuple_items(const Any &a) noexcept {
  auto *t = native_if<object_value_tuple>(a, ObjectType::Tuple);
  return t ? std::span<const Any>(t->items) : std::span<const Any>();
}
} // namespace

std::int64_t Tuple::length() const noexcept { return static_cast<std::int64_t>(tuple_items(*this).size()); }
Any Tuple::at(std::int64_t index) const {
  auto items = tuple_items(*this);
  auto p = position_of(index, items.size());
  return p < 0 ? Any() : items[static_cast<std::size_t>(p)];
}
std::span<const Any> Tuple::items() const noexcept { return tuple_items(*this); }

// --- List ---------------------------------------------------------------------

namespace {
const Class_Generic &list_definition() {
  static const Class_Generic cls = [] {
    auto c = make_builtin_class("List", class_flags::generic_definition, {&I_MutableSequence::getClass});
    add_list_members(c);
    return c;
  }();
  return cls;
}
/// The list object, or null for a handle made over another class: members then
/// answer as for an empty list, and those that can fail return an error.
object_value_list *lst(const Any &a) { return native_if<object_value_list>(a, ObjectType::List); }
} // namespace

KEST_DEFINE_HANDLE(List, a.kind() == ObjectType::List, list_definition())

Class_Generic List::genericInstance(const Type &elementType) {
  return generic_instance_of(list_definition(), std::array{elementType});
}

List::List() : List(Type()) {}
List::List(const Type &elementType) : List(elementType, {}) {}
List::List(const Type &elementType, std::vector<Any> items)
    : Any(unchecked, Any(new object_value_list(genericInstance(elementType), std::move(items)))) {}
List::List(std::initializer_list<Any> items) : List(Type(), std::vector<Any>(items)) {}

Type List::elementType() const {
  auto *l = lst(*this);
  return l ? l->element_type() : Type();
}

std::int64_t List::length() const noexcept {
  auto *l = lst(*this);
  if (!l)
    return 0;
  std::lock_guard guard(l->lock);
  return static_cast<std::int64_t>(l->items.size());
}

Result<Any> List::at(std::int64_t index) const {
  auto *l = lst(*this);
  if (!l)
    return wrong_class("List", *this);
  std::lock_guard guard(l->lock);
  auto p = position_of(index, l->items.size());
  if (p < 0)
    return index_error(index, l->items.size());
  return Result<Any>(unchecked, l->items[static_cast<std::size_t>(p)]);
}

Result<None> List::append(const Any &value) const {
  auto *l = lst(*this);
  if (!l)
    return wrong_class("List", *this);
  if (!l->element_type().matches(value))
    return type_mismatch("store", value, l->cls);
  std::lock_guard guard(l->lock);
  l->items.push_back(value);
  return None();
}

Result<None> List::insert(std::int64_t index, const Any &value) const {
  auto *l = lst(*this);
  if (!l)
    return wrong_class("List", *this);
  if (!l->element_type().matches(value))
    return type_mismatch("store", value, l->cls);
  std::lock_guard guard(l->lock);
  const auto n = static_cast<std::int64_t>(l->items.size());
  if (index < 0)
    index = std::max<std::int64_t>(0, index + n);
  index = std::min(index, n);
  l->items.insert(l->items.begin() + index, value);
  return None();
}

Result<None> List::set(std::int64_t index, const Any &value) const {
  auto *l = lst(*this);
  if (!l)
    return wrong_class("List", *this);
  if (!l->element_type().matches(value))
    return type_mismatch("store", value, l->cls);
  Any old = value;
  std::lock_guard guard(l->lock);
  auto p = position_of(index, l->items.size());
  if (p < 0)
    return index_error(index, l->items.size());
  l->items[static_cast<std::size_t>(p)].swap(old);
  return None();
}

Result<Any> List::removeAt(std::int64_t index) const {
  auto *l = lst(*this);
  if (!l)
    return wrong_class("List", *this);
  std::lock_guard guard(l->lock);
  auto p = position_of(index, l->items.size());
  if (p < 0)
    return index_error(index, l->items.size());
  Any removed = std::move(l->items[static_cast<std::size_t>(p)]);
  l->items.erase(l->items.begin() + p);
  return Result<Any>(unchecked, std::move(removed));
}

void List::clear() const {
  auto *l = lst(*this);
  if (!l)
    return;
  std::vector<Any> old;
  std::lock_guard guard(l->lock);
  old.swap(l->items);
}

std::vector<Any> List::copyItems() const {
  auto *l = lst(*this);
  if (!l)
    return {};
  std::lock_guard guard(l->lock);
  return l->items;
}

// --- HashMap ------------------------------------------------------------------

namespace {
const Class_Generic &map_definition() {
  static const Class_Generic cls = [] {
    auto c = make_builtin_class("HashMap", class_flags::generic_definition, {&I_MutableMap::getClass});
    add_map_members(c);
    return c;
  }();
  return cls;
}
/// The map object, or null for a handle made over another class (read as an empty map).
object_value_hash_map *hmap(const Any &a) { return native_if<object_value_hash_map>(a, ObjectType::HashMap); }
} // namespace

KEST_DEFINE_HANDLE(HashMap, a.kind() == ObjectType::HashMap, map_definition())

Class_Generic HashMap::genericInstance(const Type &keyType, const Type &valueType) {
  return generic_instance_of(map_definition(), std::array{keyType, valueType});
}

HashMap::HashMap() : HashMap(Type(), Type()) {}
HashMap::HashMap(const Type &keyType, const Type &valueType)
    : Any(unchecked, Any(new object_value_hash_map(genericInstance(keyType, valueType)))) {}

Type HashMap::keyType() const {
  auto *m = hmap(*this);
  return m ? m->cls->generic_arguments[0] : Type();
}
Type HashMap::valueType() const {
  auto *m = hmap(*this);
  return m ? m->cls->generic_arguments[1] : Type();
}

std::int64_t HashMap::length() const noexcept {
  auto *m = hmap(*this);
  if (!m)
    return 0;
  std::lock_guard guard(m->lock);
  return static_cast<std::int64_t>(m->table.size());
}

Any HashMap::find(const Any &key) const {
  auto *m = hmap(*this);
  if (!m)
    return {};
  const auto hash = hash_of(key);
  std::lock_guard guard(m->lock);
  auto i = m->table.find(key, hash);
  return i < 0 ? Any() : m->table.at(static_cast<std::size_t>(i)).value;
}

bool HashMap::contains(const Any &key) const {
  auto *m = hmap(*this);
  if (!m)
    return false;
  const auto hash = hash_of(key);
  std::lock_guard guard(m->lock);
  return m->table.find(key, hash) >= 0;
}

Result<None> HashMap::setChecked(const Any &key, const Any &value) const {
  auto *m = hmap(*this);
  if (!m)
    return wrong_class("HashMap", *this);
  // The class's own argument types, not copies: no count of a shared type is written.
  const auto &types = m->cls->generic_arguments;
  if (!types[0].matches(key))
    return type_mismatch("use as a key", key, m->cls);
  if (!types[1].matches(value))
    return type_mismatch("store", value, m->cls);
  const auto hash = hash_of(key);
  Any old;
  std::lock_guard guard(m->lock);
  old = m->table.put(key, value, hash);
  return None();
}

bool HashMap::remove(const Any &key) const {
  auto *m = hmap(*this);
  if (!m)
    return false;
  const auto hash = hash_of(key);
  ordered_table::entry removed;
  std::lock_guard guard(m->lock);
  return m->table.remove(key, hash, removed);
}

void HashMap::clear() const {
  auto *m = hmap(*this);
  if (!m)
    return;
  std::vector<ordered_table::entry> removed;
  std::lock_guard guard(m->lock);
  m->table.clear(removed);
}

std::vector<std::pair<Any, Any>> HashMap::copyPairs() const {
  std::vector<std::pair<Any, Any>> out;
  auto *m = hmap(*this);
  if (!m)
    return out;
  std::lock_guard guard(m->lock);
  out.reserve(m->table.size());
  for (auto &e : m->table.entries())
    if (e.alive)
      out.emplace_back(e.key, e.value);
  return out;
}

std::vector<Any> HashMap::copyKeys() const {
  std::vector<Any> out;
  auto *m = hmap(*this);
  if (!m)
    return out;
  std::lock_guard guard(m->lock);
  out.reserve(m->table.size());
  for (auto &e : m->table.entries())
    if (e.alive)
      out.push_back(e.key);
  return out;
}

// --- HashSet ------------------------------------------------------------------

namespace {
const Class_Generic &set_definition() {
  static const Class_Generic cls = [] {
    auto c = make_builtin_class("HashSet", class_flags::generic_definition, {&I_MutableSet::getClass});
    add_set_members(c);
    return c;
  }();
  return cls;
}
/// The set object, or null for a handle made over another class (read as an empty set).
object_value_hash_set *hset(const Any &a) { return native_if<object_value_hash_set>(a, ObjectType::HashSet); }
} // namespace

KEST_DEFINE_HANDLE(HashSet, a.kind() == ObjectType::HashSet, set_definition())

Class_Generic HashSet::genericInstance(const Type &elementType) {
  return generic_instance_of(set_definition(), std::array{elementType});
}

HashSet::HashSet() : HashSet(Type()) {}
HashSet::HashSet(const Type &elementType)
    : Any(unchecked, Any(new object_value_hash_set(genericInstance(elementType)))) {}

Type HashSet::elementType() const {
  auto *s = hset(*this);
  return s ? s->cls->generic_arguments[0] : Type();
}

std::int64_t HashSet::length() const noexcept {
  auto *s = hset(*this);
  if (!s)
    return 0;
  std::lock_guard guard(s->lock);
  return static_cast<std::int64_t>(s->table.size());
}

bool HashSet::contains(const Any &value) const {
  auto *s = hset(*this);
  if (!s)
    return false;
  const auto hash = hash_of(value);
  std::lock_guard guard(s->lock);
  return s->table.find(value, hash) >= 0;
}

Result<Any> HashSet::insert(const Any &value) const {
  auto *s = hset(*this);
  if (!s)
    return wrong_class("HashSet", *this);
  if (!elementType().matches(value))
    return type_mismatch("store", value, s->cls);
  const auto hash = hash_of(value);
  bool added = false;
  std::lock_guard guard(s->lock);
  s->table.put(value, {}, hash, &added);
  return Result<Any>(unchecked, Boolean(added));
}

bool HashSet::remove(const Any &value) const {
  auto *s = hset(*this);
  if (!s)
    return false;
  const auto hash = hash_of(value);
  ordered_table::entry removed;
  std::lock_guard guard(s->lock);
  return s->table.remove(value, hash, removed);
}

void HashSet::clear() const {
  auto *s = hset(*this);
  if (!s)
    return;
  std::vector<ordered_table::entry> removed;
  std::lock_guard guard(s->lock);
  s->table.clear(removed);
}

std::vector<Any> HashSet::copyItems() const {
  std::vector<Any> out;
  auto *s = hset(*this);
  if (!s)
    return out;
  std::lock_guard guard(s->lock);
  for (auto &e : s->table.entries())
    if (e.alive)
      out.push_back(e.key);
  return out;
}

} // namespace kest
