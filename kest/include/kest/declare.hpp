#pragma once
/// Declaring host modules, classes and functions in typed C++.
///
///     using namespace kest::literals;
///     kest::module_ shop("kest.shop", "Orders and prices.");
///     shop.def("vat", [](double net, double rate) { return net * rate; }, "net"_a, "rate"_a = 0.19,
///              "The tax on a net price.");
///     static const kest::Class_Generic order =
///         kest::class_(shop, "Order", "An order.")
///             .field<std::string>("customer")
///             .field<double>("price")
///             .init([](const kest::Any &self, std::string customer, double price) {
///                     kest::set_field(self, "customer"_field, customer);
///                     kest::set_field(self, "price"_field, price); },
///                   "customer"_a, "price"_a = 0.0)
///             .def("total", [](const kest::Any &self, std::int64_t n) {
///                     return n * kest::field<double>(self, "price"_field); }, "n"_a = 1)
///             .declare();
///
/// Functions are plain C++ callables: each parameter is checked and converted
/// from the host value (a wrong class is a `BadArgument` error naming the
/// parameter), and the result converted back. A method's, property getter's
/// and constructor's first parameter is the instance. Extras after the
/// function, in any order: parameter names (`"x"_a`), defaults of the last
/// parameters (`"y"_a = 0`) and one documentation text. Operators and object
/// hooks are methods with the host's meta names: "$__add__", "$__sub__",
/// "$__mul__", "$__div__", "$__not__", "$__compare__", "$__hash__",
/// "$__display__".
///
/// Only modules named "kest" or "kest.…" can be imported from Python.

#include <kest/builders.hpp>
#include <kest/convert.hpp>
#include <kest/function.hpp>
#include <kest/init.hpp>
#include <kest/name.hpp>

#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

namespace kest {

/// A parameter name with its default, made by `"name"_a = value`.
struct arg_v {
  const char *name;
  Any value;
};

/// A parameter name, made by `"name"_a`.
struct arg {
  const char *name;
  /// The same parameter with a default value (converted as call arguments are).
  template <class T> arg_v operator=(T &&value) const { return {name, host_value(std::forward<T>(value))}; }
};

namespace literals {
constexpr arg operator""_a(const char *name, std::size_t) { return arg{name}; }
} // namespace literals

/// Runs `handler` when the host runs its start-up handlers (level 1 is where
/// modules are declared); call it from a static constructor or before start.
KEST_API void on_startup(std::function<void()> handler, int level = 1);

namespace internal {
/// The names, defaults and documentation that follow a declared function.
struct member_extras {
  std::string params; // "a, b"
  std::vector<Any> defaults;
  std::string doc;
  bool default_before_plain = false; // a parameter without default after one with

  void add(const char *text) { doc = text; }
  void add(const arg &a) {
    name(a.name);
    default_before_plain = default_before_plain || !defaults.empty();
  }
  void add(const arg_v &a) {
    name(a.name);
    defaults.push_back(a.value);
  }
  void name(const char *n) {
    params += params.empty() ? n : std::string(", ") + n;
  }
};

template <class T> inline constexpr bool is_arg_v = std::is_same_v<std::decay_t<T>, arg> || std::is_same_v<std::decay_t<T>, arg_v>;

template <class... Extra> member_extras extras_of(const Extra &...extra) {
  member_extras e;
  (e.add(extra), ...);
  return e;
}

/// Checks at compile time that the names, when given, name every parameter
/// (after the instance for a method).
template <class F, std::size_t Skip, class... Extra> constexpr void check_names() {
  constexpr std::size_t names = (std::size_t{0} + ... + (is_arg_v<Extra> ? 1 : 0));
  constexpr std::size_t arity = function_traits<std::decay_t<F>>::arity;
  static_assert(arity >= Skip, "a method, property getter and constructor take the instance first");
  static_assert(names == 0 || names == arity - Skip, "give a name to every parameter or to none");
}

/// The host type of a field declared with the C++ or handle type `T`.
template <class T> Type field_type() {
  if constexpr (std::is_same_v<T, Any>)
    return Type();
  else
    return arg_traits<T>::type();
}

/// The class a declaration made, for its constructor (which runs later).
struct declared_class_slot {
  Class_Generic cls;
};

/// The constructor function of a declared class: allocates the instance, hands
/// it to `init` with the arguments, and returns it (or init's error).
template <class F, class Self, class... A>
I_Callable_Generic make_constructor(F init, std::shared_ptr<declared_class_slot> slot, std::tuple<Self, A...> *) {
  return make_function([init = std::move(init), slot = std::move(slot)](A... args) -> Any {
    auto made = result_unwrap_lazy(slot->cls.allocateInstance());
    if (is_error_value(made))
      return made;
    using R = decltype(init(made, std::move(args)...));
    if constexpr (std::is_void_v<R>) {
      init(made, std::move(args)...);
    } else {
      Any outcome = result_unwrap_lazy(Any(init(made, std::move(args)...)));
      if (is_error_value(outcome))
        return outcome;
    }
    return made;
  });
}

KEST_API void declare_module_function(const String &module, const char *name, I_Callable_Generic fn,
                                      const member_extras &extras);
KEST_API Any method_entry_of(const char *name, I_Callable_Generic fn, const member_extras &extras);
KEST_API Any property_entry_of(const char *name, I_Callable_Generic getter, I_Callable_Generic setter,
                               const member_extras &extras);
} // namespace internal

/// Field `name` of an instance as the C++ type `T` (checked, as `kest::to`).
template <class T> [[nodiscard]] T field(const Any &self, const meta_field_untyped &name) {
  return to<T>(self.fieldValue(name));
}

/// Writes field `name` of an instance from a C++ value (converted as call
/// arguments are, and checked against the field's type): None or the error.
template <class T> Result<None> set_field(const Any &self, const meta_field_untyped &name, T &&value) {
  return self.setFieldValue(name, host_value(std::forward<T>(value)));
}

/// A host module: where functions and classes are declared.
class KEST_API module_ {
public:
  /// The module `name` ("kest.shop"), made if it does not exist yet.
  explicit module_(const char *name, const char *doc = nullptr);
  [[nodiscard]] const String &name() const noexcept { return m_name; }

