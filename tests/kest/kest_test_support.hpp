#pragma once
// Small helpers shared by the object model's tests.

#include <kest/kest.hpp>

#include <stdexcept>
#include <string>
#include <vector>

namespace kest_test {

using B = kest::internal::class_builder_base;

inline kest::String S(const std::string &text) { return kest::String::fromUtf8(text); }

inline kest::Any unwrapped(const kest::Any &result) { return kest::internal::result_unwrap_lazy(result); }

/// The message of an error result, or a marker when the result is no error.
inline std::string error_text(const kest::Any &result) {
  auto v = unwrapped(result);
  return kest::Error::isInstance(v) ? kest::Error::unsafeFrom(v).message().toUtf8() : std::string("<not an error>");
}

inline std::int64_t int_of(const kest::Any &result) {
  auto v = unwrapped(result);
  if (!kest::Integer::isInstance(v))
    throw std::runtime_error("not an integer: " + kest::display(v).toUtf8());
  return kest::Integer::unsafeFrom(v).value();
}

inline std::string text_of(const kest::Any &result) {
  auto v = unwrapped(result);
  if (!kest::String::isInstance(v))
    throw std::runtime_error("not a string: " + kest::display(v).toUtf8());
  return kest::String::unsafeFrom(v).toUtf8();
}

/// Declares a class from entries; a failed declaration fails the test.
inline kest::Class_Generic declare(const std::vector<kest::Any> &entries) {
  auto r = kest::internal::defclass_impl(entries);
  if (r.isError())
    throw std::runtime_error("declaration failed: " + kest::Error::unsafeFrom(r).message().toUtf8());
  return r.as<kest::Class_Generic>();
}

} // namespace kest_test
