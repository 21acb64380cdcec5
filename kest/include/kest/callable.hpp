#pragma once
/// Callables: `I_Callable_Generic`, `I_Callable<T>`, `Signature`, `Parameter`
/// and the native callable objects behind host functions and methods.
///
/// A callable that is not independent takes the instance it is called on as its
/// first parameter; `bindInstance` fixes that parameter. Parameter counts
/// include the instance.

#include <kest/class.hpp>
#include <kest/computed.hpp>
#include <kest/convert.hpp>

#include <functional>
#include <initializer_list>
#include <span>
#include <vector>

namespace kest {

class HashMap;

class KEST_API Parameter : public Any {
  KEST_HANDLE_MEMBERS(Parameter, Any)
  Parameter(const String &name, const Type &type);
  Parameter(const String &name, type_getter type);
  [[nodiscard]] String name() const;
  [[nodiscard]] Type type() const;
};

class KEST_API Signature : public Any {
  KEST_HANDLE_MEMBERS(Signature, Any)
  /// No signature (an empty handle).
  Signature() noexcept = default;
  Signature(std::vector<Parameter> parameters, const Type &resultType,
            std::size_t requiredParameterCount, bool variadic = false);
  /// With a result type resolved on first use.
  Signature(std::vector<Parameter> parameters, type_getter resultType,
            std::size_t requiredParameterCount, bool variadic = false);
  [[nodiscard]] std::vector<Parameter> parameters() const;
  [[nodiscard]] std::int64_t parameterCount() const;
  [[nodiscard]] std::int64_t requiredParameterCount() const;
  [[nodiscard]] bool hasVariadicParameters() const;
  [[nodiscard]] Type resultType() const;
  /// "name: Type, name: Type -> Type".
  [[nodiscard]] String toString() const;
};

class KEST_API I_Callable_Generic : public Any {
  KEST_HANDLE_MEMBERS(I_Callable_Generic, Any)
  I_Callable_Generic() = default;

  /// Calls with positional arguments; defaults fill missing trailing ones.
  Result<Any> callWith(std::span<const Any> args) const;
  Result<Any> callWith(std::initializer_list<Any> args) const {
    return callWith(std::span<const Any>(args.begin(), args.size()));
  }
  /// Calls with the elements of a host sequence or iterable.
  Result<Any> callWithSequence(const Any &args) const;
  /// Calls with positional and named arguments (names are parameter names).
  Result<Any> callWithNamed(std::span<const Any> positional, const HashMap &named) const;
  template <class... A> Result<Any> operator()(A &&...args) const {
    return callWith({host_value(std::forward<A>(args))...});
  }

  /// This callable with its instance parameter fixed to `self`; an independent
  /// callable is returned as it is.
  [[nodiscard]] I_Callable_Generic bindInstance(const Any &self) const;
  [[nodiscard]] Signature signature() const;
  [[nodiscard]] std::int64_t parameterCount() const;
  [[nodiscard]] std::int64_t requiredParameterCount() const;
  [[nodiscard]] bool hasVariadicParameters() const;
  [[nodiscard]] Type resultType() const;
  [[nodiscard]] String name() const;
  [[nodiscard]] String doc() const;
  [[nodiscard]] Any declaringContext() const;
  void setDeclaringContext(const Any &context) const;
  /// True when the callable does not take an instance as its first parameter.
  [[nodiscard]] bool isIndependent() const;
  void setIndependent(bool independent) const;
  [[nodiscard]] std::vector<Any> defaults() const;
};

/// A callable whose result is expected to be a `T`.
template <class T> class I_Callable : public I_Callable_Generic {
public:
  I_Callable(internal::unchecked_t u, Any &&a) noexcept : I_Callable_Generic(u, std::move(a)) {}
  I_Callable(internal::unchecked_t u, const Any &a) noexcept : I_Callable_Generic(u, a) {}
  I_Callable(const I_Callable_Generic &c) noexcept : I_Callable_Generic(c) {}
  static bool isInstance(const Any &a) noexcept { return I_Callable_Generic::isInstance(a); }
  template <class... A> Result<T> call(A &&...args) const {
    return Result<T>(internal::unchecked, callWith({host_value(std::forward<A>(args))...}));
  }
};

namespace internal {

/// Base of native callables (kind Callable). Metadata is guarded by `m_lock`.
class KEST_API object_value_callable : public object_value {
public:
  object_value_callable(Signature signature, bool independent);
  [[nodiscard]] ObjectType kind() const noexcept override { return ObjectType::Callable; }
  [[nodiscard]] object_value_class *class_value() const noexcept override;

