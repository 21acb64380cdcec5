#pragma once
/// `kest::internal::loop_state`: what a host loop over an iterable that walks
/// itself keeps between two steps (see `native_protocol::loop_step`).

#include <cstdint>

namespace kest::internal {

struct loop_state {
  std::int64_t position = 0;    // the index of the next element
  const void *target = nullptr; // the step's own: what its first step found to walk
  bool flag = false;            // the step's own
};

} // namespace kest::internal