  /// Declares a function of the module.
  template <class F, class... Extra> module_ &def(const char *name, F &&f, const Extra &...extra) {
    internal::check_names<F, 0, Extra...>();
    internal::declare_module_function(m_name, name, make_function(std::forward<F>(f)), internal::extras_of(extra...));
    return *this;
  }

private:
  String m_name;
};

/// A host class, declared by `declare()` once its members are listed.
class KEST_API class_ {
public:
  class_(const module_ &module, const char *name, const char *doc = nullptr);

  /// A base class or interface (`kest::I_Sequence::getClass()`).
  class_ &base(const Class_Generic &base);
  /// A field whose values must be of `T` (a C++ type such as `double` or
  /// `std::string`, a handle type such as `kest::String`, or `kest::Any` for
  /// any value); `flags` are `kest::field_flags`.
  template <class T> class_ &field(const char *name, std::uint32_t flags = 0) {
    return field(name, &internal::field_type<T>, flags);
  }
  /// A field typed by a class that a getter gives (a class declared later).
  class_ &field(const char *name, type_getter type, std::uint32_t flags = 0);

  /// The constructor: `init(self, args...)` fills the new instance; what it
  /// returns, if anything, is only looked at for an error.
  template <class F, class... Extra> class_ &init(F &&init, const Extra &...extra) {
    internal::check_names<F, 1, Extra...>();
    using args = typename internal::function_traits<std::decay_t<F>>::args;
    add(internal::method_entry_of("$__init__",
                                  internal::make_constructor(std::forward<F>(init), m_slot, static_cast<args *>(nullptr)),
                                  internal::extras_of(extra...)));
    return *this;
  }
  /// A method: `f(self, args...)`.
  template <class F, class... Extra> class_ &def(const char *name, F &&f, const Extra &...extra) {
    internal::check_names<F, 1, Extra...>();
    add(internal::method_entry_of(name, make_method(std::forward<F>(f)), internal::extras_of(extra...)));
    return *this;
  }
  /// A function of the class that takes no instance.
  template <class F, class... Extra> class_ &def_static(const char *name, F &&f, const Extra &...extra) {
    internal::check_names<F, 0, Extra...>();
    add(internal::method_entry_of(name, make_function(std::forward<F>(f)), internal::extras_of(extra...)));
    return *this;
  }
  /// A read-only property: `getter(self)`.
  template <class G, class... Extra> class_ &property(const char *name, G &&getter, const Extra &...extra) {
    internal::check_names<G, 1, Extra...>();
    add(internal::property_entry_of(name, make_method(std::forward<G>(getter)), {}, internal::extras_of(extra...)));
    return *this;
  }
  /// A writable property: `getter(self)` and `setter(self, value)`.
  template <class G, class S, class... Extra>
    requires(!std::is_convertible_v<S, const char *> && !internal::is_arg_v<S>)
  class_ &property(const char *name, G &&getter, S &&setter, const Extra &...extra) {
    internal::check_names<G, 1>();
    add(internal::property_entry_of(name, make_method(std::forward<G>(getter)), make_method(std::forward<S>(setter)),
                                    internal::extras_of(extra...)));
    return *this;
  }

  /// Declares the class with its module. A declaration that fails is
  /// reported through the host log and gives an empty class.
  Class_Generic declare();

private:
  void add(Any entry) { m_builder.add_entry(std::move(entry)); }

  internal::class_builder_base m_builder;
  std::shared_ptr<internal::declared_class_slot> m_slot = std::make_shared<internal::declared_class_slot>();
  std::string m_name;
};

} // namespace kest
