#pragma once
// Native objects behind Tuple, List, HashMap, HashSet and their iterators.

#include "builtin.hpp"
#include "hooks.hpp"
#include "ordered_table.hpp"

#include <kest/boolean.hpp>
#include <kest/bytearray.hpp>

#include <kest/hash_map.hpp>
#include <kest/hash_set.hpp>
#include <kest/list.hpp>
#include <kest/tuple.hpp>

#include <vector>

namespace kest::internal {

class object_value_tuple final : public object_value {
public:
  explicit object_value_tuple(std::vector<Any> i) : items(std::move(i)) {}
  [[nodiscard]] ObjectType kind() const noexcept override { return ObjectType::Tuple; }
  [[nodiscard]] object_value_class *class_value() const noexcept override { return Tuple::getClass().value(); }
  const std::vector<Any> items;
};

class object_value_list final : public object_value {
public:
  object_value_list(Class_Generic c, std::vector<Any> i) : cls(std::move(c)), items(std::move(i)) {}
  [[nodiscard]] ObjectType kind() const noexcept override { return ObjectType::List; }
  [[nodiscard]] object_value_class *class_value() const noexcept override { return cls.value(); }
  [[nodiscard]] Type element_type() const { return cls->generic_arguments.front(); }
  const Class_Generic cls; // List<T>
  mutable spinlock lock;
  mutable std::vector<Any> items; // guarded by lock
};

class object_value_hash_map final : public object_value {
public:
  explicit object_value_hash_map(Class_Generic c) : cls(std::move(c)) {}
  [[nodiscard]] ObjectType kind() const noexcept override { return ObjectType::HashMap; }
  [[nodiscard]] object_value_class *class_value() const noexcept override { return cls.value(); }
  const Class_Generic cls; // HashMap<K, V>
  mutable spinlock lock;
  mutable ordered_table table; // guarded by lock
};

class object_value_hash_set final : public object_value {
public:
  explicit object_value_hash_set(Class_Generic c) : cls(std::move(c)) {}
  [[nodiscard]] ObjectType kind() const noexcept override { return ObjectType::HashSet; }
  [[nodiscard]] object_value_class *class_value() const noexcept override { return cls.value(); }
  const Class_Generic cls; // HashSet<T>
  mutable spinlock lock;
  mutable ordered_table table; // guarded by lock
};

/// The class of the library's own iterators.
const Class_Generic &native_iterator_class();

/// An iterator over a list (live, by index), a tuple, or a snapshot of keys.
class object_value_native_iterator final : public native_instance<&native_iterator_class> {
public:
  object_value_native_iterator(Any src, std::vector<Any> snap, bool use)
      : source(std::move(src)), snapshot(std::move(snap)), use_snapshot(use) {}
  /// The next element, or a StopIteration error.
  Any next() const;

  const Any source;
  const std::vector<Any> snapshot;
  const bool use_snapshot;
  mutable std::atomic<std::size_t> position{0};
};

/// A new iterator over a native container, or empty for other values.
Any native_iterator(const Any &container);

/// Adds the dynamic members ("__len__", "at", "append", ...) of each builtin container.
void add_tuple_members(const Class_Generic &cls);
void add_list_members(const Class_Generic &cls);
void add_map_members(const Class_Generic &cls);
void add_set_members(const Class_Generic &cls);
void add_iterator_members(const Class_Generic &cls);

} // namespace kest::internal
