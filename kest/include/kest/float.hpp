#pragma once
/// `kest::Float`: a 64-bit floating-point number.

#include <kest/union.hpp>

#include <cstddef>

namespace kest {

class KEST_API Float : public Any {
  KEST_HANDLE_MEMBERS(Float, Any)
  Float(double v);
  [[nodiscard]] double value() const noexcept;
};

namespace internal {
/// The object behind a Float. Its layout is public so that reading a value is
/// inline; its blocks come from the library's per-thread pool.
class KEST_API object_value_float final : public object_value {
public:
  explicit object_value_float(double v) noexcept : object_value(ObjectType::Float), value(v) {}
  [[nodiscard]] ObjectType kind() const noexcept override { return ObjectType::Float; }
  [[nodiscard]] object_value_class *class_value() const noexcept override;
  static void *operator new(std::size_t size);
  static void operator delete(void *p, std::size_t size) noexcept;

  const double value;
};

/// The value of a Float, read without making a handle; zero for any other value.
inline double float_value_of(const Any &value) noexcept {
  return value.kind() == ObjectType::Float ? static_cast<const object_value_float *>(value.get())->value : 0.0;
}
} // namespace internal

// The handle's reads are inline, as an Integer's are.
inline bool Float::isInstance(const Any &a) noexcept { return a.kind() == internal::ObjectType::Float; }
inline double Float::value() const noexcept { return internal::float_value_of(*this); }

} // namespace kest
