#pragma once
/// `kest::Boolean`: the two shared truth values.

#include <kest/union.hpp>

namespace kest {

namespace internal {
/// The shared true and false objects (immortal).
extern KEST_API object_value *const g_value_boolean_true;
extern KEST_API object_value *const g_value_boolean_false;
} // namespace internal

class KEST_API Boolean : public Any {
  KEST_HANDLE_MEMBERS(Boolean, Any)
  Boolean(bool v) noexcept
      : Any(v ? internal::g_value_boolean_true : internal::g_value_boolean_false) {}
  /// The truth value of any host value: None, false, zero, empty text and
  /// empty containers are false; everything else is true.
  static Boolean from(const Any &value);
  [[nodiscard]] bool value() const noexcept { return m_ptr == internal::g_value_boolean_true; }
};

} // namespace kest
