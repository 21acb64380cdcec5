#pragma once
/// `kest::Tuple`: a fixed, immutable sequence of values.

#include <kest/interfaces.hpp>

#include <initializer_list>
#include <span>
#include <vector>

namespace kest {

class KEST_API Tuple : public Any {
  KEST_HANDLE_MEMBERS(Tuple, Any)
  Tuple() : Tuple(std::vector<Any>{}) {}
  explicit Tuple(std::vector<Any> items);
  Tuple(std::initializer_list<Any> items) : Tuple(std::vector<Any>(items)) {}
  [[nodiscard]] std::int64_t length() const noexcept;
  /// Element `index`, or empty when out of range.
  [[nodiscard]] Any at(std::int64_t index) const;
  [[nodiscard]] std::span<const Any> items() const noexcept;
};
using Tuple_Generic = Tuple;

} // namespace kest
