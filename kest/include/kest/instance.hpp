#pragma once
/// Instances of host classes: field storage guarded by a per-instance spin lock,
/// and properties and methods inserted on one object only.

#include <kest/class.hpp>

#include <memory>

namespace kest::internal {

class KEST_API object_value_instance : public object_value {
public:
  /// An instance of `cls` with one empty slot per field of the class.
  explicit object_value_instance(Class_Generic cls);
  /// For native instance types whose class comes from `class_value()`.
  object_value_instance() noexcept = default;
  ~object_value_instance() override;

  [[nodiscard]] ObjectType kind() const noexcept override { return ObjectType::Instance; }
  [[nodiscard]] object_value_class *class_value() const noexcept override { return m_class.value(); }

  /// Allocates an instance through the class's allocator.
  static Result<Any> create(const Class_Generic &cls);

  /// A copy of field `index` (empty when out of range), taken under the lock.
  [[nodiscard]] Any field(std::size_t index) const;
  /// Replaces field `index` and returns the old value; the old value is
  /// released by the caller, outside the lock.
  Any exchange_field(std::size_t index, Any value) const;
  [[nodiscard]] std::size_t field_count() const noexcept { return m_field_count; }
  /// The lock that guards the fields and the inserted members.
  spinlock &lock() const noexcept { return m_lock; }

  [[nodiscard]] Any own_property(const name_info *name) const;
  [[nodiscard]] Any own_method(const name_info *name) const;
  void insert_property(const name_info *name, Any property) const;
  void insert_method(const name_info *name, Any method) const;
  bool remove_property(const name_info *name) const;
  bool remove_method(const name_info *name) const;
  [[nodiscard]] std::vector<std::pair<const name_info *, Any>> own_properties() const;
  [[nodiscard]] std::vector<std::pair<const name_info *, Any>> own_methods() const;
  /// True once a property or method was inserted into this object (even if removed since).
  [[nodiscard]] bool has_inserted_members() const noexcept { return m_has_inserted.load(std::memory_order_acquire); }

protected:
  Class_Generic m_class;

private:
  struct inserted_members {
    member_table properties;
    member_table methods;
  };
  mutable spinlock m_lock;
  std::size_t m_field_count = 0;
  std::unique_ptr<Any[]> m_fields;
  mutable std::unique_ptr<inserted_members> m_inserted;
  mutable std::atomic<bool> m_has_inserted{false};
};

/// The native instance behind `a`, or null when `a` is not an instance.
[[nodiscard]] inline object_value_instance *instance_of(const Any &a) noexcept {
  return a.kind() == ObjectType::Instance ? static_cast<object_value_instance *>(a.get()) : nullptr;
}

} // namespace kest::internal
