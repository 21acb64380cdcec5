#pragma once
// Running user text in the interpreter: statements (a function body) and expressions.

#include <kest/interfaces.hpp>
#include <kest/string.hpp>

#include <span>
#include <string>
#include <string_view>

namespace sarvode {

/// The text that statements run as: `user`'s lines in the body of a
/// generated function that declares the out-locals global, then the calls
/// that store its result and the out-locals. (The compiled-code cache is keyed
/// by this text.)
std::string statementsText(std::string_view user, std::span<const kest::String> outLocalNames);

/// Runs `code` as the body of a generated function. The result is what the code
/// returned (None without a return), or an Error with positions relative to the
/// user's text. Names listed in `outLocals` are copied back into it.
kest::Any runStatements(const kest::String &code, const kest::Any &self, const kest::Union<kest::I_Map, kest::None> &locals,
                        const kest::Union<kest::I_Map, kest::None> &globals,
                        const kest::Union<kest::I_MutableMap, kest::None> &outLocals);

/// Evaluates one expression; its value or an Error.
kest::Any runExpression(const kest::String &code, const kest::Union<kest::I_Map, kest::None> &locals,
                        const kest::Union<kest::I_Map, kest::None> &globals);

} // namespace sarvode
