#pragma once
/// `kest::Computed<T>`: a value computed lazily, at most once, on first request.

#include <kest/error.hpp>

#include <functional>

namespace kest {

namespace internal {
/// Makes a computed value from a producer; the producer runs at most once.
KEST_API Any create_computed(std::function<Any()> producer);
/// Evaluates a computed value (waiting for a concurrent first evaluation).
KEST_API Any evaluate_computed(const Any &computed);
} // namespace internal

/// Untyped computed value.
class KEST_API Computed_Generic : public Any {
  KEST_HANDLE_MEMBERS(Computed_Generic, Any)
};

template <class T> class Computed : public Computed_Generic {
public:
  Computed(internal::unchecked_t u, Any &&a) noexcept : Computed_Generic(u, std::move(a)) {}
  Computed(internal::unchecked_t u, const Any &a) noexcept : Computed_Generic(u, a) {}
  /// A value that `producer` computes on first request. Any C++ exception the
  /// producer throws becomes the computed error.
  static Computed create(std::function<Result<T>()> producer) {
    return Computed(internal::unchecked,
                    internal::create_computed([p = std::move(producer)]() -> Any { return p(); }));
  }
  static bool isInstance(const Any &a) noexcept { return Computed_Generic::isInstance(a); }
  /// The computed value or error (computed on first call).
  [[nodiscard]] Result<T> value() const {
    return Result<T>(internal::unchecked, internal::evaluate_computed(*this));
  }
};

namespace internal {
/// True when the result holds an error (a computed value is not evaluated).
KEST_API bool is_error_result(const Any &result) noexcept;
/// Evaluates computed values (repeatedly, if one yields another) and returns the value.
inline Any result_unwrap_lazy(Any &&result);
inline Any result_unwrap_lazy(const Any &result) { return result_unwrap_lazy(Any(result)); }
/// The same for a result that is not needed afterwards: no copy.
inline Any result_unwrap_lazy(Any &&result) {
  Any value = std::move(result);
  while (value.kind() == ObjectType::Computed) [[unlikely]]
    value = evaluate_computed(value);
  return value;
}
/// The error for a value that is not of the class the caller needed.
KEST_API Error result_error_cast_source(const String &expected, const Any &source);
/// The error used when a failure carries no error of its own.
KEST_API Error result_error_no_error();
/// Follows computed values, external values and weak references to the value.
KEST_API Any unwrap(const Any &value);
} // namespace internal

} // namespace kest
