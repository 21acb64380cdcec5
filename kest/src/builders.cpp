// Class, method, property and field builders, and `defclass_impl`.

#include "builtin.hpp"
#include "hooks.hpp"

#include <kest/boolean.hpp>
#include <kest/builders.hpp>
#include <kest/log.hpp>
#include <kest/module.hpp>
#include <kest/reflection.hpp>

#include <fmt/format.h>

#include <algorithm>
#include <optional>
#include <stdexcept>

namespace kest::internal {

void log_assert_error(const String &text) {
  try {
    get_logger().log(LogRecord(40, text));
  } catch (...) {
    // Reporting must never fail the caller.
  }
}

void log_assert_error(const char *text) { log_assert_error(String::fromUtf8(text)); }

// --- entries ----------------------------------------------------------------------

namespace {
const Class_Generic &entry_class() {
  static const Class_Generic cls = make_builtin_class("ClassEntry", class_flags::final);
  return cls;
}

enum class entry_kind { module, doc, example, flags, property, method, field, finaliser };

class object_value_entry final : public native_instance<&entry_class> {
public:
  explicit object_value_entry(entry_kind k) : kind_of(k) {}
  entry_kind kind_of;
  String text;
  String text2;
  Any value;
  const name_info *name = nullptr;
  bool hidden = false;
  std::uint64_t flags = 0;
  internal::finaliser fn;
};

Any make_entry(entry_kind kind, auto &&fill) {
  auto *e = new object_value_entry(kind);
  Any a(e);
  fill(*e);
  return a;
}

const object_value_entry *as_entry(const Any &a) {
  return a.kind() == ObjectType::Instance ? dynamic_cast<const object_value_entry *>(a.get()) : nullptr;
}

Any not_bound(const String &name) {
  return Error(String::fromUtf8(fmt::format("The function '{}' is not bound.", name.utf8View())));
}
} // namespace

Any class_builder_base::module_entry(const String &moduleName) {
  return make_entry(entry_kind::module, [&](object_value_entry &e) { e.text = moduleName; });
}
Any class_builder_base::doc_entry(const String &doc) {
  return make_entry(entry_kind::doc, [&](object_value_entry &e) { e.text = doc; });
}
Any class_builder_base::example_entry(const String &language, const String &text) {
  return make_entry(entry_kind::example, [&](object_value_entry &e) {
    e.text = language;
    e.text2 = text;
  });
}
Any class_builder_base::flags_entry(std::uint64_t flags) {
  return make_entry(entry_kind::flags, [&](object_value_entry &e) { e.flags = flags; });
}
Any class_builder_base::property_entry(const property_builder_base &builder) {
  return property_entry(builder.name(), builder.build());
}
Any class_builder_base::property_entry(const meta_property_untyped &name, const Property &property) {
  return make_entry(entry_kind::property, [&](object_value_entry &e) {
    e.name = name.info();
    e.hidden = name.hidden();
    e.value = property;
  });
}
Any class_builder_base::method_entry(const method_builder_base &builder) {
  return method_entry(builder.name(), builder.callable());
}
Any class_builder_base::method_entry(const meta_method_untyped &name, const I_Callable_Generic &method) {
  return make_entry(entry_kind::method, [&](object_value_entry &e) {
    e.name = name.info();
    e.hidden = name.hidden();
    e.value = method;
  });
}
Any class_builder_base::field_entry(const String &name, std::uint32_t flags, type_getter type) {
  field_builder_base builder(name, flags);
  builder.assign_type(type);
  return field_entry(builder);
}
Any class_builder_base::field_entry(const field_builder_base &builder) {
  return make_entry(entry_kind::field, [&](object_value_entry &e) {
    e.name = builder.name().info();
    e.hidden = builder.name().hidden();
    e.value = builder.build();
  });
}
Any class_builder_base::finaliser_entry(internal::finaliser fn) {
  return make_entry(entry_kind::finaliser, [&](object_value_entry &e) { e.fn = std::move(fn); });
}

// --- defclass_impl -------------------------------------------------------------------

namespace {
/// The error for a property, method or field entry whose member is of another class, or None.
std::optional<Error> wrong_member(const object_value_entry &e) {
  switch (e.kind_of) {
  case entry_kind::property:
    return Property::isInstance(e.value) ? std::nullopt
                                         : std::optional<Error>(wrong_class("Property", e.value));
  case entry_kind::method:
    return I_Callable_Generic::isInstance(e.value) ? std::nullopt
                                                    : std::optional<Error>(wrong_class("I_Callable", e.value));
  case entry_kind::field:
    return Field::isInstance(e.value) ? std::nullopt : std::optional<Error>(wrong_class("Field", e.value));
  default:
    return std::nullopt;
  }
}
} // namespace

Result<Class_Generic> defclass_impl(const std::vector<Any> &entries) {
  for (auto &entry : entries) // checked before anything is made
    if (auto *e = as_entry(entry))
      if (auto error = wrong_member(*e))
        return *error;
  String name;
  bool has_name = false;
  std::vector<Class_Generic> bases;
  std::uint64_t flags = 0;
  for (auto &entry : entries) {
    if (String::isInstance(entry) && !has_name) {
      name = String::unsafeFrom(entry);
      has_name = true;
    } else if (Class_Generic::isInstance(entry)) {
      bases.push_back(Class_Generic::unsafeFrom(entry));
    } else if (auto *e = as_entry(entry); e && e->kind_of == entry_kind::flags) {
      flags |= e->flags;
    } else if (!as_entry(entry) && !String::isInstance(entry)) {
      return BadArgument(String::fromUtf8(fmt::format("Unknown class declaration entry of class '{}'.",
                                                      qualname(raw_class_of(entry)).utf8View())));
    }
  }
  if (!has_name || name.empty())
    return BadArgument(String(u"A class declaration needs a name."));
  for (auto &base : bases)
    if (base.hasFlag(class_flags::final))
      return BadArgument(String::fromUtf8(fmt::format("The class '{}' cannot derive from '{}'.", name.utf8View(),
                                                      qualname(base).utf8View())));
  if (std::count_if(bases.begin(), bases.end(), [](const Class_Generic &b) { return b->field_count > 0; }) > 1)
    return BadArgument(String::fromUtf8(
        fmt::format("The class '{}' takes fields from more than one base.", name.utf8View())));

  // The base with fields goes first, so that its fields keep their indices.
  std::stable_partition(bases.begin(), bases.end(), [](const Class_Generic &b) { return b->field_count > 0; });
  auto cls = Class_Generic::create(name, flags, bases);
  // The members declared here that take an instance belong to the class, which
  // lets a call check that it is given one of its instances.
  auto claim = [&cls](const I_Callable_Generic &member) {
    if (member && is_none(member.declaringContext()))
      member.setDeclaringContext(cls);
  };
  String module;
  for (auto &entry : entries) {
    auto *e = as_entry(entry);
    if (!e)
      continue;
    switch (e->kind_of) {
    case entry_kind::module:
      module = e->text;
      cls->context = module;
      break;
    case entry_kind::doc:
      cls.setDoc(e->text);
      break;
    case entry_kind::example:
      cls->examples.emplace_back(e->text, e->text2);
      break;
    case entry_kind::property: {
      auto property = Property::unsafeFrom(e->value);
      if (e->hidden)
        property.setHidden(true);
      if (!property.isValueProperty())
        claim(property.getter());
      if (auto setter = property.setter(); setter.is<I_Callable_Generic>())
        claim(setter.unsafeAs<I_Callable_Generic>());
      cls->add_property(meta_property_untyped(e->name, e->hidden), property);
      break;
    }
    case entry_kind::method: {
      auto method = I_Callable_Generic::unsafeFrom(e->value);
      if (method.kind() == ObjectType::Callable && method.name().empty()) // an anonymous function takes its entry's name
        const_cast<object_value_callable *>(static_cast<const object_value_callable *>(method.get()))
            ->set_name(String(std::u16string_view(e->name->text)));
      claim(method);
      cls->add_method(meta_method_untyped(e->name, e->hidden), method);
      break;
    }
    case entry_kind::field: {
      auto field = Field::unsafeFrom(e->value);
      cls->add_field(meta_field_untyped(e->name, e->hidden), field);
      break;
    }
    case entry_kind::finaliser:
      cls.setFinaliser(e->fn);
      break;
    case entry_kind::flags:
      break;
    }
  }
  if (!module.empty()) {
    auto m = get_module(module);
    if (m.isError())
      return Error::unsafeFrom(m);
    m.unsafeAs<Module>().addClass(name, cls);
    register_class_name(cls);
  }
  return cls;
}

// --- class_declaration ----------------------------------------------------------------

namespace {
thread_local std::vector<const class_declaration *> t_declaring;

struct declaring_scope {
  explicit declaring_scope(const class_declaration *d) { t_declaring.push_back(d); }
  ~declaring_scope() { t_declaring.pop_back(); }
  declaring_scope(const declaring_scope &) = delete;
  declaring_scope &operator=(const declaring_scope &) = delete;
};
} // namespace

Class_Generic class_declaration::get() {
  if (m_once.done()) [[likely]] // every later request: no thread-local look at the classes being declared
    return m_class;
  if (std::find(t_declaring.begin(), t_declaring.end(), this) != t_declaring.end())
    throw std::runtime_error(std::string("Recursive call detected while initializing class: ") + m_name);
  m_once.call([this] {
    declaring_scope scope(this);
    class_builder_base builder;
    m_build(builder);
    auto result = defclass_impl(builder.entries());
    ++m_builds;
    if (result.isError()) {
      log_assert_error(Error::unsafeFrom(result).message());
      return;
    }
    m_class = result.unsafeAs<Class_Generic>();
  });
  return m_class;
}

// --- method builder -------------------------------------------------------------------

method_builder_base::method_builder_base(String name) : m_name(name) {}

void method_builder_base::assign_func(I_Callable_Generic callable) { m_callable = std::move(callable); }
void method_builder_base::signature(const String &names) { m_signature = names; }
void method_builder_base::assign_doc(const String &doc) { m_doc = doc; }
void method_builder_base::assign_defaults(std::vector<Any> defaults) {
  m_defaults = std::move(defaults);
  m_has_defaults = true;
}
void method_builder_base::assign_type_getter(type_getter resultType) { m_result_type = resultType; }

I_Callable_Generic method_builder_base::decorate(const I_Callable_Generic &callable) const {
  if (callable.kind() != ObjectType::Callable)
    return callable;
  auto *c = const_cast<object_value_callable *>(static_cast<const object_value_callable *>(callable.get()));
  c->set_name(m_name.string());
  if (!m_doc.empty())
    c->set_doc(m_doc);
  if (m_has_defaults)
    c->set_defaults(m_defaults);
  // Name the parameters after the instance from the signature text.
  auto sig = c->signature();
  auto params = sig.parameters();
  std::vector<String> names;
  if (!m_signature.empty())
    for (auto &n : m_signature.splitToVector(u","))
      names.push_back(n.trimmed());
  const std::size_t first = c->independent() ? 0 : 1;
  std::vector<Parameter> renamed;
  for (std::size_t i = 0; i < params.size(); ++i) {
    String pname = params[i].name();
    if (i == 0 && first == 1)
      pname = String(u"self");
    else if (i >= first && i - first < names.size())
      pname = names[i - first];
    renamed.push_back(parameter_renamed(params[i], pname));
  }
  auto required = static_cast<std::size_t>(sig.requiredParameterCount());
  if (m_has_defaults)
    required = std::min(required, params.size() - std::min(params.size(), m_defaults.size()));
  c->set_signature(signature_with(sig, std::move(renamed), required, m_result_type));
  return callable;
}

I_Callable_Generic method_builder_base::create_abstract_function(type_getter resultType) const {
  std::vector<Parameter> params;
  if (!m_signature.empty())
    for (auto &n : m_signature.splitToVector(u","))
      params.emplace_back(n.trimmed(), Type());
  const auto count = params.size();
  auto name = m_name.string();
  Signature sig = resultType ? Signature(std::move(params), resultType, count) : Signature(std::move(params), Type(), count);
  return make_callable([name](std::span<const Any>) { return not_bound(name); }, std::move(sig), true);
}

I_Callable_Generic method_builder_base::callable() const {
  return decorate(m_callable ? m_callable : create_abstract_function(m_result_type));
}

I_Callable_Generic declared_function(const String &name, I_Callable_Generic fn, const String &params,
                                     const String &doc, std::vector<Any> defaults) {
  method_builder_base builder(name);
  builder.assign_func(std::move(fn));
  builder.signature(params);
  builder.assign_doc(doc);
  if (!defaults.empty())
    builder.assign_defaults(std::move(defaults));
  return builder.callable();
}

Any declared_property(const String &name, I_Callable_Generic getter, const String &doc, I_Callable_Generic setter) {
  property_builder_base p{name};
  p.assign_getter(std::move(getter));
  if (setter)
    p.assign_setter(std::move(setter));
  if (!doc.empty())
    p.assign_doc(doc);
  return class_builder_base::property_entry(p);
}

// --- property builder -----------------------------------------------------------------

property_builder_base::property_builder_base(String name) : m_name(name) {}

void property_builder_base::assign_getter_value(const Any &value) {
  m_value = value;
  m_has_value = true;
}

std::int64_t property_builder_base::function_defaults_count(const I_Callable_Generic &callable) {
  return static_cast<std::int64_t>(callable.defaults().size());
}

void property_builder_base::assign_getter(I_Callable_Generic getter) {
  const auto n = getter.parameterCount();
  const auto d = function_defaults_count(getter);
  if (n - d > 1)
    log_assert_error("[property_builder::getter] Too many parameters in the getter function.");
  getter.setIndependent(n == 0);
  m_getter = std::move(getter);
}

void property_builder_base::assign_setter(I_Callable_Generic setter) {
  const auto n = setter.parameterCount();
  const auto d = function_defaults_count(setter);
  if (n - d > 2)
    log_assert_error("[property_builder::setter] Too many parameters in the setter function.");
  setter.setIndependent(n == 1);
  m_setter = std::move(setter);
}

void property_builder_base::assign_doc(const String &doc) { m_doc = doc; }

Property property_builder_base::build() const {
  Property p = m_has_value ? Property::fromValue(m_name.string(), m_value)
               : m_setter  ? Property(m_name.string(), m_getter, m_setter)
                           : Property(m_name.string(), m_getter ? m_getter : make_constant_callable(Any()));
  if (!m_doc.empty())
    p.setDoc(m_doc);
  if (m_name.hidden())
    p.setHidden(true);
  return p;
}

// --- field builder ----------------------------------------------------------------------

field_builder_base::field_builder_base(String name, std::uint32_t flags) : m_name(name), m_flags(flags) {}
void field_builder_base::assign_type(type_getter type) { m_type = type; }
Field field_builder_base::build() const {
  const auto flags = m_flags | (m_name.hidden() ? field_flags::hidden : 0u);
  if (m_type)
    return Field(m_name.string(), flags, m_type);
  return Field(m_name.string(), flags, Type());
}

} // namespace kest::internal
