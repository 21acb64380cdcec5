#pragma once
// The interactive Python console of the host.

#include "python_runner.hpp"

#include <iosfwd>

namespace sarvode {

/// Reads inputs from `in` until its end or exit(): an input that parses as an
/// expression is evaluated and its value printed; other lines are gathered
/// until a blank line (or a complete simple statement) and run as statements.
/// Names assigned in one input are visible in the next. Returns 0.
int run_console(const kest::I_Language &language, const run_options &options, std::istream &in,
                std::ostream &out, std::ostream &err, bool prompts);

} // namespace sarvode
