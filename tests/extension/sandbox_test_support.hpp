#pragma once
// Evaluating in the sandbox from the tests, and what a refusal looks like.

#include "language_test_support.hpp"

#include <kest/kest.hpp>

#include <gtest/gtest.h>

#include <string>

namespace sarvode::test_support {

inline constexpr const char *operation_blocked = "operation blocked in sandbox";

/// Runs `code` (statements, `return` gives the result) in the sandbox.
inline kest::Any sandboxed(const std::string &code, const kest::Any &scope = {}) {
  return unwrapped(python_language().evaluateInSandbox(kest::String::fromUtf8(code), scope));
}

inline void expect_blocked(const kest::Any &result, const std::string &what) {
  ASSERT_TRUE(kest::Error::isInstance(result)) << what << " was not blocked: " << kest::display(result).toUtf8();
  EXPECT_EQ(message_of(result), operation_blocked) << what;
}

/// Runs `code` outside the sandbox; it must succeed.
inline void expect_allowed(const std::string &code) {
  auto result = evaluate(code);
  EXPECT_FALSE(kest::Error::isInstance(result)) << code << ": " << message_of(result);
}

} // namespace sarvode::test_support
