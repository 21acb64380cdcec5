#pragma once
/// Scripting languages: the interface `I_Language`, the host's `PythonLanguage`
/// (base of a concrete Python implementation), `EvaluationScope`, and the
/// registry in which the host finds a language by name.

#include <kest/hash_map.hpp>
#include <kest/property.hpp>

namespace kest {

/// The language interface: "$evaluate", "$evaluateExpression", "$toCode",
/// "$resolve"; meta-properties "$$instance" and "$$canEvaluate".
class KEST_API I_Language : public Any {
  KEST_HANDLE_MEMBERS(I_Language, Any)
  /// Runs statements; the result or an error.
  [[nodiscard]] Result<Any> evaluate(const String &code, const Any &scope = {}) const;
  /// Evaluates one expression.
  [[nodiscard]] Result<Any> evaluateExpression(const String &code, const Any &scope = {}) const;
  /// Source text in this language for a value.
  [[nodiscard]] Result<Any> toCode(const Any &value) const;
  [[nodiscard]] Result<Any> resolve(const String &path) const;
  [[nodiscard]] bool canEvaluate() const;
};

/// The host's Python language: adds "$evaluateInSandbox" and
/// "$evaluateExpressionInSandbox", and a `toCode` that writes Python literals.
class KEST_API PythonLanguage : public I_Language {
  KEST_HANDLE_MEMBERS(PythonLanguage, I_Language)
  [[nodiscard]] Result<Any> evaluateInSandbox(const String &code, const Any &scope = {}) const;
  [[nodiscard]] Result<Any> evaluateExpressionInSandbox(const String &code,
                                                        const Any &scope = {}) const;
  /// Python literal text for None, booleans, numbers, strings, byte arrays,
  /// decimals, lists, tuples, sets and maps; an error for other values.
  static Result<String> toCode(const Any &value);
};

/// What an evaluation sees: `self`, global and local names, and the map that
/// receives the names the code assigns (out-locals).
class KEST_API EvaluationScope : public Any {
  KEST_HANDLE_MEMBERS(EvaluationScope, Any)
  EvaluationScope(const Any &self, const Union<I_Map, None> &globals,
                  const Union<I_Map, None> &locals, const Union<I_MutableMap, None> &outLocals);
  [[nodiscard]] Any self() const;
  [[nodiscard]] Union<I_Map, None> globals() const;
  [[nodiscard]] Union<I_Map, None> locals() const;
  [[nodiscard]] Union<I_MutableMap, None> outLocals() const;
};

namespace internal {
KEST_API String language_name_python();
KEST_API String language_name_js();
KEST_API String language_name_cpp();

/// Registers a language instance under a name; the first registration wins.
KEST_API bool register_language(const String &name, const Any &language);

/// The Python interpreter lock, for host code that enters Python many times
/// in a row. The Python extension registers it with its language. `acquire`
/// opens a scope on the calling thread and is false when there is nothing to
/// hold (Python not running); `release` closes a scope that `acquire` opened.
struct python_lock_hooks {
  bool (*acquire)() noexcept;
  void (*release)() noexcept;
};
KEST_API void set_python_lock(const python_lock_hooks *hooks) noexcept;
/// The registered hooks, or null before the extension registered them.
KEST_API const python_lock_hooks *python_lock() noexcept;
} // namespace internal

/// The language registered under `name`, or None.
KEST_API Union<I_Language, None> find_language(const String &name);

} // namespace kest
