#pragma once
/// `kest::Type`: what a value may be. A type is a class, the top type `Untyped`,
/// or a union of types.

#include <kest/union.hpp>

#include <vector>

namespace kest {

class KEST_API Type : public Any {
  KEST_HANDLE_MEMBERS(Type, Any)
  /// The top type (`Untyped`), which every value matches.
  Type();
  Type(const Class_Generic &cls);

  /// The class of the type; a union gives `Untyped`'s class.
  [[nodiscard]] Class_Generic toClass() const;
  /// True when `value` is of this type (the empty value matches Untyped and None).
  [[nodiscard]] bool matches(const Any &value) const;
  /// True when every value of this type is a value of `other`.
  [[nodiscard]] bool conformsTo(const Type &other) const;
  /// The qualified name of the type.
  [[nodiscard]] String name() const;
  [[nodiscard]] bool isUntyped() const;
};

/// Lazily resolved type, so that declarations need not create classes in order.
using type_getter = Type (*)();

namespace internal {
/// A type that any of `alternatives` satisfies. Does not simplify its input.
KEST_API Type type_union_of_unsafe(const std::vector<Type> &alternatives);
} // namespace internal

/// The type of the value behind a computed, external or weak value.
KEST_API Type unwrapped_type(const Type &type);

} // namespace kest
