#pragma once
// An insertion-ordered hash table of host values, used by HashMap and HashSet.
// Keys are hashed with `hash_of` and compared with the host comparison; the
// hash is computed by the caller, outside the container's lock.

#include "builtin.hpp"

#include <kest/reflection.hpp>

#include <cstdint>
#include <unordered_map>
#include <vector>

namespace kest::internal {

class ordered_table {
public:
  struct entry {
    Any key;
    Any value;
    std::int64_t hash = 0;
    bool alive = false;
  };

  static bool same_key(const Any &a, const Any &b) {
    if (a.isSame(b))
      return true;
    // Text and integer keys, the common ones, compare as themselves; every
    // other pair (1 and 1.0 included) as the host compares values.
    if (a.kind() == internal::ObjectType::String && b.kind() == internal::ObjectType::String)
      return internal::same_text(a, b);
    if (a.kind() == internal::ObjectType::Integer && b.kind() == internal::ObjectType::Integer)
      return Integer::unsafeFrom(a).value() == Integer::unsafeFrom(b).value();
    return compare_objects(a, b).value() == 0;
  }

  /// Index of the live entry with this key, or -1.
  [[nodiscard]] std::int64_t find(const Any &key, std::int64_t hash) const {
    auto [first, last] = m_index.equal_range(hash);
    for (auto it = first; it != last; ++it)
      if (same_key(m_entries[it->second].key, key))
        return static_cast<std::int64_t>(it->second);
    return -1;
  }

  /// Stores the pair; returns the previous value (empty when the key is new).
  Any put(const Any &key, const Any &value, std::int64_t hash, bool *added = nullptr) {
    if (auto i = find(key, hash); i >= 0) {
      if (added)
        *added = false;
      Any old = value;
      m_entries[static_cast<std::size_t>(i)].value.swap(old);
      return old;
    }
    m_index.emplace(hash, m_entries.size());
    m_entries.push_back({key, value, hash, true});
    ++m_live;
    if (added)
      *added = true;
    return {};
  }

  /// Removes the key; the removed entry is moved out so that the caller
  /// releases it outside the lock.
  bool remove(const Any &key, std::int64_t hash, entry &removed) {
    auto [first, last] = m_index.equal_range(hash);
    for (auto it = first; it != last; ++it) {
      auto &e = m_entries[it->second];
      if (same_key(e.key, key)) {
        removed = std::move(e);
        e = entry{};
        m_index.erase(it);
        --m_live;
        if (m_entries.size() > 16 && m_live * 2 < m_entries.size())
          compact();
        return true;
      }
    }
    return false;
  }

  void clear(std::vector<entry> &removed) {
    removed.swap(m_entries);
    m_index.clear();
    m_live = 0;
  }

  [[nodiscard]] std::size_t size() const noexcept { return m_live; }
  [[nodiscard]] const std::vector<entry> &entries() const noexcept { return m_entries; }
  [[nodiscard]] const entry &at(std::size_t i) const { return m_entries[i]; }

private:
  void compact() {
    std::vector<entry> live;
    live.reserve(m_live);
    m_index.clear();
    for (auto &e : m_entries)
      if (e.alive) {
        m_index.emplace(e.hash, live.size());
        live.push_back(std::move(e));
      }
    m_entries.swap(live);
  }

  std::vector<entry> m_entries;
  std::unordered_multimap<std::int64_t, std::size_t> m_index;
  std::size_t m_live = 0;
};

} // namespace kest::internal
