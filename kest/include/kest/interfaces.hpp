#pragma once
/// The generic container and capability interfaces. Each is a host class; a
/// value conforms when its class derives from it. The operations work on the
/// library's own containers directly and on any other conforming value through
/// its declared members ("iter", "next", "at", "__len__", ...).

#include <kest/computed.hpp>
#include <kest/loop_state.hpp>
#include <kest/type.hpp>

#include <cstdint>
#include <iterator>
#include <utility>
#include <vector>

namespace kest {

class List;
class HashMap;

#define KEST_INTERFACE(Name)                                                                   \
  class KEST_API Name : public Any {                                                           \
    KEST_HANDLE_MEMBERS(Name, Any)

/// Iterators; the end is a `StopIteration` error.
KEST_INTERFACE(I_Iterator)
  [[nodiscard]] Result<Any> next() const;
};
using I_Iterator_Generic = I_Iterator;

namespace internal {
/// Input iterator over a host iterable, for range-based `for`. An iteration
/// error ends the loop; `error()` tells whether one did, and an iterator made
/// `throwing` throws it as `kest::exception` instead.
class KEST_API iterator_iterable {
public:
  using iterator_category = std::input_iterator_tag;
  using value_type = Any;
  using difference_type = std::ptrdiff_t;
  using pointer = const Any *;
  using reference = const Any &;

  iterator_iterable() = default; // the end
  explicit iterator_iterable(const Any &iterable);
  static constexpr struct throwing_t {
  } throwing{};
  iterator_iterable(const Any &iterable, throwing_t);
  const Any &operator*() const noexcept { return m_current; }
  const Any *operator->() const noexcept { return &m_current; }
  /// Inline for an iterable that walks itself (host loops over Python lists).
  iterator_iterable &operator++() {
    if (m_loop_step) [[likely]] {
      if (Any end = m_loop_step(m_source, m_loop, m_current); !end.empty()) [[unlikely]]
        finish(std::move(end));
      return *this;
    }
    return advance();
  }
  void operator++(int) { ++*this; }
  friend bool operator==(const iterator_iterable &a, const iterator_iterable &b) noexcept {
    return a.m_source.empty() == b.m_source.empty();
  }
  [[nodiscard]] const Any &error() const noexcept { return m_error; }

private:
  /// The first step: the iterable's own walk, or an iterator from its "iter".
  void start(const Any &iterable);
  /// The step through an iterator object.
  iterator_iterable &advance();
  void finish(Any &&end);

  Any m_source; // the iterator, or the iterable that the loop walks itself; empty at the end
  Any (*m_next_into)(const Any &, Any &) = nullptr; // the iterator's own loop step, when it has one
  Any (*m_loop_step)(const Any &, loop_state &, Any &) = nullptr; // the iterable's, when it walks itself
  loop_state m_loop;
  Any m_current;
  Any m_error;
  bool m_throws = false;
};

/// Random-access walk over a host sequence by index.
class KEST_API iterator_sequence {
public:
  using iterator_category = std::input_iterator_tag;
  using value_type = Any;
  using difference_type = std::ptrdiff_t;

  iterator_sequence(Any sequence, std::int64_t index) : m_sequence(std::move(sequence)), m_index(index) {}
  Any operator*() const;
  iterator_sequence &operator++() {
    ++m_index;
    return *this;
  }
  friend bool operator==(const iterator_sequence &a, const iterator_sequence &b) noexcept {
    return a.m_index == b.m_index;
  }

private:
  Any m_sequence;
  std::int64_t m_index;
};
} // namespace internal

/// Values that can be iterated.
KEST_INTERFACE(I_Iterable)
  /// A new iterator (an `I_Iterator`) or an error.
  [[nodiscard]] Result<Any> iter() const;
  [[nodiscard]] Type elementsType() const;
  /// Whether `value` is an element (compared with the host comparison).
  [[nodiscard]] Result<Any> contains(const Any &value) const;
  /// Every element, in order, or the error that stopped the iteration.
  [[nodiscard]] Result<List> collectImpl() const;
  [[nodiscard]] internal::iterator_iterable beginImpl() const { return internal::iterator_iterable(*this); }
  /// For range-based `for`: a walk that ends in an error (Python's own, an
  /// element that does not convert) throws it as `kest::exception`, so that a
  /// loop is never cut short without a word.
  [[nodiscard]] internal::iterator_iterable begin() const {
    return internal::iterator_iterable(*this, internal::iterator_iterable::throwing);
  }
  [[nodiscard]] internal::iterator_iterable end() const { return {}; }
  /// A new mutable list for elements of `elementType`.
  static List createInstance(const Type &elementType);
  static Class_Generic genericInstance(const Type &elementType);
};
using I_Iterable_Generic = I_Iterable;

