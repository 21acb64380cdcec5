// Class objects: identity, bases, member tables, hooks and instance allocation.

#include "builtin.hpp"
#include "hooks.hpp"
#include "thread_state.hpp"

#include <kest/builders.hpp>
#include <kest/none.hpp>
#include <kest/module.hpp>
#include <kest/property.hpp>
#include <kest/reflection.hpp>
#include <kest/weak.hpp>

#include <fmt/format.h>

#include <array>
#include <mutex>
#include <unordered_map>

namespace kest {
namespace internal {

std::atomic<std::uint64_t> g_class_members_epoch{1};

namespace {
struct class_registry {
  spinlock lock;
  std::unordered_map<String, Class_Generic> by_name;
};
class_registry &registry() {
  static auto *r = new class_registry; // classes live for the whole process
  return *r;
}
} // namespace

void bump_class_members_epoch() noexcept { g_class_members_epoch.fetch_add(1, std::memory_order_acq_rel); }

bool member_table::remove(const name_info *name) {
  auto it = index.find(name);
  if (it == index.end())
    return false;
  const auto pos = it->second;
  entries.erase(entries.begin() + static_cast<std::ptrdiff_t>(pos));
  index.erase(it);
  for (auto &[n, i] : index)
    if (i > pos)
      --i;
  return true;
}

object_value_class::object_value_class(String n, std::uint64_t f) : name(std::move(n)), flags(f) {
  ancestors.insert(this);
}

object_value_class::~object_value_class() {
  // Lookups cached for this address must not be believed for a class made there later.
  bump_class_members_epoch();
}

object_value_class *object_value_class::class_value() const noexcept {
  return Class_Generic::getClass().value();
}

void object_value_class::add_base(const Class_Generic &base) {
  if (!base)
    return;
  bases.push_back(base);
  ancestors.insert(base->ancestors.begin(), base->ancestors.end());
  flags.fetch_or(base->flags.load() & class_flags::inherited);
  if (field_count == 0)
    field_count = base->field_count; // fields come from the first base that has any
  bump_class_members_epoch();
}

Any object_value_class::search(member_kind kind, const name_info *n) const {
  const member_table object_value_class::*table = kind == property_member ? &object_value_class::properties
                                                  : kind == method_member ? &object_value_class::methods
                                                                          : &object_value_class::fields;
  {
    std::lock_guard guard(lock);
    if (auto *p = (this->*table).find(n))
      return *p;
  }
  for (auto &b : bases)
    if (auto r = b->find(kind, n))
      return r;
  return {};
}

Any object_value_class::find(member_kind kind, const name_info *n) const {
  // A slot of an entry holds the member, or the not-implemented marker (never
  // a member) for "there is none"; an empty slot was not looked up yet.
  object_value *const missing = g_value_not_implemented;
  const auto epoch = class_members_epoch();
  {
    std::lock_guard guard(lock);
    if (m_resolved_epoch == epoch) {
      if (auto it = m_resolved.find(n); it != m_resolved.end() && it->second[kind])
        return it->second[kind].get() == missing ? Any() : it->second[kind];
    }
  }
  Any found = search(kind, n);
  decltype(m_resolved) stale; // released outside the lock
  std::lock_guard guard(lock);
  if (m_resolved_epoch != epoch) {
    m_resolved.swap(stale);
    m_resolved_epoch = epoch;
  }
  m_resolved[n][kind] = found ? found : Any(missing);
  return found;
}

/// One thread's recent member lookups, direct-mapped by class, name and kind.
/// Entries borrow their members: a class keeps every member it ever had for
/// as long as it lives, and an entry is only believed for the members epoch
/// it was made in (any change to any class's members starts a new one, and
/// so does a class going away).
struct lookup_cache {
  struct entry {
    const object_value_class *cls = nullptr;
    const name_info *name = nullptr;
    std::uint64_t epoch = 0; // 0: never filled (epochs start at 1)
    int kind = 0;
    const object_value *member = nullptr;
  };
  static constexpr std::size_t size = 512;
  std::array<entry, size> entries;

