#pragma once
// Running Python through the host's language interface, and reporting results
// and errors the way a compiler does.

#include <kest/kest.hpp>

#include <iosfwd>
#include <optional>
#include <string>

namespace sarvode {

/// The host's Python language, found in its language registry.
std::optional<kest::I_Language> python_language();

struct run_options {
  bool sandbox = false;
  bool show_class = false;
};

/// Prints a result (unless None) on `out`, one line: its display text, after
/// its qualified class name and ": " when asked.
void print_result(std::ostream &out, const kest::Any &result, const run_options &options);

/// Prints an error as "SOURCE:LINE:COLUMN: error: MESSAGE" when it has a
/// position, else "SOURCE: error: MESSAGE".
void print_error(std::ostream &err, const std::string &source, const kest::Error &error);

/// Evaluates statements or an expression; prints the outcome. Returns the exit
/// status: 0 on success, 1 when the evaluation returned an error.
int run_and_report(const kest::I_Language &language, const std::string &source, const std::string &code,
                   bool expression, const kest::Any &scope, const run_options &options, std::ostream &out,
                   std::ostream &err);

} // namespace sarvode
