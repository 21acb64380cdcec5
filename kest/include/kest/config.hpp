#pragma once
/// Export macro and small shared definitions of the kest object model.

#if defined(_WIN32)
#  if defined(KEST_BUILDING_LIBRARY)
#    define KEST_API __declspec(dllexport)
#  else
#    define KEST_API __declspec(dllimport)
#  endif
#else
#  define KEST_API __attribute__((visibility("default")))
#endif

#include <cstdint>

namespace kest {

/// Integer widths used in host signatures.
using Int = std::int64_t;
using Int32 = std::int32_t;
using Int64 = std::int64_t;
using UInt = std::uint64_t;

namespace internal {
/// Tag for constructors that take a value whose class was already checked.
struct unchecked_t {
  explicit unchecked_t() = default;
};
inline constexpr unchecked_t unchecked{};
} // namespace internal

} // namespace kest