  entry &slot(const object_value_class *c, const name_info *n, int kind) noexcept {
    auto h = reinterpret_cast<std::uintptr_t>(c) * 0x9E3779B97F4A7C15ull ^ reinterpret_cast<std::uintptr_t>(n) >> 4;
    h ^= static_cast<std::uintptr_t>(kind) * 0x632BE59BD9B4E019ull;
    return entries[(h ^ (h >> 29)) & (size - 1)];
  }
};

void free_lookup_cache(lookup_cache *cache) noexcept { delete cache; }

// The hit is all a lookup does on the common path: it needs no stack frame,
// and the miss, which does, is a call of its own.
const object_value *object_value_class::lookup(member_kind kind, const name_info *n) const {
  const auto &t = t_thread_state;
  if (t.lookups && !t.closed) [[likely]] {
    const auto &e = t.lookups->slot(this, n, kind);
    if (e.epoch == class_members_epoch() && e.cls == this && e.name == n && e.kind == kind)
      return e.member;
  }
  return lookup_missed(kind, n);
}

const object_value *object_value_class::lookup_missed(member_kind kind, const name_info *n) const {
  auto *t = this_thread_state();
  if (!t) [[unlikely]] // the thread is ending
    return find(kind, n).get(); // kept alive by the class all the same
  if (!t->lookups) [[unlikely]]
    t->lookups = new lookup_cache;
  const auto epoch = class_members_epoch();
  Any found = find(kind, n); // the class (or a base) keeps it alive
  t->lookups->slot(this, n, kind) = {this, n, epoch, kind, found.get()};
  return found.get();
}

const object_value *object_value_class::lookup_property(const name_info *n) const { return lookup(property_member, n); }
const object_value *object_value_class::lookup_method(const name_info *n) const { return lookup(method_member, n); }
const object_value *object_value_class::lookup_field(const name_info *n) const { return lookup(field_member, n); }

void object_value_class::retire(Any member) {
  if (!member)
    return;
  std::lock_guard guard(lock);
  m_retired.push_back(std::move(member));
}

Any object_value_class::find_property(const name_info *n) const { return find(property_member, n); }
Any object_value_class::find_method(const name_info *n) const { return find(method_member, n); }
Any object_value_class::find_field(const name_info *n) const { return find(field_member, n); }

namespace {
template <class Hook> Hook find_hook(const object_value_class *c, Hook object_value_class::*member) {
  {
    std::lock_guard guard(c->lock);
    if (c->*member)
      return c->*member;
  }
  for (auto &b : c->bases)
    if (auto h = find_hook(b.value(), member))
      return h;
  return {};
}
} // namespace

method_lookup_hook object_value_class::find_method_hook() const {
  return find_hook(this, &object_value_class::method_hook);
}
property_getter_hook object_value_class::find_getter_hook() const {
  return find_hook(this, &object_value_class::getter_hook);
}
property_setter_hook object_value_class::find_setter_hook() const {
  return find_hook(this, &object_value_class::setter_hook);
}
instance_allocator object_value_class::find_allocator() const {
  return find_hook(this, &object_value_class::allocator);
}

namespace {
/// Puts `member` into `table` and gives back the member it replaced, if any.
Any put_member(member_table &table, const name_info *n, const Any &member) {
  Any replaced;
  if (auto *existing = table.find(n))
    replaced = *existing;
  table.put(n, member);
  return replaced;
}
/// Removes the member of that name from `table` and gives it back (empty when there was none).
Any take_member(member_table &table, const name_info *n) {
  Any removed;
  if (auto *existing = table.find(n)) {
    removed = *existing;
    table.remove(n);
  }
  return removed;
}
} // namespace

void object_value_class::add_class_property_unsafe(const meta_property_untyped &n, const Property &property) {
  Any replaced;
  {
    std::lock_guard guard(lock);
    replaced = put_member(properties, n.info(), property);
  }
  retire(std::move(replaced));
  bump_class_members_epoch();
}

bool object_value_class::remove_member(member_table &table, const name_info *n) {
  Any removed;
  {
    std::lock_guard guard(lock);
    removed = take_member(table, n);
  }
  if (!removed)
    return false;
  retire(std::move(removed));
  bump_class_members_epoch();
  return true;
}

bool object_value_class::remove_method(const meta_method_untyped &n) { return remove_member(methods, n.info()); }
bool object_value_class::remove_property(const meta_property_untyped &n) { return remove_member(properties, n.info()); }

void object_value_class::add_property(const meta_property_untyped &n, const Property &property) {
  add_class_property_unsafe(n, property);
}

void object_value_class::add_method(const meta_method_untyped &n, const I_Callable_Generic &method) {
  Any replaced;
  {
    std::lock_guard guard(lock);
    replaced = put_member(methods, n.info(), method);
  }
  retire(std::move(replaced));
  bump_class_members_epoch();
}

void object_value_class::add_field(const meta_field_untyped &n, Field &field) {
  Any replaced;
  {
    std::lock_guard guard(lock);
    if (auto *existing = fields.find(n.info())) {
      field.setIndex(Field::unsafeFrom(*existing).index());
      replaced = put_member(fields, n.info(), field);
    } else {
      field.setIndex(field_count++);
      fields.put(n.info(), field);
    }
  }
  retire(std::move(replaced));
  bump_class_members_epoch();
}

std::uint32_t object_value_class::override_mask() const {
  const auto epoch = class_members_epoch() & 0xFFFFFFFFu;
  const auto cached = m_override_cache.load(std::memory_order_acquire);
  if ((cached >> 32) == epoch)
    return static_cast<std::uint32_t>(cached);
  std::uint32_t mask = 0;
  for (std::uint32_t h = 0; h < static_cast<std::uint32_t>(object_hook::count); ++h)
    if (find_method(hook_name(static_cast<object_hook>(h)).info()))
      mask |= 1u << h;
  m_override_cache.store((epoch << 32) | mask, std::memory_order_release);
  return mask;
}

const meta_method_untyped &hook_name(object_hook hook) {
  static const meta_method_untyped names[] = {
      meta_method_untyped("$__property__"),      meta_method_untyped("$__propertyValue__"),
      meta_method_untyped("$__setPropertyValue__"), meta_method_untyped("$__method__"),
      meta_method_untyped("$__display__"),       meta_method_untyped("$__compare__"),
      meta_method_untyped("$__hash__"),          meta_method_untyped("$__ownProperty__"),
      meta_method_untyped("$__ownProperties__"), meta_method_untyped("$__ownMethod__"),
      meta_method_untyped("$__ownMethods__"),    meta_method_untyped("$__insertProperty__"),
      meta_method_untyped("$__insertMethod__"),  meta_method_untyped("$__removeProperty__"),
      meta_method_untyped("$__removeMethod__"),
  };
  static_assert(std::size(names) == static_cast<std::size_t>(object_hook::count));
  return names[static_cast<std::size_t>(hook)];
}

Union<I_Callable_Generic, None> hook_method(const object_value_class *cls, object_hook hook) {
  // The override mask may be older than the member tables; the method is looked
  // up again and checked, as a member may have been removed since.
  auto method = cls ? cls->find_method(hook_name(hook).info()) : Any();
  if (I_Callable_Generic::isInstance(method))
    return I_Callable_Generic::unsafeFrom(method);
  return None();
}

Class_Generic make_builtin_class(const char *name, std::uint64_t flags,
                                 std::initializer_list<class_getter> bases) {
  std::vector<Class_Generic> resolved;
  for (auto getter : bases)
    resolved.push_back(getter());
  auto cls = Class_Generic::create(String::fromUtf8(name), flags, resolved);
  cls->context = String(u"kest"); // resolved to the module when asked
  cls->make_immortal();
  register_class_name(cls);
  return cls;
}

void register_class_name(const Class_Generic &cls) {
  auto name = qualname(cls);
  auto &r = registry();
  std::lock_guard guard(r.lock);
  r.by_name.try_emplace(name, cls);
}

namespace {
/// The classes a thread asked for last, by definition and arguments: a
/// repeated request (every new container asks) takes no lock and writes no
/// shared memory. Generic instances live as long as the process.
struct recent_instance {
  const void *definition = nullptr;
  std::array<const void *, 2> arguments{};
  std::size_t count = 0;
  Class_Generic cls;
};
constexpr std::size_t recent_instances = 8;
thread_local std::array<recent_instance, recent_instances> t_recent;
thread_local std::size_t t_next_recent = 0;

recent_instance *find_recent(const void *definition, std::span<const Type> arguments) {
  if (arguments.size() > 2)
    return nullptr;
  for (auto &r : t_recent) {
    if (r.definition != definition || r.count != arguments.size())
      continue;
    bool same = true;
    for (std::size_t i = 0; same && i < arguments.size(); ++i)
      same = r.arguments[i] == arguments[i].get();
    if (same)
      return &r;
  }
  return nullptr;
}

void remember(const void *definition, std::span<const Type> arguments, const Class_Generic &cls) {
  if (arguments.size() > 2)
    return;
  auto &r = t_recent[t_next_recent++ % recent_instances];
  r.definition = definition;
  r.count = arguments.size();
  for (std::size_t i = 0; i < arguments.size(); ++i)
    r.arguments[i] = arguments[i].get();
  r.cls = cls;
}

Class_Generic find_or_make_instance(const Class_Generic &definition, std::span<const Type> arguments);
} // namespace

Class_Generic generic_instance_of(const Class_Generic &definition, std::span<const Type> arguments) {
  if (auto *r = find_recent(definition.get(), arguments))
    return r->cls;
  auto cls = find_or_make_instance(definition, arguments);
  remember(definition.get(), arguments, cls);
  return cls;
}

namespace {
Class_Generic find_or_make_instance(const Class_Generic &definition, std::span<const Type> arguments) {
  auto *def = definition.value();
  {
    std::lock_guard guard(def->generic_lock);
    for (auto &[args, cls] : def->generic_instances) {
      bool same = args.size() == arguments.size();
      for (std::size_t i = 0; same && i < args.size(); ++i)
        same = args[i].isSame(arguments[i]);
      if (same)
        return Class_Generic::unsafeFrom(cls);
    }
  }
  string_builder name;
  name.append(definition.name()).append(u'<');
  for (std::size_t i = 0; i < arguments.size(); ++i) {
    if (i)
      name.append(u", ");
    name.append(arguments[i].name());
  }
  name.append(u'>');
  auto flags = (definition.flags() & ~class_flags::generic_definition) | class_flags::generic_instance;
  auto cls = Class_Generic::create(name.take(), flags, {definition});
  cls->context = definition->context;
  cls->generic_definition = definition;
  cls->generic_arguments.assign(arguments.begin(), arguments.end());
  std::lock_guard guard(def->generic_lock);
  for (auto &[args, existing] : def->generic_instances) { // another thread may have won
    bool same = args.size() == arguments.size();
    for (std::size_t i = 0; same && i < args.size(); ++i)
      same = args[i].isSame(arguments[i]);
    if (same)
      return Class_Generic::unsafeFrom(existing);
  }
  cls->make_immortal(); // kept by its definition for the process; every new container shares it
  def->generic_instances.emplace_back(std::vector<Type>(arguments.begin(), arguments.end()), cls);
  return cls;
}
} // namespace

Any store_context(const Any &context) {
  // A module or class owns its members, so a member refers back to it weakly;
  // a module name is kept as text and looked up when asked.
  if (context.kind() == ObjectType::Instance || context.kind() == ObjectType::Class)
    return WeakReference(context);
  return context;
}

Any resolve_context(const Any &context) {
  if (String::isInstance(context)) {
    auto module = find_module(String::unsafeFrom(context));
    return module.is<Module>() ? Any(module) : Any(None());
  }
  if (context.kind() == ObjectType::WeakReference) {
    auto target = weak_ref_builtin::resolve(context);
    return target ? target : Any(None());
  }
  return context ? context : Any(None());
}

Union<Type, None> find_type_by_name(const String &name) {
  auto &r = registry();
  std::lock_guard guard(r.lock);
  auto it = r.by_name.find(name);
  if (it == r.by_name.end())
    return None();
  return Type(it->second);
}

} // namespace internal

using namespace internal;

KEST_DEFINE_HANDLE(Class_Generic, a.kind() == ObjectType::Class, [] {
  auto cls = Class_Generic::create(String(u"Class"), 0);
  cls->context = String(u"kest");
  cls->make_immortal();
  return cls;
}())

Class_Generic Class_Generic::create(const String &name, std::uint64_t flags,
                                    const std::vector<Class_Generic> &bases) {
  auto *value = new object_value_class(name, flags);
  Class_Generic cls(unchecked, Any(value));
  for (auto &b : bases)
    value->add_base(b);
  return cls;
}

namespace {
/// The class object, or null for an empty handle or one made over a value that
/// is no class: members then answer as for a class with no name, members or
/// bases, and ignore writes.
object_value_class *class_value_of(const Any &a) noexcept {
  return native_if<object_value_class>(a, ObjectType::Class);
}
} // namespace

String Class_Generic::name() const {
  auto *c = class_value_of(*this);
  return c ? c->name : String();
}

String Class_Generic::doc() const {
  auto *c = class_value_of(*this);
  if (!c)
    return {};
  std::lock_guard guard(c->lock);
  return c->doc;
}

void Class_Generic::setDoc(const String &doc) const {
  auto *c = class_value_of(*this);
  if (!c)
    return;
  std::lock_guard guard(c->lock);
  c->doc = doc;
}

Any Class_Generic::declaringContext() const {
  auto *c = class_value_of(*this);
  if (!c)
    return None();
  Any context;
  {
    std::lock_guard guard(c->lock);
    context = c->context;
  }
  return resolve_context(context);
}

void Class_Generic::setDeclaringContext(const Any &context) const {
  auto *c = class_value_of(*this);
  if (!c)
    return;
  Any stored = store_context(context);
  std::lock_guard guard(c->lock);
  c->context.swap(stored);
}

String Class_Generic::example(const String &language) const {
  auto *c = class_value_of(*this);
  if (!c)
    return {};
  std::lock_guard guard(c->lock);
  for (auto &[lang, text] : c->examples)
    if (lang.view() == language.view())
      return text;
  return {};
}

std::vector<Class_Generic> Class_Generic::bases() const {
  auto *c = class_value_of(*this);
  return c ? c->bases : std::vector<Class_Generic>();
}
std::uint64_t Class_Generic::flags() const noexcept {
  auto *c = class_value_of(*this);
  return c ? c->flags.load(std::memory_order_relaxed) : 0;
}
void Class_Generic::addFlags(std::uint64_t f) const noexcept {
  if (auto *c = class_value_of(*this))
    c->flags.fetch_or(f);
}

bool Class_Generic::derivesFrom(const Class_Generic &other) const noexcept {
  auto *c = class_value_of(*this);
  auto *o = class_value_of(other);
  return c && o && c->derives_from(o);
}

Union<Property, None> Class_Generic::definedProperty(const meta_property_untyped &name) const {
  auto *c = class_value_of(*this);
  if (auto p = c ? c->find_property(name.info()) : Any())
    return Property::unsafeFrom(p);
  return None();
}

Union<I_Callable_Generic, None> Class_Generic::definedMethod(const meta_method_untyped &name) const {
  auto *c = class_value_of(*this);
  if (auto m = c ? c->find_method(name.info()) : Any())
    return I_Callable_Generic::unsafeFrom(m);
  return None();
}

Union<Field, None> Class_Generic::definedField(const meta_field_untyped &name) const {
  auto *c = class_value_of(*this);
  if (auto f = c ? c->find_field(name.info()) : Any())
    return Field::unsafeFrom(f);
  return None();
}

namespace {
/// Members of a class and its bases: bases first, a redefinition replacing the inherited entry.
void collect(const object_value_class *c, member_table object_value_class::*table, member_table &out) {
  for (auto &b : c->bases)
    collect(b.value(), table, out);
  std::lock_guard guard(c->lock);
  for (auto &[n, m] : (c->*table).entries)
    out.put(n, m);
}
template <class T> std::vector<T> collected(const object_value_class *c, member_table object_value_class::*table) {
  std::vector<T> out;
  if (!c)
    return out;
  member_table all;
  collect(c, table, all);
  out.reserve(all.entries.size());
  for (auto &[n, m] : all.entries)
    out.push_back(T::unsafeFrom(m));
  return out;
}
} // namespace

std::vector<Property> Class_Generic::definedProperties() const {
  return collected<Property>(class_value_of(*this), &object_value_class::properties);
}
std::vector<I_Callable_Generic> Class_Generic::definedMethods() const {
  return collected<I_Callable_Generic>(class_value_of(*this), &object_value_class::methods);
}
std::vector<Field> Class_Generic::definedFields() const {
  return collected<Field>(class_value_of(*this), &object_value_class::fields);
}
std::vector<Property> Class_Generic::ownDefinedProperties() const {
  std::vector<Property> out;
  auto *c = class_value_of(*this);
  if (!c)
    return out;
  std::lock_guard guard(c->lock);
  for (auto &[n, m] : c->properties.entries)
    out.push_back(Property::unsafeFrom(m));
  return out;
}

Result<Any> Class_Generic::allocateInstance() const {
  auto *c = class_value_of(*this);
  if (!c)
    return wrong_class("Class", *this);
  if (hasFlag(class_flags::interface) || hasFlag(class_flags::abstract) ||
      hasFlag(class_flags::generic_definition) || hasFlag(class_flags::union_type) ||
      hasFlag(class_flags::top_type))
    return Error(String::fromUtf8(
        fmt::format("Unable to create an instance of the abstract class {}.", qualname(*this).utf8View())));
  if (auto allocate = c->find_allocator())
    return allocate(*this);
  return Any(new object_value_instance(*this));
}

Any Class_Generic::genericDefinition() const {
  auto *c = class_value_of(*this);
  return c && c->generic_definition ? c->generic_definition : Any(None());
}
std::vector<Type> Class_Generic::genericArguments() const {
  auto *c = class_value_of(*this);
  return c ? c->generic_arguments : std::vector<Type>();
}

Result<Any> Class_Generic::coerce(const Any &v) const {
  if (!class_value_of(*this))
    return wrong_class("Class", *this);
  return kest::coerce(v, Type(*this));
}

namespace {
/// Replaces one hook (or the finaliser, or the allocator) of a class under its lock.
template <class T> void set_hook(const Any &cls, T object_value_class::*slot, T value) {
  auto *c = class_value_of(cls);
  if (!c)
    return;
  std::lock_guard guard(c->lock);
  std::swap(c->*slot, value); // the old hook is released outside the lock
}
} // namespace

void Class_Generic::setMethodLookupHook(method_lookup_hook hook) const {
  set_hook(*this, &object_value_class::method_hook, std::move(hook));
  bump_class_members_epoch();
}
void Class_Generic::setPropertyGetterHook(property_getter_hook hook) const {
  set_hook(*this, &object_value_class::getter_hook, std::move(hook));
  bump_class_members_epoch(); // caches of what a name means must see the hook
}
void Class_Generic::setPropertySetterHook(property_setter_hook hook) const {
  set_hook(*this, &object_value_class::setter_hook, std::move(hook));
  bump_class_members_epoch();
}
void Class_Generic::setFinaliser(internal::finaliser fn) const {
  set_hook(*this, &object_value_class::finaliser, std::move(fn));
}
void Class_Generic::setAllocator(instance_allocator allocator) const {
  set_hook(*this, &object_value_class::allocator, std::move(allocator));
}

void Class_Generic::setNativeProtocol(const native_protocol *protocol) const {
  if (auto *c = class_value_of(*this))
    c->native.store(protocol, std::memory_order_release);
}

} // namespace kest
