#pragma once
/// `kest::Union<Ts...>`: a handle that holds a value of one of the listed handle types.
///
/// A Union is an `Any` whose alternatives are known at compile time. Fallible
/// operations return `Result<T>` = `Union<T, Computed<T>, Error>`.

#include <kest/any.hpp>

#include <optional>
#include <type_traits>

namespace kest {

namespace internal {
/// True when the value is a host error (an instance of `Error` or a subclass).
KEST_API bool is_error_value(const Any &a) noexcept;

template <class T, class... Ts>
inline constexpr bool is_one_of_v = (std::is_same_v<T, Ts> || ...);

template <class U, class... Ts>
inline constexpr bool convertible_to_any_v = (std::is_convertible_v<U, Ts> || ...);

template <class T> struct is_union : std::false_type {};
template <class... Ts> struct is_union<Union<Ts...>> : std::true_type {};
} // namespace internal

template <class... Ts> class Union : public Any {
public:
  Union() noexcept = default;

  /// Any handle convertible to one of the alternatives.
  template <class T>
    requires(std::is_base_of_v<Any, std::decay_t<T>> && !internal::is_union<std::decay_t<T>>::value &&
             (std::is_convertible_v<std::decay_t<T>, Ts> || ...))
  Union(T &&v) noexcept : Any(internal::unchecked, std::forward<T>(v)) {}

  /// A union whose alternatives are all alternatives of this one.
  template <class... Us>
    requires((internal::convertible_to_any_v<Us, Ts...> && ...))
  Union(Union<Us...> v) noexcept : Any(internal::unchecked, std::move(v)) {}

  Union(internal::unchecked_t u, Any a) noexcept : Any(u, std::move(a)) {}

  /// The value as `T` when it is one (a computed value is computed first).
  template <class T> [[nodiscard]] std::optional<T> get() const {
    if constexpr (std::is_same_v<T, Any>) {
      return this->template as<Any>();
    } else {
      if (this->template is<T>())
        return T(internal::unchecked, static_cast<const Any &>(*this));
      if (kind() != internal::ObjectType::Computed)
        return std::nullopt;
      Any value = internal::evaluate_computed(*this);
      if (T::isInstance(value))
        return T(internal::unchecked, std::move(value));
      return std::nullopt;
    }
  }
  /// The value as `T` without a check, for code that has just checked it.
  template <class T> [[nodiscard]] T unsafeAs() const noexcept {
    if constexpr (std::is_same_v<T, Any>)
      return static_cast<const Any &>(*this);
    else
      return T(internal::unchecked, static_cast<const Any &>(*this));
  }
  /// True when the value is a host error.
  [[nodiscard]] bool isError() const noexcept { return internal::is_error_value(*this); }
};

} // namespace kest
