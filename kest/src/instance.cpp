// Instances: fields under the instance's spin lock, per-object members, finalisers.

#include "builtin.hpp"

#include <kest/builders.hpp>

#include <mutex>

namespace kest::internal {

object_value_instance::object_value_instance(Class_Generic cls)
    : m_class(std::move(cls)), m_field_count(m_class ? m_class->field_count : 0),
      m_fields(m_field_count ? std::make_unique<Any[]>(m_field_count) : nullptr) {}

object_value_instance::~object_value_instance() {
  // Finalisers run most-derived first along the primary base chain, while the
  // fields are still intact. They must not throw.
  for (auto *c = m_class.value(); c;) {
    internal::finaliser fn;
    {
      std::lock_guard guard(c->lock);
      fn = c->finaliser;
    }
    if (fn) {
      try {
        fn(*this);
      } catch (...) {
        log_assert_error("[object_value_instance] A finaliser threw an exception.");
      }
    }
    c = c->bases.empty() ? nullptr : c->bases.front().value();
  }
}

Result<Any> object_value_instance::create(const Class_Generic &cls) { return cls.allocateInstance(); }

Any object_value_instance::field(std::size_t index) const {
  if (index >= m_field_count)
    return {};
  std::lock_guard guard(m_lock);
  return m_fields[index];
}

Any object_value_instance::exchange_field(std::size_t index, Any value) const {
  if (index >= m_field_count)
    return value;
  std::lock_guard guard(m_lock);
  m_fields[index].swap(value);
  return value;
}

Any object_value_instance::own_property(const name_info *name) const {
  if (!has_inserted_members())
    return {}; // most objects never get one: no lock
  std::lock_guard guard(m_lock);
  if (!m_inserted)
    return {};
  auto *p = m_inserted->properties.find(name);
  return p ? *p : Any();
}

Any object_value_instance::own_method(const name_info *name) const {
  if (!has_inserted_members())
    return {}; // most objects never get one: no lock
  std::lock_guard guard(m_lock);
  if (!m_inserted)
    return {};
  auto *p = m_inserted->methods.find(name);
  return p ? *p : Any();
}

void object_value_instance::insert_property(const name_info *name, Any property) const {
  auto fresh = std::make_unique<inserted_members>(); // allocated outside the lock
  std::lock_guard guard(m_lock);
  if (!m_inserted)
    m_inserted = std::move(fresh);
  m_inserted->properties.put(name, std::move(property));
  m_has_inserted.store(true, std::memory_order_release);
}

void object_value_instance::insert_method(const name_info *name, Any method) const {
  auto fresh = std::make_unique<inserted_members>();
  std::lock_guard guard(m_lock);
  if (!m_inserted)
    m_inserted = std::move(fresh);
  m_inserted->methods.put(name, std::move(method));
  m_has_inserted.store(true, std::memory_order_release);
}

bool object_value_instance::remove_property(const name_info *name) const {
  std::lock_guard guard(m_lock);
  return m_inserted && m_inserted->properties.remove(name);
}

bool object_value_instance::remove_method(const name_info *name) const {
  std::lock_guard guard(m_lock);
  return m_inserted && m_inserted->methods.remove(name);
}

std::vector<std::pair<const name_info *, Any>> object_value_instance::own_properties() const {
  std::lock_guard guard(m_lock);
  return m_inserted ? m_inserted->properties.entries : decltype(m_inserted->properties.entries){};
}

std::vector<std::pair<const name_info *, Any>> object_value_instance::own_methods() const {
  std::lock_guard guard(m_lock);
  return m_inserted ? m_inserted->methods.entries : decltype(m_inserted->methods.entries){};
}

} // namespace kest::internal
