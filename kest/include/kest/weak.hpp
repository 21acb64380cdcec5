#pragma once
/// `kest::WeakReference`: a reference that does not keep its target alive.

#include <kest/union.hpp>

namespace kest {

class KEST_API WeakReference : public Any {
  KEST_HANDLE_MEMBERS(WeakReference, Any)
  explicit WeakReference(const Any &target);
  /// The target while it lives; empty afterwards.
  [[nodiscard]] Any lock() const;
};

namespace internal {
struct KEST_API weak_ref_builtin {
  /// The target of a weak reference, or empty when it is gone or `value` is no weak reference.
  static Any resolve(const Any &value);
};
} // namespace internal

} // namespace kest