  /// Runs the call; `args` already has one value per parameter (defaults filled).
  /// An empty result stands for None (`callWith` gives None itself).
  virtual Any invoke(std::span<const Any> args) const = 0;

  [[nodiscard]] Signature signature() const;
  void set_signature(Signature signature);
  [[nodiscard]] virtual String name() const;
  void set_name(String name);
  [[nodiscard]] virtual String doc() const;
  void set_doc(String doc);
  [[nodiscard]] virtual Any context() const;
  void set_context(Any context);
  /// The signature without the first parameter, made once (for binding).
  [[nodiscard]] Signature bound_signature() const;
  [[nodiscard]] std::vector<Any> defaults() const;
  void set_defaults(std::vector<Any> defaults);
  [[nodiscard]] bool independent() const noexcept { return m_independent.load(); }
  /// Changes whether the callable takes an instance first (a new members epoch).
  void set_independent(bool v) noexcept;
  /// The number of arguments a call takes when nothing is filled in from the
  /// defaults; -1 when the signature is variadic or missing. Read without a lock.
  [[nodiscard]] std::int64_t exact_argument_count() const noexcept {
    return m_exact_count.load(std::memory_order_acquire);
  }
  /// The class that declares this method, when its declaring context is one;
  /// only an address to compare with: the class may be gone (it is kept weakly).
  [[nodiscard]] const object_value_class *declaring_class_address() const noexcept {
    return m_declaring_class.load(std::memory_order_acquire);
  }

private:
  mutable spinlock m_lock;
  Signature m_signature;
  String m_name;
  String m_doc;
  Any m_context;
  std::vector<Any> m_defaults;
  std::atomic<bool> m_independent;
  std::atomic<std::int64_t> m_exact_count{-1};
  std::atomic<const object_value_class *> m_declaring_class{nullptr};
  mutable Signature m_bound_signature; // guarded by m_lock; empty until first needed
};

/// A callable that forwards to a native function.
class KEST_API object_value_native_callable : public object_value_callable {
public:
  using function = std::function<Any(std::span<const Any>)>;
  /// A function that also receives the callable it runs for (to name its
  /// parameters in an error, for example).
  using function_with_callable = std::function<Any(const object_value_callable &, std::span<const Any>)>;
  object_value_native_callable(function fn, Signature signature, bool independent);
  object_value_native_callable(function_with_callable fn, Signature signature, bool independent);
  Any invoke(std::span<const Any> args) const override;

private:
  function m_fn;
  function_with_callable m_fn_with_callable;
};

/// A callable without parameters that returns one stored value.
class KEST_API object_value_callable_constant : public object_value_callable {
public:
  explicit object_value_callable_constant(Any value);
  Any invoke(std::span<const Any> args) const override;
  [[nodiscard]] const Any &value() const noexcept { return m_value; }

private:
  Any m_value;
};

/// Calls `callable` with exactly one argument per parameter (nothing to fill
/// in from the defaults), checking the receiver of a method as `callWith` does.
KEST_API Result<Any> call_exact(const object_value_callable &callable, std::span<const Any> args);

/// True when `callable` may be called with a value of `cls` first: it is
/// independent, declared outside a class, or `cls` derives from its declaring
/// class. The answer holds until the members epoch changes.
KEST_API bool method_applies_to(const object_value_callable &callable, const object_value_class *cls) noexcept;

/// `call_exact` without the receiver check, for a caller that found the method
/// on the receiver's class and checked `method_applies_to` in the current
/// members epoch. A result of None may come back as an empty value, which
/// spares the shared None object's count a write on every call.
KEST_API Result<Any> call_exact_applicable(const object_value_callable &callable, std::span<const Any> args);

/// `base` with other parameters and required count; the result type is kept
/// (unresolved if it was), unless `result` is given.
KEST_API Signature signature_with(const Signature &base, std::vector<Parameter> parameters,
                                  std::size_t required, type_getter result = nullptr);

/// `parameter` under another name; its type stays unresolved if it was.
KEST_API Parameter parameter_renamed(const Parameter &parameter, const String &name);

/// Makes a native callable from a function over raw arguments.
KEST_API I_Callable_Generic make_callable(object_value_native_callable::function fn,
                                          Signature signature, bool independent);
KEST_API I_Callable_Generic make_callable(object_value_native_callable::function_with_callable fn,
                                          Signature signature, bool independent);
/// A callable that returns `value` (independent, no parameters).
KEST_API I_Callable_Generic make_constant_callable(const Any &value);

} // namespace internal
} // namespace kest
