#pragma once
// Syntax errors of statements, placed in the user's own text.

#include "runtime/python.hpp"

#include <kest/string.hpp>

#include <cstdint>
#include <span>
#include <string_view>

namespace sarvode {

/// The lines of `text` as Python counts them: "\n", "\r\n" and a lone "\r" end one.
std::int64_t pythonLineCount(std::string_view text);

/// With the SyntaxError pending that compiling `statementsText(user,
/// outLocalNames)` raised, makes the pending error say where the user's text
/// is wrong: Python's own error for the text alone when that is the same
/// failure (so that messages such as "... on line 3" and errors at the very
/// end of the text read as python3 gives them), else the pending error with
/// its lines moved from the generated text into the user's. Its line always
/// lies in the text. Anything else pending is left as it is.
void placeSyntaxError(std::string_view user, std::span<const kest::String> outLocalNames);

} // namespace sarvode
