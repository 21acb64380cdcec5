#pragma once
/// `kest::External`: a value held elsewhere and read through `load` when needed.

#include <kest/union.hpp>

#include <functional>

namespace kest {

class KEST_API External : public Any {
  KEST_HANDLE_MEMBERS(External, Any)
  /// An external value whose content `loader` returns on every load.
  static External fromLoader(std::function<Any()> loader);
  /// An external cell holding `value` until it is stored again.
  static External fromValue(const Any &value);
  /// The current content.
  [[nodiscard]] Any load() const;
  /// Replaces the content of a cell (a loader-based value ignores it).
  void store(const Any &value) const;
};

namespace internal {
struct KEST_API object_value_external {
  /// The current content of an external value (empty for other values).
  static Any load(const Any &value);
};
} // namespace internal

} // namespace kest
