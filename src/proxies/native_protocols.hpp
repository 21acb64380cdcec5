#pragma once
// The native interface operations of the wrapper classes (a call, iteration,
// lookup by key or index, length), which host code reaches without a member
// lookup by name.

#include <kest/class.hpp>

namespace sarvode {

namespace native {
const kest::internal::native_protocol &function();
const kest::internal::native_protocol &iterable();
const kest::internal::native_protocol &iterator();
const kest::internal::native_protocol &sequence();
const kest::internal::native_protocol &mapping();
const kest::internal::native_protocol &set();
} // namespace native

/// `cls` with `protocol` set as the native form of its members.
inline kest::Class_Generic withNativeProtocol(kest::Class_Generic cls, const kest::internal::native_protocol &protocol) {
  cls.setNativeProtocol(&protocol);
  return cls;
}

} // namespace sarvode
