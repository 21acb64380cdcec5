#pragma once
/// The unit value `None`, the not-implemented marker `Undefined`, and `Untyped`.

#include <kest/union.hpp>

namespace kest {

namespace internal {
/// The shared None object (immortal).
extern KEST_API object_value *const g_value_none;
/// The shared not-implemented marker (immortal); the host's `Undefined`.
extern KEST_API object_value *const g_value_not_implemented;
} // namespace internal

/// The unit value. An empty handle also counts as None.
class KEST_API None : public Any {
  KEST_HANDLE_MEMBERS(None, Any)
  None() noexcept : Any(internal::g_value_none) {}
};

/// The not-implemented marker: a result that says "no answer here".
class KEST_API Undefined : public Any {
  KEST_HANDLE_MEMBERS(Undefined, Any)
  Undefined() noexcept : Any(internal::g_value_not_implemented) {}
};

/// Any value at all: the top type. The empty handle is its absent value.
class KEST_API Untyped : public Any {
  KEST_HANDLE_MEMBERS(Untyped, Any)
  Untyped() noexcept = default;
  Untyped(const Any &a) noexcept : Any(a) {}
  Untyped(Any &&a) noexcept : Any(std::move(a)) {}
};

/// True for an empty handle and for the None value.
[[nodiscard]] inline bool is_none(const Any &a) noexcept {
  return a.kind() == internal::ObjectType::None;
}

/// The not-implemented marker (the same value as `Undefined()`).
[[nodiscard]] inline Any not_implemented() noexcept { return Undefined(); }

} // namespace kest
