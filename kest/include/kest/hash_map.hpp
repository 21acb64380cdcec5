#pragma once
/// `kest::HashMap`: a mutable map with typed keys and values that keeps insertion order.
///
/// Keys are hashed with `hash_of` and compared with the host comparison.

#include <kest/interfaces.hpp>

#include <utility>
#include <vector>

namespace kest {

class KEST_API HashMap : public Any {
  KEST_HANDLE_MEMBERS(HashMap, Any)
  /// An empty map of untyped keys and values.
  HashMap();
  HashMap(const Type &keyType, const Type &valueType);
  static Class_Generic genericInstance(const Type &keyType, const Type &valueType);

  [[nodiscard]] Type keyType() const;
  [[nodiscard]] Type valueType() const;
  [[nodiscard]] std::int64_t length() const noexcept;
  /// The value under `key`, or empty when absent.
  [[nodiscard]] Any find(const Any &key) const;
  [[nodiscard]] bool contains(const Any &key) const;
  /// Stores after checking the key and value types.
  Result<None> setChecked(const Any &key, const Any &value) const;
  /// Removes `key`; true when it was there.
  bool remove(const Any &key) const;
  void clear() const;
  /// A snapshot of the pairs in insertion order.
  [[nodiscard]] std::vector<std::pair<Any, Any>> copyPairs() const;
  [[nodiscard]] std::vector<Any> copyKeys() const;
};
using HashMap_Generic = HashMap;

} // namespace kest
