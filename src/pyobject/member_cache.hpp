#pragma once
// What attribute names mean on the values of one host class, found once per
// name and kept until any class's members change.

#include "runtime/python.hpp"

#include <kest/callable.hpp>
#include <kest/class.hpp>

#include <array>
#include <cstdint>
#include <vector>

namespace sarvode {

/// The members that Python reaches on the values of one host class, by
/// attribute name. A name is resolved the way attribute lookup resolves it
/// (property, then field, then method) the first time it is asked for; every
/// entry is dropped when the host's members epoch moves on, so a class whose
/// members change is seen changed at once. Used with the interpreter lock held.
class member_cache {
public:
  enum class meaning : std::uint8_t {
    general, ///< looked up the general way (special names, hooks, nothing found)
    property,
    field,
    method, ///< a native method that takes the instance first
  };
  struct entry {
    PyObject *name = nullptr; // a strong reference; null marks a free slot
    Py_hash_t hash = 0;
    meaning what = meaning::general;
    kest::Any member; // the Property, Field or callable
    const kest::internal::name_info *info = nullptr;
    /// For a property whose getter is a native method that applies to the
    /// class: the getter (borrowed: the property keeps it, and the class the
    /// property), called with the value alone and without checking it again.
    const kest::internal::object_value_callable *getter = nullptr;
  };

  /// A cache for a class; `cls` must stay alive as long as the cache (the type cache keeps both).
  explicit member_cache(const kest::Class_Generic &cls) : m_class(cls.value()) {}
  member_cache(const member_cache &) = delete;
  member_cache &operator=(const member_cache &) = delete;

  /// What `name` (an exact str) means on a value of the class that has no
  /// members of its own; null, with a Python error, only when hashing the name failed.
  const entry *find(PyObject *name) {
    if (kest::internal::class_members_epoch() == m_epoch) {
      const auto &recent = m_recent[(reinterpret_cast<std::uintptr_t>(name) >> 4) % m_recent.size()];
      if (recent.name == name)
        return recent.slot;
    }
    return find_slow(name);
  }

  /// The members epoch that the entries `find` gives were resolved in.
  [[nodiscard]] std::uint64_t epoch() const noexcept { return m_epoch; }

private:
  const entry *find_slow(PyObject *name);
  void forget_all();
  entry resolve(PyObject *name) const;
  entry *slot_for(PyObject *name, Py_hash_t hash);

  kest::internal::object_value_class *m_class;
  std::uint64_t m_epoch = 0;
  std::vector<entry> m_slots; // open addressing over a power of two
  std::size_t m_used = 0;
  /// Recently asked names by address (names in code are the same str objects
  /// each time), so that a repeated name is found without hashing it. Cleared
  /// whenever the slots move.
  struct recent_name {
    PyObject *name = nullptr;
    entry *slot = nullptr;
  };
  std::array<recent_name, 32> m_recent{};
  /// What a name means when it could not be kept this time (members changed
  /// while it was resolved): the general lookup.
  const entry m_general{};
};

} // namespace sarvode
