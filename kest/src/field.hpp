#pragma once
// The object behind a Field handle, for the library's own fast paths.

#include "builtin.hpp"

#include <kest/once.hpp>
#include <kest/property.hpp>

#include <atomic>
#include <typeinfo>

namespace kest::internal {

class object_value_field final : public native_instance<&Field::getClass> {
public:
  object_value_field(String n, std::uint32_t f, Type t, type_getter g)
      : name(std::move(n)), flags(f), type(std::move(t)), getter(g) {}

  /// The declared type, resolved on first use.
  const Type &resolved_type() const {
    if (getter)
      resolved.call([this] { type = getter(); });
    return type;
  }

  /// True when the field may hold `value`: its class is exactly the declared
  /// one (the common case, decided without the type's rules) or the type accepts it.
  bool accepts(const Any &value) const {
    const auto &t = resolved_type();
    if (value.get() && value.get()->class_value() == t.get()) // a type is its class (or a union or top class)
      return true;
    return t.matches(value);
  }

  const String name;
  const std::uint32_t flags;
  mutable Type type;
  const type_getter getter;
  mutable fast_once resolved;
  std::atomic<std::size_t> index{0};
};

/// The field object behind `p`, or null when `p` is no Field. The Field class
/// is final and only this library makes its instances, all of this final type:
/// the object's dynamic type decides, without a call for its class.
inline const object_value_field *field_object(const object_value *p) noexcept {
  return p && typeid(*p) == typeid(object_value_field) ? static_cast<const object_value_field *>(p) : nullptr;
}
inline object_value_field *field_object(const Any &a) noexcept {
  return const_cast<object_value_field *>(field_object(a.get()));
}

} // namespace kest::internal
