#pragma once
/// Reflection over host values: classes, members, display text, comparison,
/// hashing, identity and coercion.
///
/// A class may override the object hooks with meta-methods ("$__property__",
/// "$__method__", "$__display__", "$__compare__", "$__hash__", ...); the functions
/// here call them when present and fall back to the library's own behaviour.

#include <kest/instance.hpp>
#include <kest/property.hpp>

#include <cstdint>
#include <vector>

namespace kest {

/// The result of a comparison: less (-1), equal (0), greater (1) or unordered (2).
/// Its host form is an `Integer` holding that number.
class KEST_API Ordering : public Any {
  KEST_HANDLE_MEMBERS(Ordering, Any)
  static Ordering less();
  static Ordering equal();
  static Ordering greater();
  static Ordering unordered();
  /// less for a negative number, greater for a positive one, equal for zero.
  static Ordering fromSign(std::int64_t sign);
  [[nodiscard]] int value() const noexcept;
  [[nodiscard]] bool isUnordered() const noexcept { return value() == 2; }
};

/// The class of a value, after following computed, external and weak values.
KEST_API Class_Generic class_of(const Any &value);
/// The class of the value itself.
KEST_API Class_Generic raw_class_of(const Any &value);
/// "module.Class" for a class with a declaring module, else its name.
KEST_API String qualname(const Class_Generic &cls);
/// "module.name" for a callable with a declaring module, else its name.
KEST_API String qualname(const I_Callable_Generic &callable);
/// The type named by a qualified name ("kest.String", "kest.cpython.CPythonLanguage").
KEST_API Union<Type, None> find_type(const String &qualifiedName);

/// The property of that name: per-object, then declared (through "$__property__" if overridden).
KEST_API Union<Property, None> property_of(const Any &value, const meta_property_untyped &name);
/// The per-object or declared property, without object hooks.
KEST_API Union<Property, None> raw_property_of(const Any &value, const meta_property_untyped &name);
/// The method of that name (through "$__method__" if overridden, then the class's lookup hook).
KEST_API Union<I_Callable_Generic, None> method_of(const Any &value, const meta_method_untyped &name);
/// The per-object or declared method, without object hooks.
KEST_API Union<I_Callable_Generic, None> raw_method_of(const Any &value, const meta_method_untyped &name);
/// The field of the value's class.
KEST_API Union<Field, None> find_field(const Any &value, const meta_field_untyped &name);
/// Properties inserted on this object only (through "$__ownProperties__" if overridden).
KEST_API std::vector<Property> own_properties_of(const Any &value);
/// Methods inserted on this object only (through "$__ownMethods__" if overridden).
KEST_API std::vector<I_Callable_Generic> own_methods_of(const Any &value);
/// Inserts a value property on one object (through "$__insertProperty__" if overridden);
/// an error for values that are no instances.
KEST_API Result<None> insert_property_value(const Any &object, const meta_property_untyped &name,
                                            const Any &value);
/// Inserts a method on one object (through "$__insertMethod__" if overridden).
KEST_API Result<None> insert_method(const Any &object, const meta_method_untyped &name,
                                    const I_Callable_Generic &method);
/// Stores a property on one object on the host side only, whatever its class's hooks.
KEST_API Result<None> raw_insert_property(const Any &object, const meta_property_untyped &name,
                                          const Property &property);
/// Stores a method on one object on the host side only, whatever its class's hooks.
KEST_API Result<None> raw_insert_method(const Any &object, const meta_method_untyped &name,
                                        const I_Callable_Generic &method);

/// Human-readable text of a value (through "$__display__" if overridden).
KEST_API String display(const Any &value);
/// Three-way comparison (through "$__compare__" if overridden); errors count as unordered.
KEST_API Ordering compare_objects(const Any &a, const Any &b);
/// Hash consistent with equal comparison (numbers of any kind hash by value).
KEST_API std::int64_t hash_of(const Any &value);
/// Identity of the object (its address); 0 for the empty handle.
KEST_API std::int64_t object_id(const Any &value) noexcept;
/// `value` converted to `type`, or an error.
KEST_API Result<Any> coerce(const Any &value, const Type &type);

namespace internal {
/// True when what a name means on the values of `cls` is decided by the members
/// the class declares (and those inserted into an object): the class overrides
/// neither the property nor the method lookup hook. Callers that remember what
/// names mean for such a class must forget it when `class_members_epoch` changes.
KEST_API bool members_follow_class(const Class_Generic &cls);
/// True when `value` is an instance that has had a property or method inserted into it.
inline bool has_inserted_members(const Any &value) noexcept {
  auto *inst = instance_of(value);
  return inst && inst->has_inserted_members();
}
/// Three-way comparison that keeps the error of a failing "$__compare__".
KEST_API Result<Ordering> compare_objects_value(const Any &a, const Any &b);
/// `value` as a `T` after coercion, or the error.
KEST_API Result<Any> cast_object(const Any &value, const Type &type);
namespace helpers {
/// The error returned when a named method does not exist.
KEST_API Error error_method_not_found(const String &name, const Any &object);
/// The error returned when a named property does not exist.
KEST_API Error error_property_not_found(const String &name, const Any &object);
} // namespace helpers
} // namespace internal

} // namespace kest
