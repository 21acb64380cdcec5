// What attribute names mean on the values of one host class.

#include "pyobject/member_cache.hpp"

#include "pyobject/container_protocol.hpp"

#include <kest/kest.hpp>

#include <string_view>

namespace sarvode {

namespace {
/// Beyond this many names the cache starts over, so that a program that asks
/// for ever new names (getattr with made-up text) cannot grow it without end.
constexpr std::size_t most_names = 4096;
} // namespace

void member_cache::forget_all() {
  m_recent.fill({});
  for (auto &slot : m_slots)
    Py_DecRef(slot.name); // null for a free slot, which it ignores
  std::vector<entry>().swap(m_slots);
  m_used = 0;
}

namespace {
/// The getter of `property` when reading it means calling a native method
/// with the value alone and that method applies to the values of `cls`.
const kest::internal::object_value_callable *applicable_getter(const kest::Property &property,
                                                               const kest::internal::object_value_class *cls) {
  if (property.isValueProperty())
    return nullptr;
  const auto getter = property.getter();
  if (getter.kind() != kest::internal::ObjectType::Callable || getter.isIndependent())
    return nullptr;
  const auto *native = static_cast<const kest::internal::object_value_callable *>(getter.get());
  return kest::internal::method_applies_to(*native, cls) ? native : nullptr;
}
} // namespace

member_cache::entry member_cache::resolve(PyObject *name) const {
  entry e;
  Py_ssize_t size = 0;
  const char *utf8 = PyUnicode_AsUTF8AndSize(name, &size);
  if (!utf8) {
    PyErr_Clear(); // a name without UTF-8 form: the general lookup reports it
    return e;
  }
  const std::string_view text(utf8, static_cast<std::size_t>(size));
  // Special names, hidden names and the empty name keep their own rules.
  if (text.empty() || text.front() == '_' || text.front() == '$')
    return e;
  const auto cls = kest::Class_Generic::unsafeFrom(kest::Any(m_class));
  if (!kest::internal::members_follow_class(cls))
    return e;
  // A container's Python methods (keys, pop, ...) win over host members of the same name.
  if (isContainerMethodName(containerShape(cls), text))
    return e;
  const kest::meta_property_untyped property_name(text);
  e.info = property_name.info();
  if (auto property = cls.definedProperty(property_name); property.is<kest::Property>()) {
    e.what = meaning::property;
    e.member = property.unsafeAs<kest::Property>();
    e.getter = applicable_getter(property.unsafeAs<kest::Property>(), m_class);
  } else if (auto field = cls.definedField(kest::meta_field_untyped(e.info, false)); field.is<kest::Field>()) {
    e.what = meaning::field;
    e.member = field.unsafeAs<kest::Field>();
  } else if (auto method = cls.definedMethod(kest::meta_method_untyped(e.info, false));
             method.is<kest::I_Callable_Generic>()) {
    auto callable = method.unsafeAs<kest::I_Callable_Generic>();
    // Native methods that take the instance, and apply to the values of this
    // class, are called without a bound method and without checking the
    // receiver again; any other is bound the general way.
    const auto *native = static_cast<const kest::internal::object_value_callable *>(callable.get());
    if (callable.kind() == kest::internal::ObjectType::Callable && !callable.isIndependent() &&
        kest::internal::method_applies_to(*native, m_class)) {
      e.what = meaning::method;
      e.member = callable;
    }
  }
  return e;
}

member_cache::entry *member_cache::slot_for(PyObject *name, Py_hash_t hash) {
  const std::size_t mask = m_slots.size() - 1;
  for (std::size_t i = static_cast<std::size_t>(hash) & mask;; i = (i + 1) & mask) {
    auto &slot = m_slots[i];
    if (!slot.name || slot.name == name)
      return &slot;
    if (slot.hash == hash && PyUnicode_Compare(slot.name, name) == 0)
      return &slot;
  }
}

const member_cache::entry *member_cache::find_slow(PyObject *name) {
  if (const auto epoch = kest::internal::class_members_epoch(); epoch != m_epoch) {
    forget_all();
    m_epoch = epoch;
  }
  const Py_hash_t hash = PyObject_Hash(name); // kept in the str after the first time
  if (hash == -1)
    return nullptr;
  if (m_slots.empty())
    m_slots.resize(16);
  auto &recent = m_recent[(reinterpret_cast<std::uintptr_t>(name) >> 4) % m_recent.size()];
  if (auto *slot = slot_for(name, hash); slot->name) {
    if (slot->name == name) // only the str the slot keeps alive: its address cannot be reused
      recent = {name, slot};
    return slot;
  }
  // A new name: resolve it (which may run host code, but no Python) and keep it.
  entry resolved = resolve(name);
  if (kest::internal::class_members_epoch() != m_epoch)
    return &m_general; // members changed meanwhile: this time the general way
  if ((m_used + 1) * 2 > m_slots.size()) {
    if (m_slots.size() > most_names) {
      forget_all();
      m_slots.resize(16);
    } else {
      m_recent.fill({}); // the slots move
      std::vector<entry> old;
      old.swap(m_slots);
      m_slots.resize(old.size() * 2);
      for (auto &e : old)
        if (e.name)
          *slot_for(e.name, e.hash) = std::move(e);
    }
  }
  auto *slot = slot_for(name, hash);
  Py_IncRef(name);
  resolved.name = name;
  resolved.hash = hash;
  *slot = std::move(resolved);
  ++m_used;
  recent = {name, slot};
  return slot;
}

} // namespace sarvode
