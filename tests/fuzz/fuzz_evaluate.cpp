// The input as Python source (any bytes: invalid UTF-8 becomes U+FFFD), run
// through the host's Python language in the read-only sandbox, as statements
// and as an expression, with a small scope. Each run gives a value or a host
// error; text that does not compile gives an EvaluationError with a line; no
// Python error is left pending. A watchdog thread interrupts runs that take
// longer than 200 ms, through the extension's own interrupt.

#include "fuzz_support.hpp"

#include "language/evaluation.hpp"
#include "language/interrupts.hpp"

#include <kest/kest.hpp>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <fcntl.h>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <thread>
#include <unistd.h>
#include <unordered_set>
#include <vector>

using namespace sarvode;
using fuzz::describe;
using fuzz::fail;

namespace {

constexpr std::size_t max_input = 1024;
constexpr auto time_limit = std::chrono::milliseconds(200);
constexpr auto interrupt_every = std::chrono::milliseconds(50);

// --- what is not run ---------------------------------------------------------------------

/// Names in code that can run without a bytecode boundary for unbounded time
/// (huge powers, endless iterators consumed in one C call, waits that an
/// interrupt does not end), crash the interpreter itself (ctypes, code
/// objects, marshal, the recursion limit, the test modules), or change the
/// process for later inputs (sys, os, builtins, gc, signals). The sandbox
/// limits neither time nor memory, and CPython can be crashed on purpose;
/// neither is what this target looks for. Imports, open(), exit() and raising
/// any exception stay allowed: the sandbox and the error path are under test.
const std::unordered_set<std::string_view>& refused_names() {
  static const std::unordered_set<std::string_view> names{
      "pow",       "factorial",      "comb",       "perm",       "iter",
      "count",     "cycle",          "repeat",     "ctypes",     "_ctypes",
      "marshal",   "__code__",       "CodeType",   "types",      "setrecursionlimit",
      "settrace",  "setprofile",     "breakpoint", "pdb",        "pause",
      "select",    "poll",           "wait",       "acquire",    "Queue",
      "queue",     "Event",          "Lock",       "RLock",      "Condition",
      "Semaphore", "Barrier",        "sys",        "os",         "posix",
      "builtins",  "__builtins__",   "gc",         "signal",     "_signal",
      "resource",  "faulthandler",   "importlib",  "__import__", "threading",
      "_thread",   "__subclasses__", "__globals__"};
  return names;
}

/// Names that can catch an interrupt, and names that can repeat code: both
/// together can ignore the watchdog for ever.
const std::unordered_set<std::string_view>& catching_names() {
  static const std::unordered_set<std::string_view> names{"except", "finally", "suppress",
                                                          "__exit__", "__del__"};
  return names;
}
const std::unordered_set<std::string_view>& repeating_names() {
  static const std::unordered_set<std::string_view> names{"while", "for",   "def",  "lambda",
                                                          "class", "async", "await"};
  return names;
}

bool is_name_char(char c) {
  return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_';
}

bool runnable(std::string_view text) {
  if (text.size() > max_input || text.find("**") != std::string_view::npos ||
      text.find("<<") != std::string_view::npos)
    return false;
  bool catches = false, repeats = false;
  for (std::size_t i = 0; i < text.size();) {
    if (!is_name_char(text[i])) {
      ++i;
      continue;
    }
    std::size_t end = i;
    while (end < text.size() && is_name_char(text[end]))
      ++end;
    const auto word = text.substr(i, end - i);
    i = end;
    // Numbers of more than five digits (in any base) make big operands cheap to write.
    if (word.front() >= '0' && word.front() <= '9') {
      if (word.size() > 5)
        return false;
      continue;
    }
    if (refused_names().contains(word) || word.starts_with("_test") || word.starts_with("co_"))
      return false;
    catches = catches || catching_names().contains(word);
    repeats = repeats || repeating_names().contains(word);
  }
  return !(catches && repeats);
}

// --- the watchdog ------------------------------------------------------------------------

/// When the evaluation of the current input started (0 when none runs), and on which thread.
std::atomic<std::int64_t> g_started{0};
std::atomic<std::int64_t> g_thread{0};
std::atomic<bool> g_stopping{false};

std::int64_t now_ns() {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(
             std::chrono::steady_clock::now().time_since_epoch())
      .count();
}

void watchdog() {
  while (!g_stopping.load()) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
    const auto started = g_started.load();
    if (started == 0 || now_ns() - started < std::chrono::nanoseconds(time_limit).count())
      continue;
    // Again and again while it runs: code may catch one KeyboardInterrupt.
    (void)interruptEvaluation(g_thread.load());
    std::this_thread::sleep_for(interrupt_every);
  }
}

