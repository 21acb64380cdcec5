#pragma once
// `CPythonLanguage`: the host's language interface for the embedded interpreter.

#include <kest/language.hpp>

namespace sarvode {

/// The class, declared on first use (start-up level 2, or the interpreter's start).
kest::Class_Generic cpythonLanguageClass();

/// The one instance of the class.
kest::Any cpythonLanguage();

/// Statements and expressions, with a scope that may hold an EvaluationScope.
kest::Any evaluateWithScope(const kest::String &code, const kest::Any &scope);
kest::Any evaluateExpressionWithScope(const kest::String &code, const kest::Any &scope);

/// The host form of the Python object at a dotted path, or an Error.
kest::Any resolvePath(const kest::String &path);

/// Python source text for a value: repr() of a Python-backed value, the host's
/// Python literal text for any other.
kest::Any pythonCode(const kest::Any &value);

} // namespace sarvode
