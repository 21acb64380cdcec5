// The process-wide table of interned member names.

#include <kest/name.hpp>
#include <kest/string.hpp>

#include <memory>
#include <mutex>
#include <unordered_map>

namespace kest::internal {

namespace {
struct name_table {
  spinlock lock;
  // Keys view the text owned by the name itself, which never moves.
  std::unordered_map<std::u16string_view, std::unique_ptr<name_info>> names;
  // The same names by their UTF-8 text, for callers that have UTF-8 at hand.
  std::unordered_map<std::string_view, const name_info *> by_utf8;
};

name_table &table() {
  static name_table *t = new name_table; // never destroyed: names outlive static destructors
  return *t;
}
} // namespace

const name_info *intern_name(std::u16string_view text) {
  auto &t = table();
  {
    std::lock_guard guard(t.lock);
    if (auto it = t.names.find(text); it != t.names.end())
      return it->second.get();
  }
  auto info = std::make_unique<name_info>();
  info->text = std::u16string(text);
  info->utf8 = utf16_to_utf8(text);
  info->hash = std::hash<std::u16string_view>()(text);
  std::lock_guard guard(t.lock);
  auto [it, added] = t.names.try_emplace(std::u16string_view(info->text), nullptr);
  if (added) {
    it->second = std::move(info);
    t.by_utf8.emplace(std::string_view(it->second->utf8), it->second.get());
  }
  return it->second.get();
}

const name_info *intern_name_utf8(std::string_view utf8) {
  auto &t = table();
  {
    std::lock_guard guard(t.lock);
    if (auto it = t.by_utf8.find(utf8); it != t.by_utf8.end())
      return it->second;
  }
  return intern_name(utf8_to_utf16(utf8));
}

const name_info *find_interned_name(std::u16string_view text) noexcept {
  auto &t = table();
  std::lock_guard guard(t.lock);
  auto it = t.names.find(text);
  return it == t.names.end() ? nullptr : it->second.get();
}

} // namespace kest::internal

namespace kest {

namespace {
std::pair<std::u16string_view, bool> strip_meta_prefix(std::u16string_view text) {
  if (text.starts_with(u"$$"))
    return {text.substr(2), true};
  if (text.starts_with(u"$"))
    return {text.substr(1), true};
  return {text, false};
}
} // namespace

meta_name::meta_name(std::u16string_view text) {
  auto [name, hidden] = strip_meta_prefix(text);
  m_info = internal::intern_name(name);
  m_hidden = hidden;
}

meta_name::meta_name(const String &text) : meta_name(text.view()) {}

meta_name::meta_name(std::string_view utf8) {
  bool hidden = false;
  if (utf8.starts_with("$$")) {
    utf8.remove_prefix(2);
    hidden = true;
  } else if (utf8.starts_with("$")) {
    utf8.remove_prefix(1);
    hidden = true;
  }
  m_info = internal::intern_name_utf8(utf8);
  m_hidden = hidden;
}

String meta_name::string() const { return String(std::u16string_view(m_info->text)); }

} // namespace kest
