// The native-stack check before entries into Python.

#include "runtime/stack_guard.hpp"

#include "platform/platform.hpp"

#include <cstddef>
#include <cstdint>

#if defined(_MSC_VER)
#include <intrin.h>
#endif

namespace sarvode {

namespace {
// Room kept for the deepest native path between two entries: Python's own
// C calls, a conversion, an error being formatted. AddressSanitizer makes
// every frame several times larger.
#if defined(__SANITIZE_ADDRESS__)
constexpr std::ptrdiff_t reserve = 2 * 1024 * 1024;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
constexpr std::ptrdiff_t reserve = 2 * 1024 * 1024;
#else
constexpr std::ptrdiff_t reserve = 256 * 1024;
#endif
#else
constexpr std::ptrdiff_t reserve = 256 * 1024;
#endif
} // namespace

bool stackHasRoom() {
  const char *limit = platform::stack_limit();
  // The frame address, not a local's: under AddressSanitizer locals may live
  // on a separate fake stack.
#if defined(_MSC_VER)
  const auto here = reinterpret_cast<std::uintptr_t>(_AddressOfReturnAddress());
#else
  const auto here = reinterpret_cast<std::uintptr_t>(__builtin_frame_address(0));
#endif
  const auto low = reinterpret_cast<std::uintptr_t>(limit);
  if (!limit || here < low || here - low > static_cast<std::uintptr_t>(reserve))
    return true;
  PyErr_SetString(PyExc_RecursionError, "maximum recursion depth exceeded: the thread's stack is almost full");
  return false;
}

} // namespace sarvode
