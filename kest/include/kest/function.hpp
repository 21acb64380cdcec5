#pragma once
/// Adapters that turn typed C++ functions into host callables.
///
/// Each parameter is converted from the host value with `arg_traits<T>`; a value
/// that does not fit (another class, or an integer outside the range of `T`)
/// gives a `BadArgument` error naming the parameter instead of a call; nothing
/// is ever converted to a default. The result is converted with
/// `result_traits<R>`; `void` gives None (an empty result, which every caller
/// but `call_exact_applicable` turns into the None object).

#include <kest/boolean.hpp>
#include <kest/callable.hpp>
#include <kest/float.hpp>
#include <kest/integer.hpp>

#include <concepts>
#include <cstdint>
#include <limits>
#include <string>
#include <tuple>
#include <type_traits>
#include <utility>

namespace kest {
namespace internal {

/// The error for argument `index` of `callable` (whose parameter names it
/// gives) that is not `expected` (a class name, or a range of integers).
KEST_API Error bad_argument_error(const object_value_callable &callable, std::size_t index, const String &expected,
                                  const Any &value);
/// The text "kest.Integer from MIN to MAX".
KEST_API String integer_range_text(std::intmax_t min, std::uintmax_t max);

template <class T> struct arg_traits;

template <> struct arg_traits<Any> {
  static Type type() { return Type(); }
  static bool fits(const Any &) noexcept { return true; }
  /// The argument itself: a parameter taken by const reference costs no copy.
  static const Any &from(const Any &a) noexcept { return a; }
};

/// Typed handles: checked with their `isInstance`.
template <class T>
  requires(std::is_base_of_v<Any, T> && !std::is_same_v<T, Any> && !is_union<T>::value)
struct arg_traits<T> {
  static Type type() { return T::getType(); }
  static bool fits(const Any &a) noexcept { return T::isInstance(a); }
  static T from(const Any &a) { return T::unsafeFrom(a); }
};

/// Unions: any alternative fits; declared as untyped.
template <class... Ts> struct arg_traits<Union<Ts...>> {
  static Type type() { return Type(); }
  static bool fits(const Any &a) noexcept { return (arg_traits<Ts>::fits(a) || ...); }
  static Union<Ts...> from(const Any &a) { return Union<Ts...>(unchecked, a); }
};

template <std::integral T>
  requires(!std::is_same_v<T, bool>)
struct arg_traits<T> {
  static Type type() { return Integer::getType(); }
  /// An Integer whose value `T` holds exactly: no wrapping, no truncation.
  static bool fits(const Any &a) noexcept {
    if (a.kind() != ObjectType::Integer)
      return false;
    const auto i = integer_parts_of(a);
    return i.is_signed ? std::in_range<T>(static_cast<std::int64_t>(i.bits)) : std::in_range<T>(i.bits);
  }
  static String expected(const Any &a) {
    if (!Integer::isInstance(a))
      return type().name();
    return integer_range_text(static_cast<std::intmax_t>(std::numeric_limits<T>::min()),
                              static_cast<std::uintmax_t>(std::numeric_limits<T>::max()));
  }
  static T from(const Any &a) noexcept {
    const auto i = integer_parts_of(a);
    if constexpr (std::is_signed_v<T>)
      return static_cast<T>(static_cast<std::int64_t>(i.bits));
    else
      return static_cast<T>(i.bits);
  }
};

template <> struct arg_traits<bool> {
  static Type type() { return Boolean::getType(); }
  static bool fits(const Any &a) noexcept { return Boolean::isInstance(a); }
  static bool from(const Any &a) { return Boolean::unsafeFrom(a).value(); }
};

template <> struct arg_traits<double> {
  static Type type() { return Float::getType(); }
  static bool fits(const Any &a) noexcept {
    return a.kind() == ObjectType::Float || a.kind() == ObjectType::Integer;
  }
  static double from(const Any &a) noexcept {
    if (a.kind() == ObjectType::Integer) {
      const auto i = integer_parts_of(a);
      return i.is_signed ? static_cast<double>(static_cast<std::int64_t>(i.bits)) : static_cast<double>(i.bits);
    }
    return float_value_of(a);
  }
};

template <> struct arg_traits<std::string> {
  static Type type() { return String::getType(); }
  static bool fits(const Any &a) noexcept { return String::isInstance(a); }
  static std::string from(const Any &a) { return String::unsafeFrom(a).toUtf8(); }
};

template <class T> struct arg_traits<const T &> : arg_traits<T> {};

template <class R> struct result_traits {
  static Type type() { return arg_traits<R>::type(); }
  static Any to_any(R &&r) {
    if constexpr (std::is_base_of_v<Any, R>)
      return Any(std::move(r));
    else if constexpr (std::is_same_v<R, bool>)
      return Boolean(r);
    else if constexpr (std::is_integral_v<R> && std::is_signed_v<R>)
      return Integer(static_cast<std::int64_t>(r));
    else if constexpr (std::is_integral_v<R>)
      return Integer::fromUnsigned(static_cast<std::uint64_t>(r));
    else if constexpr (std::is_floating_point_v<R>)
      return Float(static_cast<double>(r));
    else if constexpr (std::is_same_v<R, std::string>)
      return String::fromUtf8(r);
    else
      static_assert(sizeof(R) == 0, "no host form for this result type");
  }
};
template <> struct result_traits<void> {
  static Type type() { return None::getType(); }
};

template <class F> struct function_traits : function_traits<decltype(&F::operator())> {};
template <class R, class... A> struct function_traits<R (*)(A...)> {
  using result = R;
  using args = std::tuple<std::decay_t<A>...>;
  static constexpr std::size_t arity = sizeof...(A);
};
template <class R, class... A> struct function_traits<R(A...)> : function_traits<R (*)(A...)> {};
template <class C, class R, class... A>
struct function_traits<R (C::*)(A...) const> : function_traits<R (*)(A...)> {};
template <class C, class R, class... A>
struct function_traits<R (C::*)(A...)> : function_traits<R (*)(A...)> {};

/// What a parameter expects, for the error about `a`: its class name, unless
/// the traits say more (integers name their range).
template <class Traits> String expected_text(const Any &a) {
  if constexpr (requires { Traits::expected(a); })
    return Traits::expected(a);
  else
    return Traits::type().name();
}

template <class Args, std::size_t... I>
std::vector<Parameter> parameters_of(std::index_sequence<I...>) {
  return {Parameter(String::fromUtf8("arg" + std::to_string(I)),
                    &arg_traits<std::tuple_element_t<I, Args>>::type)...};
}

template <class F, class Args, std::size_t... I>
Any invoke_typed(const object_value_callable &self, const F &f, std::span<const Any> args,
                 std::index_sequence<I...>) {
  std::size_t bad = sizeof...(I);
  ((bad == sizeof...(I) && !arg_traits<std::tuple_element_t<I, Args>>::fits(args[I]) ? bad = I : 0),
   ...);
  if (bad != sizeof...(I)) {
    static const std::vector<String (*)(const Any &)> expected{
        &expected_text<arg_traits<std::tuple_element_t<I, Args>>>...};
    return bad_argument_error(self, bad, expected[bad](args[bad]), args[bad]);
  }
  using R = std::invoke_result_t<const F &, std::tuple_element_t<I, Args>...>;
  if constexpr (std::is_void_v<R>) {
    f(arg_traits<std::tuple_element_t<I, Args>>::from(args[I])...);
    return Any();
  } else {
    return result_traits<std::decay_t<R>>::to_any(
        f(arg_traits<std::tuple_element_t<I, Args>>::from(args[I])...));
  }
}

/// A native callable over a typed C++ function: a call converts the arguments
/// and runs the function, with nothing in between (no std::function).
template <class F> class object_value_typed_callable final : public object_value_callable {
  using traits = function_traits<F>;
  using Args = typename traits::args;

public:
  object_value_typed_callable(F f, Signature signature, bool independent)
      : object_value_callable(std::move(signature), independent), m_function(std::move(f)) {}
  Any invoke(std::span<const Any> args) const override {
    return invoke_typed<F, Args>(*this, m_function, args, std::make_index_sequence<traits::arity>());
  }

private:
  F m_function;
};

} // namespace internal

/// A host callable over a typed C++ function. `independent` is false for a
/// method whose first parameter is the instance.
template <class F> I_Callable_Generic make_function(F f, bool independent = true) {
  using D = std::decay_t<F>;
  using traits = internal::function_traits<D>;
  using Args = typename traits::args;
  using R = std::decay_t<typename traits::result>;
  constexpr auto seq = std::make_index_sequence<traits::arity>();
  Signature sig(internal::parameters_of<Args>(seq), &internal::result_traits<R>::type, traits::arity);
  return I_Callable_Generic(internal::unchecked,
                            Any(new internal::object_value_typed_callable<D>(std::move(f), std::move(sig), independent)));
}

/// A method: the first parameter receives the instance.
template <class F> I_Callable_Generic make_method(F f) { return make_function(std::move(f), false); }

} // namespace kest