/// Marks the evaluations of one input as watched while it lives.
struct watched {
  watched() { g_started.store(now_ns()); }
  ~watched() { g_started.store(0); }
  watched(const watched&) = delete;
  watched& operator=(const watched&) = delete;
};

// --- what the results must be ------------------------------------------------------------

/// The line of the SyntaxError (or subclass) with which the builtin compile
/// refuses `text`, compiled as the builtins "exec" and "eval" compile text;
/// empty when it compiles, or fails otherwise (MemoryError, RecursionError).
/// Runs no user code. The caller holds the interpreter lock.
std::optional<std::int64_t> syntax_error_line(std::string_view text, const char* mode) {
  PyObject* builtins = PyEval_GetBuiltins();                                          // borrowed
  PyObject* compile = builtins ? PyDict_GetItemString(builtins, "compile") : nullptr; // borrowed
  if (!compile)
    fail("the builtin compile is missing");
  auto source = py::object::steal(
      PyUnicode_FromStringAndSize(text.data(), static_cast<Py_ssize_t>(text.size())));
  auto code = py::object::steal(
      source ? PyObject_CallFunction(compile, "Oss", source.get(), "<string>", mode) : nullptr);
  std::optional<std::int64_t> line;
  if (!code && PyErr_ExceptionMatches(PyExc_SyntaxError)) {
    PyObject *type = nullptr, *value = nullptr, *traceback = nullptr;
    PyErr_Fetch(&type, &value, &traceback);
    PyErr_NormalizeException(&type, &value, &traceback);
    auto t = py::object::steal(type), v = py::object::steal(value),
         tb = py::object::steal(traceback);
    auto lineno = py::object::steal(v ? PyObject_GetAttrString(v.get(), "lineno") : nullptr);
    line = lineno && PyLong_Check(lineno.get()) ? PyLong_AsLongLong(lineno.get()) : -1;
  }
  PyErr_Clear();
  return line;
}

std::string_view without_leading_blanks(std::string_view text) {
  while (!text.empty() && (text.front() == ' ' || text.front() == '\t'))
    text.remove_prefix(1);
  return text;
}

/// Lines as Python counts them: "\n", "\r\n" and a lone "\r" end one.
std::int64_t line_count(std::string_view text) {
  std::int64_t lines = 1;
  for (std::size_t i = 0; i < text.size(); ++i)
    lines += text[i] == '\n' || (text[i] == '\r' && (i + 1 == text.size() || text[i + 1] != '\n'));
  return lines;
}

/// What a run of the text must give: the refusal of a null character, or an
/// EvaluationError at one of `syntax_lines` when the text does not compile.
struct expectation {
  bool has_null = false;
  std::vector<std::int64_t> syntax_lines;
};

void check_result(const kest::Any& result, const expectation& expected, const char* what) {
  if (expected.has_null) {
    if (!kest::Error::isInstance(result) ||
        fuzz::error_message(result) != "source code string cannot contain null bytes")
      fail(std::string(what) + ": a text with a null character was not refused", describe(result));
    return;
  }
  if (expected.syntax_lines.empty())
    return; // any value, or any error: the code decides
  if (!kest::EvaluationError::isInstance(result))
    fail(std::string(what) + ": a syntax error came back without a position", describe(result));
  const auto line = kest::EvaluationError::unsafeFrom(result).line();
  if (!line || std::ranges::find(expected.syntax_lines, *line) == expected.syntax_lines.end())
    fail(std::string(what) + ": a syntax error is not where Python puts it",
         describe(result) + " at line " + (line ? std::to_string(*line) : std::string("none")) +
             ", not " + std::to_string(expected.syntax_lines.front()));
}

