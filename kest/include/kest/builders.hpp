#pragma once
/// Declaring host classes, methods, properties and fields.
///
/// A class is declared from an ordered list of entries (its name, module,
/// documentation, examples, bases, members) with `defclass_impl`. The builders
/// make the member entries; `class_declaration` gives a class getter its
/// once-only build and its guard against recursive declaration.

#include <kest/function.hpp>
#include <kest/once.hpp>
#include <kest/property.hpp>

#include <mutex>
#include <vector>

namespace kest::internal {

/// Reports an internal consistency failure through the host log; never throws.
KEST_API void log_assert_error(const String &text);
KEST_API void log_assert_error(const char *text);

class KEST_API method_builder_base {
public:
  explicit method_builder_base(String name);
  void assign_func(I_Callable_Generic callable);
  /// The parameter names after the instance, separated by ", " ("code, scope").
  void signature(const String &names);
  void assign_doc(const String &doc);
  void assign_defaults(std::vector<Any> defaults);
  void assign_type_getter(type_getter resultType);
  /// Applies this builder's name, parameter names, defaults and documentation to `callable`.
  [[nodiscard]] I_Callable_Generic decorate(const I_Callable_Generic &callable) const;
  /// A placeholder callable that fails with "not bound" when called.
  [[nodiscard]] I_Callable_Generic create_abstract_function(type_getter resultType) const;
  /// The decorated callable (an abstract one when no function was assigned).
  [[nodiscard]] I_Callable_Generic callable() const;
  [[nodiscard]] const meta_method_untyped &name() const noexcept { return m_name; }

private:
  meta_method_untyped m_name;
  I_Callable_Generic m_callable;
  String m_signature;
  String m_doc;
  std::vector<Any> m_defaults;
  type_getter m_result_type = nullptr;
  bool m_has_defaults = false;
};

/// A callable named and documented through a method builder: `name` (a "$"
/// prefix marks it hidden), the parameter names after the instance
/// ("code, scope"), documentation and the defaults of the last parameters.
KEST_API I_Callable_Generic declared_function(const String &name, I_Callable_Generic fn, const String &params,
                                             const String &doc, std::vector<Any> defaults = {});

class KEST_API property_builder_base {
public:
  explicit property_builder_base(String name);
  /// A constant getter; needs no parameter checks.
  void assign_getter_value(const Any &value);
  /// A getter function: at most one required parameter (the instance); with
  /// none it is marked independent.
  void assign_getter(I_Callable_Generic getter);
  /// A setter function: the value alone (independent), or the instance and the value.
  void assign_setter(I_Callable_Generic setter);
  void assign_doc(const String &doc);
  /// The number of parameters of `callable` that have defaults.
  static std::int64_t function_defaults_count(const I_Callable_Generic &callable);
  [[nodiscard]] Property build() const;
  operator Property() const { return build(); }
  [[nodiscard]] const meta_property_untyped &name() const noexcept { return m_name; }

private:
  meta_property_untyped m_name;
  Any m_value;
  bool m_has_value = false;
  I_Callable_Generic m_getter;
  I_Callable_Generic m_setter;
  String m_doc;
};

class KEST_API field_builder_base {
public:
  explicit field_builder_base(String name, std::uint32_t flags = 0);
  void assign_type(type_getter type);
  [[nodiscard]] Field build() const;
  [[nodiscard]] const meta_field_untyped &name() const noexcept { return m_name; }

private:
  meta_field_untyped m_name;
  std::uint32_t m_flags;
  type_getter m_type = nullptr;
};

/// A property entry of a class declaration: a getter over the instance, its
/// documentation, and a setter over (instance, value) when it can be written.
KEST_API Any declared_property(const String &name, I_Callable_Generic getter, const String &doc = {},
                               I_Callable_Generic setter = {});

/// The entries of one class declaration.
class KEST_API class_builder_base {
public:
  void add_entry(Any entry) { m_entries.push_back(std::move(entry)); }
  [[nodiscard]] const std::vector<Any> &entries() const noexcept { return m_entries; }

  /// The class name entry is a plain `String`; a base entry is a class value.
  static Any name_entry(const String &name) { return name; }
  static Any base_entry(const Class_Generic &base) { return base; }
  static Any module_entry(const String &moduleName);
  static Any doc_entry(const String &doc);
  static Any example_entry(const String &language, const String &text);
  static Any flags_entry(std::uint64_t flags);
  static Any property_entry(const property_builder_base &builder);
  static Any property_entry(const meta_property_untyped &name, const Property &property);
  static Any method_entry(const method_builder_base &builder);
  static Any method_entry(const meta_method_untyped &name, const I_Callable_Generic &method);
  static Any field_entry(const String &name, std::uint32_t flags, type_getter type);
  static Any field_entry(const field_builder_base &builder);
  static Any finaliser_entry(finaliser fn);

private:
  std::vector<Any> m_entries;
};

/// Declares a class from its entries (at start-up or at run time). The class is
/// registered with its module (if any) and findable by its qualified name.
KEST_API Result<Class_Generic> defclass_impl(const std::vector<Any> &entries);

/// The once-only declaration behind a class getter. A second request for the
/// same class on the thread that is still building it throws
/// `std::runtime_error("Recursive call detected while initializing class: " + name)`.
class KEST_API class_declaration {
public:
  using build_function = void (*)(class_builder_base &builder);
  class_declaration(const char *name, build_function build) noexcept
      : m_name(name), m_build(build) {}
  /// The class, declared on first call; a failed declaration is reported
  /// through `log_assert_error` and gives an empty class.
  Class_Generic get();
  /// How many times the class was built (0 or 1).
  [[nodiscard]] int build_count() const noexcept { return m_builds; }

private:
  const char *m_name;
  build_function m_build;
  fast_once m_once;
  Class_Generic m_class;
  int m_builds = 0;
};

} // namespace kest::internal
