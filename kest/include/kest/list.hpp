#pragma once
/// `kest::List`: a mutable sequence whose elements have one declared type.

#include <kest/interfaces.hpp>

#include <initializer_list>
#include <vector>

namespace kest {

class KEST_API List : public Any {
  KEST_HANDLE_MEMBERS(List, Any)
  /// An empty list of untyped elements.
  List();
  /// An empty list whose elements must match `elementType`.
  explicit List(const Type &elementType);
  List(const Type &elementType, std::vector<Any> items);
  List(std::initializer_list<Any> items);
  /// The class `List<elementType>` (made once per element type).
  static Class_Generic genericInstance(const Type &elementType);

  [[nodiscard]] Type elementType() const;
  [[nodiscard]] std::int64_t length() const noexcept;
  /// Element `index` (negative counts from the end), or an error when out of range.
  [[nodiscard]] Result<Any> at(std::int64_t index) const;
  /// Appends after checking the element type.
  Result<None> append(const Any &value) const;
  Result<None> insert(std::int64_t index, const Any &value) const;
  Result<None> set(std::int64_t index, const Any &value) const;
  Result<Any> removeAt(std::int64_t index) const;
  void clear() const;
  /// A snapshot of the elements (taken under the list's lock).
  [[nodiscard]] std::vector<Any> copyItems() const;
};
using List_Generic = List;

} // namespace kest
