#pragma once
// Running Python snippets from the extension's tests.

#include "runtime/python.hpp"

#include <string>

namespace sarvode::test_support {

/// The outcome of running a snippet: whether it raised, the exception's type
/// name and text.
struct outcome {
  bool ok = false;
  std::string type;
  std::string message;
};

/// Runs `code` as statements in a fresh dictionary (with the lock taken).
/// No Python error is left pending.
outcome run_python(const std::string &code);

/// Evaluates `expression` and returns its str() (empty on error).
std::string eval_str(const std::string &expression);

} // namespace sarvode::test_support
