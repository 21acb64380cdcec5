#pragma once
/// `kest::Float`: a 64-bit floating-point number.

#include <kest/union.hpp>

namespace kest {

class KEST_API Float : public Any {
  KEST_HANDLE_MEMBERS(Float, Any)
  Float(double v);
  [[nodiscard]] double value() const noexcept;
};

namespace internal {
/// The value of a Float, read without making a handle; zero for any other value.
KEST_API double float_value_of(const Any &value) noexcept;
} // namespace internal

} // namespace kest