/// Indexed sequences.
KEST_INTERFACE(I_Sequence)
  [[nodiscard]] Result<Integer> length() const;
  [[nodiscard]] Result<Any> at(std::int64_t index) const;
  /// `length` elements from `start` as a new list (-1: to the end).
  [[nodiscard]] Result<Any> sliced(std::int64_t start, std::int64_t length = -1) const;
  [[nodiscard]] Result<Any> indexOf(const Any &value) const;
  [[nodiscard]] internal::iterator_sequence begin() const { return {*this, 0}; }
  [[nodiscard]] internal::iterator_sequence end() const;
  static Class_Generic genericInstance(const Type &elementType);
};
using I_Sequence_Generic = I_Sequence;

KEST_INTERFACE(I_MutableSequence)
  Result<None> append(const Any &value) const;
  Result<None> appendAt(std::int64_t index, const Any &value) const;
  Result<None> set(std::int64_t index, const Any &value) const;
  Result<None> extend(const Any &iterable) const;
  Result<Any> pop() const;
  Result<Any> removeAt(std::int64_t index) const;
  Result<Any> removeOne(const Any &value) const;
  Result<None> clear() const;
  static Class_Generic genericInstance(const Type &elementType);
};
using I_MutableSequence_Generic = I_MutableSequence;

/// Key-value maps.
KEST_INTERFACE(I_Map)
  [[nodiscard]] Result<Any> get(const Any &key) const;
  [[nodiscard]] Result<Any> contains(const Any &key) const;
  [[nodiscard]] Result<Any> keys() const;
  [[nodiscard]] Result<Any> values() const;
  [[nodiscard]] Result<Integer> length() const;
  [[nodiscard]] Type keysType() const;
  [[nodiscard]] Type valuesType() const;
  static Class_Generic genericInstance(const Type &keyType, const Type &valueType);
};
using I_Map_Generic = I_Map;

KEST_INTERFACE(I_MutableMap)
  /// Stores `value` under `key` after checking both against the map's types.
  Result<None> setChecked(const Any &key, const Any &value) const;
  Result<None> set(const Any &key, const Any &value) const { return setChecked(key, value); }
  Result<Any> remove(const Any &key) const;
  Result<None> clear() const;
  /// A new empty map with the given key and value types.
  static HashMap createInstance(const Type &keyType, const Type &valueType);
  static Class_Generic genericInstance(const Type &keyType, const Type &valueType);
};
using I_MutableMap_Generic = I_MutableMap;

KEST_INTERFACE(I_Set)
  [[nodiscard]] Result<Integer> length() const;
  [[nodiscard]] Result<Any> contains(const Any &value) const;
  static Class_Generic genericInstance(const Type &elementType);
};
using I_Set_Generic = I_Set;

KEST_INTERFACE(I_MutableSet)
  Result<Any> insert(const Any &value) const;
  Result<Any> remove(const Any &value) const;
  Result<None> extend(const Any &iterable) const;
  Result<None> clear() const;
  static Class_Generic genericInstance(const Type &elementType);
};
using I_MutableSet_Generic = I_MutableSet;

/// Fixed-length, immutable sequences.
KEST_INTERFACE(I_Tuple)
};
using I_Tuple_Generic = I_Tuple;

/// Markers and capabilities.
KEST_INTERFACE(I_Immutable)
};
KEST_INTERFACE(I_RuntimeOnly)
};
KEST_INTERFACE(I_Cloneable)
  [[nodiscard]] Result<Any> clone() const;
  [[nodiscard]] Result<Any> deepClone() const;
};
KEST_INTERFACE(I_HasName)
  [[nodiscard]] Result<Any> name() const;
};
KEST_INTERFACE(I_HasDoc)
  [[nodiscard]] Result<Any> doc() const;
};
KEST_INTERFACE(I_HasCode)
  [[nodiscard]] Result<Any> code() const;
};

#undef KEST_INTERFACE

} // namespace kest
