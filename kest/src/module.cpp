// Modules and the process-wide module table.

#include "builtin.hpp"

#include <kest/boolean.hpp>
#include <kest/builders.hpp>
#include <kest/deferred_modules.hpp>
#include <kest/module.hpp>
#include <kest/reflection.hpp>

#include <fmt/format.h>

#include <mutex>

namespace kest {
namespace internal {

// Instance fields of every module, in declaration order.
enum module_field : std::size_t { f_name, f_doc, f_classes, f_callables, f_importance };

module_table g_modules;
constinit spinlock g_modules_lock;

bool module_table::insert(const String &name, const Module &module) {
  if (!by_name.try_emplace(name, module).second)
    return false;
  in_order.push_back(module);
  ++version;
  return true;
}

std::uint64_t modules_version() noexcept {
  std::lock_guard guard(g_modules_lock);
  return g_modules.version;
}

void populate_kest_module(const Module &module);

namespace {
object_value_instance *inst(const Module &m) { return static_cast<object_value_instance *>(m.get()); }

/// The instance behind a module handle, or null for a handle made over a value
/// that is no module: such a module has no name, doc or members and ignores writes.
object_value_instance *module_instance(const Any &m) {
  return Module::isInstance(m) ? static_cast<object_value_instance *>(m.get()) : nullptr;
}

/// A field of a module as `T`, or `fallback` when the module or the field is not one.
template <class T> T module_slot(const Any &m, std::size_t index, T fallback) {
  auto *i = module_instance(m);
  auto v = i ? i->field(index) : Any();
  return T::isInstance(v) ? T::unsafeFrom(v) : fallback;
}

Class_Generic module_base_class() {
  auto cls = make_builtin_class("Module", class_flags::module, {&I_HasName::getClass, &I_HasDoc::getClass});
  const char *names[] = {"$_name", "$_doc", "$_classes", "$_callables", "$_importance"};
  for (const char *name : names) {
    Field field(String::fromUtf8(name + 1), field_flags::hidden, Type());
    cls->add_field(meta_field_untyped(name), field);
  }
  property_builder_base name{String(u"$$name")};
  name.assign_getter(make_method([](Module self) { return self.name(); }));
  cls->add_property(name.name(), name.build());
  property_builder_base doc{String(u"$$doc")};
  doc.assign_getter(make_method([](Module self) { return self.doc(); }));
  cls->add_property(doc.name(), doc.build());
  return cls;
}

// The module "kest" is the host's own; it exists from the moment the library is loaded.
const bool g_kest_module_registered = [] {
  auto kest = Module::create(String(u"kest"));
  populate_kest_module(kest);
  std::lock_guard guard(g_modules_lock);
  g_modules.insert(kest.name(), kest);
  return true;
}();
} // namespace

Result<None> register_function(const String &module, const String &name, const I_Callable_Generic &callable) {
  auto m = get_module(module);
  if (m.isError())
    return Error::unsafeFrom(m);
  m.unsafeAs<Module>().addCallable(name, callable);
  return None();
}

Result<None> register_property(const String &module, const String &name, const Property &property) {
  auto m = get_module(module);
  if (m.isError())
    return Error::unsafeFrom(m);
  m.unsafeAs<Module>().addProperty(name, property);
  return None();
}

} // namespace internal

using namespace internal;

KEST_DEFINE_HANDLE(Module, instance_derives(a, &Module::getClass), module_base_class())

Module Module::create(const String &name) {
  // Each module gets a class of its own, so members added to one module
  // never appear on another.
  auto cls = Class_Generic::create(String(u"Module"), 0, {Module::getClass()});
  return createOfClass(name, cls).unsafeAs<Module>();
}

Result<Module> Module::createOfClass(const String &name, const Class_Generic &moduleClass) {
  if (!moduleClass || !moduleClass.derivesFrom(Module::getClass()))
    return result_error_cast_source(String(u"Module"), moduleClass);
  Module m(unchecked, Any(new object_value_instance(moduleClass)));
  inst(m)->exchange_field(f_name, name);
  inst(m)->exchange_field(f_doc, String());
  inst(m)->exchange_field(f_classes, HashMap(String::getType(), Class_Generic::getType()));
  inst(m)->exchange_field(f_callables, HashMap(String::getType(), I_Callable_Generic::getType()));
  inst(m)->exchange_field(f_importance, Integer(static_cast<std::int64_t>(Importance::Normal)));
  return m;
}

String Module::name() const { return module_slot(*this, f_name, String()); }
String Module::doc() const { return module_slot(*this, f_doc, String()); }
void Module::setDoc(const String &doc) const {
  if (auto *i = module_instance(*this))
    i->exchange_field(f_doc, String::isInstance(doc) ? doc : String());
}
// A module without its tables answers with a fresh empty map, so that writes to it are lost
// rather than stored elsewhere.
HashMap Module::classes() const {
  return module_slot(*this, f_classes, HashMap(String::getType(), Class_Generic::getType()));
}
HashMap Module::callables() const {
  return module_slot(*this, f_callables, HashMap(String::getType(), I_Callable_Generic::getType()));
}
Importance Module::importance() const {
  return static_cast<Importance>(
      module_slot(*this, f_importance, Integer(static_cast<std::int64_t>(Importance::Normal))).value());
}
void Module::setImportance(Importance importance) const {
  if (auto *i = module_instance(*this))
    i->exchange_field(f_importance, Integer(static_cast<std::int64_t>(importance)));
}

Class_Generic Module::moduleClass() const {
  return module_instance(*this) ? raw_class_of(*this) : Class_Generic();
}

void Module::setInlined(bool inlined) const {
  addProperty(String(u"$$inlined"), Property::fromValue(String(u"inlined"), Boolean(inlined)));
}

bool Module::inlined() const {
  auto p = property_of(*this, meta_property_untyped("$$inlined"));
  if (!p.is<Property>())
    return false;
  return Boolean::from(result_unwrap_lazy(p.unsafeAs<Property>().get(*this))).value();
}

// Adding members needs a module and a member of the right class; anything else is
// ignored, so that a wrong handle never adds members to the class of another value.
void Module::addClass(const String &name, const Class_Generic &cls) const {
  if (!module_instance(*this) || !Class_Generic::isInstance(cls))
    return;
  classes().setChecked(name, cls);
  moduleClass()->add_class_property_unsafe(meta_property_untyped(name),
                                           Property::fromValue(name, cls));
}

void Module::addCallable(const String &name, const I_Callable_Generic &callable) const {
  if (!module_instance(*this) || !I_Callable_Generic::isInstance(callable))
    return;
  if (callable.kind() == ObjectType::Callable && callable.name().empty()) // an anonymous function takes its registered name
    const_cast<object_value_callable *>(static_cast<const object_value_callable *>(callable.get()))->set_name(name);
  if (is_none(callable.declaringContext()))
    callable.setDeclaringContext(*this);
  callables().setChecked(name, callable);
  moduleClass()->add_class_property_unsafe(meta_property_untyped(name), Property::fromValue(name, callable));
}

void Module::addProperty(const String &name, const Property &property) const {
  if (!module_instance(*this) || !Property::isInstance(property))
    return;
  moduleClass()->add_class_property_unsafe(meta_property_untyped(name), property);
}

namespace {
/// A module "a.b" is reachable from its parent "a" as the property "b"; the
/// link is made when the second of the two is registered.
void link_with_relatives(const Module &module) {
  const auto name = module.name();
  std::vector<std::pair<Module, Module>> links; // parent, child
  {
    std::lock_guard guard(g_modules_lock);
    if (auto dot = name.rfind(u'.'); dot > 0)
      if (auto it = g_modules.find(name.substr(0, dot)); it != g_modules.end())
        links.emplace_back(it->second, module);
    const auto prefix = name + String(u".");
    for (auto &other : g_modules.in_order) {
      auto other_name = other.name();
      if (other_name.startsWith(prefix.view()) && !other_name.sliced(prefix.length()).contains(u'.'))
        links.emplace_back(module, other);
    }
  }
  for (auto &[parent, child] : links) {
    auto child_name = child.name();
    auto short_name = child_name.sliced(child_name.rfind(u'.') + 1);
    const meta_property_untyped property_name(short_name);
    if (!parent.moduleClass().definedProperty(property_name).is<Property>())
      parent.addProperty(short_name, Property::fromValue(short_name, child));
  }
}
} // namespace

Result<Module> get_module(const String &name) {
  if (name.empty())
    return BadArgument(String(u"A module needs a name."));
  internal::load_deferred_module(name);
  {
    std::lock_guard guard(g_modules_lock);
    if (auto it = g_modules.find(name); it != g_modules.end())
      return it->second;
  }
  auto fresh = Module::create(name); // made outside the lock; the first registration wins
  {
    std::lock_guard guard(g_modules_lock);
    if (auto it = g_modules.find(name); it != g_modules.end())
      return it->second;
    g_modules.insert(name, fresh);
  }
  link_with_relatives(fresh);
  return fresh;
}

Union<Module, None> find_module(const String &name) {
  internal::load_deferred_module(name);
  std::lock_guard guard(g_modules_lock);
  if (auto it = g_modules.find(name); it != g_modules.end())
    return it->second;
  return None();
}

std::vector<Module> modules() {
  std::lock_guard guard(g_modules_lock);
  return g_modules.in_order;
}

HashMap globals() {
  static const HashMap table(String::getType(), Type());
  return table;
}

} // namespace kest
