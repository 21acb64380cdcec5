#pragma once
// Code objects of evaluated texts, compiled once and kept in a bounded
// least-recently-used cache. Every function here needs the interpreter lock.

#include "runtime/python.hpp"

#include <cstddef>
#include <cstdint>
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

/// The compiled form of `text` (UTF-8), exactly as the builtin "exec" or
/// "eval" would compile the same text, except that the code of a function
/// named `statements_function_name` in it is named "<module>", as the user's
/// own level of the text: a new reference, or null with the
/// compile error set. A text that failed to compile fails again from the cache
/// with a new exception equal to the first, without compiling again.
PyObject *compiledCode(std::string_view text, code_mode mode);

/// Drops every entry.
void clearCodeCache();

/// Sets how many texts the cache keeps (0 keeps none); drops the least recently used beyond it.
void setCodeCacheCapacity(std::size_t capacity);

/// The counts since start-up (or the last clear), for tests and tools.
code_cache_statistics codeCacheStatistics();

inline constexpr std::size_t default_code_cache_capacity = 256;

} // namespace sarvode
