#pragma once
/// `kest::Property` (getter, optional setter, documentation; or a stored value)
/// and `kest::Field` (a named, typed slot of an instance).

#include <kest/callable.hpp>

namespace kest {

class KEST_API Property : public Any {
  KEST_HANDLE_MEMBERS(Property, Any)
  /// A read-only accessor property.
  Property(const String &name, const I_Callable_Generic &getter);
  /// A read-write accessor property.
  Property(const String &name, const I_Callable_Generic &getter, const I_Callable_Generic &setter);
  /// A property whose getter is the stored `value`.
  static Property fromValue(const String &name, const Any &value, const String &doc = {});

  [[nodiscard]] String name() const;
  [[nodiscard]] String doc() const;
  void setDoc(const String &doc) const;
  /// The getter; for a value property, a constant callable returning the value.
  [[nodiscard]] I_Callable_Generic getter() const;
  [[nodiscard]] Union<I_Callable_Generic, None> setter() const;
  [[nodiscard]] bool isValueProperty() const;
  /// The stored value of a value property (empty otherwise).
  [[nodiscard]] Any storedValue() const;
  /// True for members declared with a "$" name.
  [[nodiscard]] bool hidden() const;
  void setHidden(bool hidden) const;

  /// Reads the property of `self` (an independent getter is called without it).
  [[nodiscard]] Result<Any> get(const Any &self) const;
  /// Writes the property of `self`; an error when there is no setter.
  Result<None> set(const Any &self, const Any &value) const;
};

namespace field_flags {
inline constexpr std::uint32_t read_only = 0x1;
inline constexpr std::uint32_t hidden = 0x2;
} // namespace field_flags

class KEST_API Field : public Any {
  KEST_HANDLE_MEMBERS(Field, Any)
  Field(const String &name, std::uint32_t flags, type_getter type);
  Field(const String &name, std::uint32_t flags, const Type &type);

  [[nodiscard]] String name() const;
  [[nodiscard]] std::uint32_t flags() const;
  [[nodiscard]] Type type() const;
  /// Slot index within instances (set when the field is added to a class); the
  /// largest `size_t` (no slot) for a handle made over another class.
  [[nodiscard]] std::size_t index() const;
  void setIndex(std::size_t index) const;
};

namespace internal {
/// `Property::get` of the property object `property` (borrowed), without making a handle.
KEST_API Result<Any> property_get(const object_value *property, const Any &self);
/// `Any::fieldValue` of the field object `field` (borrowed), which a lookup of
/// `name` in the class of `self` found: the value without looking it up again.
/// `name` only names it in an error.
KEST_API Result<Any> field_get(const object_value *field, const Any &self, const meta_field_untyped &name);
} // namespace internal

} // namespace kest
