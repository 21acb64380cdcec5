#pragma once
// Evaluating through the host's Python language in the extension's tests.

#include "runtime/python_ready.hpp"

#include <kest/kest.hpp>

#include <gtest/gtest.h>

#include <initializer_list>
#include <string>
#include <utility>

namespace sarvode::test_support {

/// The language registered under the Python name (the interpreter is started first).
inline kest::I_Language language() {
  ensurePythonReady();
  auto found = kest::find_language(kest::internal::language_name_python());
  EXPECT_TRUE(found.is<kest::I_Language>()) << "no language registered under the Python name";
  return found.as<kest::I_Language>();
}

inline kest::PythonLanguage python_language() {
  auto lang = language();
  EXPECT_TRUE(kest::PythonLanguage::isInstance(lang));
  return kest::PythonLanguage::unsafeFrom(lang);
}

inline kest::Any unwrapped(const kest::Result<kest::Any> &result) { return kest::internal::result_unwrap_lazy(result); }

inline kest::Any evaluate(const std::string &code, const kest::Any &with = {}) {
  return kest::internal::result_unwrap_lazy(language().evaluate(kest::String::fromUtf8(code), with));
}

inline kest::Any evaluate_expression(const std::string &code, const kest::Any &with = {}) {
  return kest::internal::result_unwrap_lazy(language().evaluateExpression(kest::String::fromUtf8(code), with));
}

/// A map from names to values, as scopes take them.
inline kest::HashMap string_map(std::initializer_list<std::pair<const char *, kest::Any>> entries = {}) {
  kest::HashMap map(kest::String::getType(), kest::Type());
  for (const auto &[key, value] : entries)
    EXPECT_FALSE(map.setChecked(kest::String::fromUtf8(key), value).isError());
  return map;
}

/// A scope whose locals are `entries`.
inline kest::EvaluationScope locals_scope(std::initializer_list<std::pair<const char *, kest::Any>> entries) {
  return kest::EvaluationScope(kest::Any(), kest::None(), kest::I_Map::unsafeFrom(string_map(entries)), kest::None());
}

inline std::string message_of(const kest::Any &value) {
  if (!kest::Error::isInstance(value))
    return "<not an error: " + kest::display(value).toUtf8() + ">";
  return kest::Error::unsafeFrom(value).message().toUtf8();
}

/// The Integer value of a result; fails the test for anything else.
inline std::int64_t integer_of(const kest::Any &value) {
  if (!kest::Integer::isInstance(value)) {
    ADD_FAILURE() << "not an Integer: " << kest::display(value).toUtf8() << " (" << message_of(value) << ")";
    return -1;
  }
  return kest::Integer::unsafeFrom(value).value();
}

inline std::string text_of(const kest::Any &value) {
  if (!kest::String::isInstance(value)) {
    ADD_FAILURE() << "not a String: " << kest::display(value).toUtf8() << " (" << message_of(value) << ")";
    return {};
  }
  return kest::String::unsafeFrom(value).toUtf8();
}

inline bool boolean_of(const kest::Any &value) {
  if (!kest::Boolean::isInstance(value)) {
    ADD_FAILURE() << "not a Boolean: " << kest::display(value).toUtf8() << " (" << message_of(value) << ")";
    return false;
  }
  return kest::Boolean::unsafeFrom(value).value();
}

} // namespace sarvode::test_support
