#pragma once
// Code objects of evaluated texts, compiled once and kept in a bounded
// least-recently-used cache. Every function here needs the interpreter lock.

#include "runtime/python.hpp"

#include <kest/string.hpp>

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>

namespace sarvode {

/// How a text is compiled: as statements (for exec) or as one expression (for eval).
enum class code_mode : std::uint8_t { statements, expression };

struct code_cache_statistics {
  std::int64_t hits = 0;
  std::int64_t misses = 0;       // each miss compiled the text and kept it
  std::int64_t entries = 0;
  std::int64_t capacity = 0;
};

/// The generated function whose body is the user's statements.
inline constexpr std::string_view statements_function_name = "kest_outer";

/// Makes the text to compile from the user's text and the names it is run with.
using text_maker = std::string (*)(std::string_view user, std::span<const kest::String> names);

/// The compiled form of the text that `make` makes from the host string
/// `user` and `names` (`user`'s own text when `make` is null), exactly as the
/// builtin "exec" or "eval" would compile that text, except that the code of
/// a function named `statements_function_name` in it is named "<module>", as
/// the user's own level of the text: a new reference, or null with the
/// compile error set. A text that failed to compile fails again from the
/// cache with a new exception equal to the first, without compiling again.
///
/// Each thread remembers the string it ran last: running the same string
/// object with the same names again finds its entry without making the text
/// or hashing it. A string never changes, so the same object and names always
/// make the same text; such a run counts as a hit.
PyObject *compiledCode(const kest::String &user, code_mode mode, std::span<const kest::String> names = {},
                       text_maker make = nullptr);

/// Drops every entry.
void clearCodeCache();

/// Sets how many texts the cache keeps (0 keeps none); drops the least recently used beyond it.
void setCodeCacheCapacity(std::size_t capacity);

/// The counts since start-up (or the last clear), for tests and tools.
code_cache_statistics codeCacheStatistics();

inline constexpr std::size_t default_code_cache_capacity = 256;

} // namespace sarvode
