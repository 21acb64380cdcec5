// The typed declaration of modules, classes and functions, over the class
// builders.

#include <kest/declare.hpp>
#include <kest/error.hpp>
#include <kest/module.hpp>

#include <fmt/format.h>

namespace kest {

void on_startup(std::function<void()> handler, int level) { internal::add_init_handler(level, std::move(handler)); }

namespace internal {
namespace {
/// Reports a declaration mistake of `member` through the host log.
void report(std::string_view owner, const char *member, std::string_view problem) {
  log_assert_error(String::fromUtf8(owner.empty() ? fmt::format("{}: {}", member, problem)
                                                  : fmt::format("{}.{}: {}", owner, member, problem)));
}

I_Callable_Generic declared(const char *name, I_Callable_Generic fn, const member_extras &extras) {
  return declared_function(String::fromUtf8(name), std::move(fn), String::fromUtf8(extras.params),
                           String::fromUtf8(extras.doc), extras.defaults);
}

void check_extras(std::string_view owner, const char *name, const member_extras &extras) {
  if (extras.default_before_plain)
    report(owner, name, "a parameter without a default follows one with a default");
}
} // namespace

void declare_module_function(const String &module, const char *name, I_Callable_Generic fn,
                             const member_extras &extras) {
  check_extras(module.utf8View(), name, extras);
  auto registered = register_function(module, String::fromUtf8(name), declared(name, std::move(fn), extras));
  if (registered.isError())
    report(module.utf8View(), name, Error::unsafeFrom(registered).message().utf8View());
}

Any method_entry_of(const char *name, I_Callable_Generic fn, const member_extras &extras) {
  check_extras("", name, extras);
  return class_builder_base::method_entry(meta_method_untyped(String::fromUtf8(name)),
                                          declared(name, std::move(fn), extras));
}

Any property_entry_of(const char *name, I_Callable_Generic getter, I_Callable_Generic setter,
                      const member_extras &extras) {
  return declared_property(String::fromUtf8(name), std::move(getter), String::fromUtf8(extras.doc), std::move(setter));
}
} // namespace internal

module_::module_(const char *name, const char *doc) : m_name(String::fromUtf8(name)) {
  const std::string_view text(name);
  if (text != "kest" && !text.starts_with("kest."))
    internal::log_assert_error(String::fromUtf8(
        fmt::format("The module '{}' cannot be imported from Python: only modules named 'kest' or 'kest.…' can.", text)));
  auto module = get_module(m_name);
  if (module.isError()) {
    internal::log_assert_error(Error::unsafeFrom(module).message());
    return;
  }
  if (doc)
    module.unsafeAs<Module>().setDoc(String::fromUtf8(doc));
}

class_::class_(const module_ &module, const char *name, const char *doc) : m_name(name) {
  add(internal::class_builder_base::name_entry(String::fromUtf8(name)));
  add(internal::class_builder_base::module_entry(module.name()));
  if (doc)
    add(internal::class_builder_base::doc_entry(String::fromUtf8(doc)));
}

class_ &class_::base(const Class_Generic &base) {
  add(internal::class_builder_base::base_entry(base));
  return *this;
}

class_ &class_::field(const char *name, type_getter type, std::uint32_t flags) {
  add(internal::class_builder_base::field_entry(String::fromUtf8(name), flags, type));
  return *this;
}

Class_Generic class_::declare() {
  auto made = internal::result_unwrap_lazy(internal::defclass_impl(m_builder.entries()));
  if (!Class_Generic::isInstance(made)) {
    const auto why = Error::isInstance(made) ? std::string(Error::unsafeFrom(made).message().utf8View())
                                             : std::string("no class was made");
    internal::log_assert_error(String::fromUtf8(fmt::format("The class '{}' was not declared: {}", m_name, why)));
    return {};
  }
  m_slot->cls = Class_Generic::unsafeFrom(made);
  return m_slot->cls;
}

} // namespace kest