kest::PythonLanguage language() {
  static const kest::PythonLanguage lang = [] {
    auto found = kest::find_language(kest::internal::language_name_python());
    if (!found.is<kest::I_Language>() || !kest::PythonLanguage::isInstance(found))
      fail("no Python language is registered");
    return kest::PythonLanguage::unsafeFrom(found);
  }();
  return lang;
}

kest::HashMap string_map(std::initializer_list<std::pair<const char16_t*, kest::Any>> entries) {
  kest::HashMap map(kest::String::getType(), kest::Type());
  for (const auto& [key, value] : entries)
    (void)map.setChecked(kest::String(key), value);
  return map;
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  // Code that reads standard input finds its end at once.
  const int null_input = open("/dev/null", O_RDONLY);
  if (null_input >= 0) {
    (void)dup2(null_input, 0);
    close(null_input);
  }
  fuzz::start();
  (void)language();
  g_thread.store(currentThreadIdent());
  std::thread(watchdog).detach();
  std::atexit([] { g_stopping.store(true); });
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view raw(reinterpret_cast<const char*>(data), size);
  if (!runnable(raw))
    return -1; // not added to the corpus
  const auto code = kest::String::fromUtf8(raw);
  const auto text = code.utf8View();

  expectation statements, expression;
  statements.has_null = expression.has_null = code.contains(u'\0');
  if (!statements.has_null) {
    py::gil lock;
    // The wrapper's two lines come before the user's first line.
    constexpr std::int64_t wrapper_lines = 2;
    const kest::String out_local(u"out");
    if (auto wrapped = syntax_error_line(statementsText(text, std::span(&out_local, 1)), "exec")) {
      // The text alone fails as Python reports it, or (for what only a
      // function body allows) the generated text's line moved into the
      // user's; either way a line of the text itself.
      if (auto alone = syntax_error_line(text, "exec"))
        statements.syntax_lines.push_back(*alone);
      statements.syntax_lines.push_back(std::clamp<std::int64_t>(*wrapped - wrapper_lines, 1, line_count(text)));
    }
    if (auto line = syntax_error_line(without_leading_blanks(text), "eval"))
      expression.syntax_lines.push_back(*line);
  }
  fuzz::expect_no_pending_error("compiling the text");

  const auto globals =
      string_map({{u"limit", kest::Integer(10)}, {u"name", kest::String(u"fuzz")}});
  const auto locals =
      string_map({{u"items", kest::List{kest::Integer(1), kest::String(u"two")}},
                  {u"data", kest::ByteArray::fromChars(std::string_view("\x00\xff", 2))}});
  const auto out_locals = string_map({{u"out", kest::Integer(0)}});
  const kest::EvaluationScope scope(kest::Integer(7), kest::I_Map::unsafeFrom(globals),
                                    kest::I_Map::unsafeFrom(locals),
                                    kest::I_MutableMap::unsafeFrom(out_locals));
  {
    watched watch;
    py::gil lock;
    running_evaluation guard; // what runs when the results are released can be interrupted too
    auto ran = kest::internal::result_unwrap_lazy(language().evaluateInSandbox(code, scope));
    fuzz::expect_no_pending_error("evaluateInSandbox");
    check_result(ran, statements, "statements");
    auto value =
        kest::internal::result_unwrap_lazy(language().evaluateExpressionInSandbox(code, scope));
    fuzz::expect_no_pending_error("evaluateExpressionInSandbox");
    check_result(value, expression, "expression");
    ran = {};
    value = {};
  }
  fuzz::expect_no_pending_error("releasing the results");
  return 0;
}
