#pragma once
/// `kest::HashSet`: a mutable set of typed values that keeps insertion order.

#include <kest/interfaces.hpp>

#include <vector>

namespace kest {

class KEST_API HashSet : public Any {
  KEST_HANDLE_MEMBERS(HashSet, Any)
  HashSet();
  explicit HashSet(const Type &elementType);
  static Class_Generic genericInstance(const Type &elementType);

  [[nodiscard]] Type elementType() const;
  [[nodiscard]] std::int64_t length() const noexcept;
  [[nodiscard]] bool contains(const Any &value) const;
  /// Adds after checking the type; true when the value was new.
  Result<Any> insert(const Any &value) const;
  bool remove(const Any &value) const;
  void clear() const;
  [[nodiscard]] std::vector<Any> copyItems() const;
};
using HashSet_Generic = HashSet;

} // namespace kest
