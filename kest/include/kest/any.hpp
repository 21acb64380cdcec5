#pragma once
/// `kest::Any`: the intrusive, reference-counted handle to any host value.

#include <kest/object_value.hpp>

#include <cassert>
#include <compare>
#include <cstddef>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <utility>

namespace kest {

template <class... Ts> class Union;
template <class T> class Computed;
class Error;
class None;
class Type;
class String;
class meta_property_untyped;
class meta_method_untyped;
class meta_field_untyped;
class Class_Generic;
class Any;

/// Thrown by the checked accessors (`as<T>()`, `kest::to<T>()`) when the value
/// is of another class, is an error, or is a number that the C++ type cannot
/// hold. The message names what was wanted and what was found.
class KEST_API bad_access : public std::runtime_error {
public:
  explicit bad_access(const std::string &what) : std::runtime_error(what) {}
};

namespace internal {
/// Evaluates a computed value (waiting for a concurrent first evaluation).
KEST_API Any evaluate_computed(const Any &computed);
/// Throws `bad_access` for a value that is not an instance of the class.
[[noreturn]] KEST_API void throw_bad_access(const Class_Generic &(*expected)(), const Any &found);
} // namespace internal

/// The result of a fallible operation: a value, a lazily computed value or an error.
template <class T> using Result = Union<T, Computed<T>, Error>;

/// A handle to a host value, or empty. Copying shares the value; the count is atomic,
/// so handles may be passed between threads.
class KEST_API Any {
public:
  Any() noexcept = default;
  Any(std::nullptr_t) noexcept {}
  /// Shares `p` (adds a reference).
  explicit Any(internal::object_value *p) noexcept : m_ptr(p) {
    if (p)
      p->add_ref();
  }
  Any(const Any &o) noexcept : Any(o.m_ptr) {}
  Any(Any &&o) noexcept : m_ptr(std::exchange(o.m_ptr, nullptr)) {}
  Any &operator=(const Any &o) noexcept {
    Any(o).swap(*this);
    return *this;
  }
  Any &operator=(Any &&o) noexcept {
    Any(std::move(o)).swap(*this);
    return *this;
  }
  ~Any() {
    if (m_ptr)
      m_ptr->release();
  }

  /// Takes over one reference that the caller owns.
  static Any steal(internal::object_value *p) noexcept {
    Any a;
    a.m_ptr = p;
    return a;
  }
  /// Takes the first reference of an object just made (`new`), that nobody else has seen.
  static Any adopt(internal::object_value *fresh) noexcept {
    fresh->add_first_ref();
    return steal(fresh);
  }
  /// Gives up the reference without releasing it.
  internal::object_value *detach() noexcept { return std::exchange(m_ptr, nullptr); }

  void swap(Any &o) noexcept { std::swap(m_ptr, o.m_ptr); }
  void reset() noexcept { Any().swap(*this); }

  [[nodiscard]] internal::object_value *get() const noexcept { return m_ptr; }
  [[nodiscard]] bool empty() const noexcept { return m_ptr == nullptr; }
  explicit operator bool() const noexcept { return m_ptr != nullptr; }
  /// The kind of the value; an empty handle reports None.
  [[nodiscard]] internal::ObjectType kind() const noexcept {
    return m_ptr ? m_ptr->known_kind() : internal::ObjectType::None;
  }
  /// True when both handles refer to the same object.
  [[nodiscard]] bool isSame(const Any &o) const noexcept { return m_ptr == o.m_ptr; }

  /// The type of the value (its class).
  [[nodiscard]] Type getType() const;

  /// True when the value is an instance of `T`. It asks about the value as it
  /// stands: a value computed on first use is a `Computed` until it is read.
  template <class T> [[nodiscard]] bool is() const noexcept {
    if constexpr (std::is_same_v<T, Any>)
      return true;
    else
      return T::isInstance(*this);
  }
  /// The value as `T`, checked: a computed value is computed first, and a
  /// value of another class (an error included) throws `bad_access`; it is
  /// never read as a `T`. `T::cast` returns None instead of throwing.
  template <class T> [[nodiscard]] T as() const & {
    if constexpr (std::is_same_v<T, Any>) {
      return kind() == internal::ObjectType::Computed ? internal::evaluate_computed(*this) : *this;
    } else {
      if (T::isInstance(*this))
        return T(internal::unchecked, *this);
      if (kind() == internal::ObjectType::Computed) {
        Any value = internal::evaluate_computed(*this);
        if (T::isInstance(value))
          return T(internal::unchecked, std::move(value));
        internal::throw_bad_access(&T::getClass, value);
      }
      internal::throw_bad_access(&T::getClass, *this);
    }
  }
  /// The same for a value not needed afterwards (`x.fieldValue(name).as<T>()`):
  /// the handle is moved into the result, not shared and released.
  template <class T> [[nodiscard]] T as() && {
    if constexpr (std::is_same_v<T, Any>) {
      if (kind() == internal::ObjectType::Computed)
        return internal::evaluate_computed(*this);
      return Any(internal::unchecked, std::move(*this));
    } else {
      if (T::isInstance(*this))
        return T(internal::unchecked, std::move(*this));
      return std::as_const(*this).template as<T>();
    }
  }

