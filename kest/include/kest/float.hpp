#pragma once
/// `kest::Float`: a 64-bit floating-point number.

#include <kest/union.hpp>

namespace kest {

class KEST_API Float : public Any {
  KEST_HANDLE_MEMBERS(Float, Any)
  Float(double v);
  [[nodiscard]] double value() const noexcept;
};

} // namespace kest