  /// Reads a property through its getter (or the class's fallback hook).
  [[nodiscard]] Result<Any> propertyValue(const meta_property_untyped &name) const;
  /// Writes a property through its setter (or the class's fallback hook).
  Result<None> setPropertyValue(const meta_property_untyped &name, const Any &value) const;
  /// The named method bound to this value, or None.
  [[nodiscard]] Any boundMethod(const meta_method_untyped &name) const;
  /// Reads an instance field (guarded by the instance's lock).
  [[nodiscard]] Result<Any> fieldValue(const meta_field_untyped &name) const;
  /// Writes an instance field (guarded by the instance's lock).
  Result<None> setFieldValue(const meta_field_untyped &name, const Any &value) const;
  /// The same for a value not needed afterwards: it is moved into the field.
  Result<None> setFieldValue(const meta_field_untyped &name, Any &&value) const;

  /// Value equality through the host comparison.
  friend KEST_API bool operator==(const Any &a, const Any &b);
  /// Three-way host comparison; unordered values give `unordered`.
  friend KEST_API std::partial_ordering operator<=>(const Any &a, const Any &b);

protected:
  Any(internal::unchecked_t, Any &&a) noexcept : m_ptr(std::exchange(a.m_ptr, nullptr)) {}
  Any(internal::unchecked_t, const Any &a) noexcept : Any(a) {}

  internal::object_value *m_ptr = nullptr;
};

namespace internal {
/// Handles that may be made over an empty value, which their members read as a
/// documented neutral value (an empty string, no class). Every other handle
/// made with `unsafeFrom` must hold an instance of its class.
template <class Handle> inline constexpr bool empty_handle_allowed = false;
} // namespace internal

/// Declares the static members that every typed handle has.
#define KEST_HANDLE_MEMBERS(Name, Base)                                                         \
public:                                                                                         \
  Name(::kest::internal::unchecked_t u, ::kest::Any &&a) noexcept : Base(u, std::move(a)) {}    \
  Name(::kest::internal::unchecked_t u, const ::kest::Any &a) noexcept : Base(u, a) {}          \
  /** True when the value is of this class (or derives from it). */                            \
  static bool isInstance(const ::kest::Any &a) noexcept;                                        \
  /** The value as this handle, or None when it is not one. */                                 \
  static ::kest::Union<Name, ::kest::None> cast(const ::kest::Any &a);                          \
  /** The value as this handle, or an error naming both classes. */                             \
  static ::kest::Result<Name> checkedCast(const ::kest::Any &a);                                \
  /** The value as this handle without a check; the caller must know its class.   */          \
  /** Debug builds assert it (an empty value only where the handle allows one).    */          \
  static Name unsafeFrom(const ::kest::Any &a) noexcept {                                       \
    assert((isInstance(a) || (a.empty() && ::kest::internal::empty_handle_allowed<Name>)) &&    \
           "unsafeFrom: the value is not of this class");                                       \
    return Name(::kest::internal::unchecked, a);                                                \
  }                                                                                             \
  /** The same for a value not needed afterwards: it is moved, not copied. */                  \
  static Name unsafeFrom(::kest::Any &&a) noexcept {                                            \
    assert((isInstance(a) || (a.empty() && ::kest::internal::empty_handle_allowed<Name>)) &&    \
           "unsafeFrom: the value is not of this class");                                       \
    return Name(::kest::internal::unchecked, std::move(a));                                     \
  }                                                                                             \
  static const ::kest::Class_Generic &getClass();                                               \
  static ::kest::Type getType();

class Class_Generic;

} // namespace kest

template <> struct std::hash<kest::Any> {
  std::size_t operator()(const kest::Any &a) const;
};
