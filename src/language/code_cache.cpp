// The compiled-code cache: a list in order of use and an index into it.

#include "language/code_cache.hpp"

#include "convert/python_names.hpp"
#include "language/module_level.hpp"
#include "runtime/compile_source.hpp"

#include <algorithm>
#include <array>
#include <list>
#include <string>
#include <unordered_map>

namespace sarvode {

namespace {

/// What one text compiled to: its code object, or the class and arguments of
/// the syntax error it raised (kept apart, so that each failure gets a new
/// exception object that earlier handlers have not touched).
struct compiled {
  py::object code;
  py::object error_type, error_args;
  std::array<py::object, 6> error_location; // the values of `location_names`
};

/// A syntax error's position. Errors found after parsing (a name both
/// nonlocal and global, a repeated argument) carry it only in these
/// attributes, not in their arguments.
constexpr const char *location_names[] = {"filename", "lineno", "offset", "text", "end_lineno", "end_offset"};

struct cache_key {
  code_mode mode;
  std::string_view text; // points into the entry's own copy, or at the caller's text for a lookup
  bool operator==(const cache_key &) const = default;
};

struct key_hash {
  std::size_t operator()(const cache_key &k) const noexcept {
    return std::hash<std::string_view>{}(k.text) ^ static_cast<std::size_t>(k.mode);
  }
};

struct entry {
  std::string text;
  code_mode mode;
  compiled result;
};

/// The builtin "eval" skips leading blanks of a text before compiling it.
std::string_view as_eval_skips(std::string_view text, code_mode mode) {
  if (mode == code_mode::expression)
    while (!text.empty() && (text.front() == ' ' || text.front() == '\t'))
      text.remove_prefix(1);
  return text;
}

/// Compiles as the builtins "exec" and "eval" do: the text as a str (so that a
/// coding comment in it is ignored), the file name "<string>", no inherited flags.
compiled compile_text(std::string_view text, code_mode mode) {
  compiled out;
  text = as_eval_skips(text, mode);
  // Made first in any case: text that is not UTF-8 fails here, as it always has.
  auto source = py::object::steal(PyUnicode_FromStringAndSize(text.data(), static_cast<Py_ssize_t>(text.size())));
  if (!source)
    return out;
  auto filename = py::object::steal(pythonName("<string>"));
  if (!filename)
    return out;
  out.code = py::object::steal(
      compileSource(source.get(), filename.get(), mode == code_mode::statements ? Py_file_input : Py_eval_input));
  if (out.code && mode == code_mode::statements)
    out.code = asModuleLevel(std::move(out.code), statements_function_name);
  if (out.code || !PyErr_ExceptionMatches(PyExc_SyntaxError))
    return out;
  PyObject *type = nullptr, *value = nullptr, *traceback = nullptr;
  PyErr_Fetch(&type, &value, &traceback);
  PyErr_NormalizeException(&type, &value, &traceback);
  if (value) {
    out.error_args = py::object::steal(PyObject_GetAttrString(value, "args"));
    if (out.error_args && PyTuple_Check(out.error_args.get()))
      out.error_type = py::object::borrow(type);
    else
      out.error_args.reset();
    for (std::size_t i = 0; i < std::size(location_names); ++i) {
      out.error_location[i] = py::object::steal(PyObject_GetAttrString(value, location_names[i]));
      if (!out.error_location[i])
        PyErr_Clear(); // no error may be pending at the next read
    }
  }
  PyErr_Clear(); // a failed read of "args" leaves the original error to report
  PyErr_Restore(type, value, traceback);
  return out;
}

/// A new exception equal to the remembered one, set as the current error.
void raise_again(const compiled &c) {
  auto error = py::object::steal(PyObject_Call(c.error_type.get(), c.error_args.get(), nullptr));
  if (!error)
    return;
  for (std::size_t i = 0; i < std::size(location_names); ++i)
    if (c.error_location[i] && PyObject_SetAttrString(error.get(), location_names[i], c.error_location[i].get()) < 0)
      PyErr_Clear(); // the error still goes up, without that part of its position
  PyErr_SetObject(c.error_type.get(), error.get());
}

/// The host string a thread ran last, and where its entry was.
struct last_run {
  kest::Any user; // kept, so that its address is not reused for another string
  code_mode mode = code_mode::statements;
  std::vector<kest::String> names;
  std::uint64_t generation = 0;      // the cache's count of dropped entries then
  std::list<entry>::iterator position; // valid while no entry has been dropped since
};

bool same_names(std::span<const kest::String> a, std::span<const kest::String> b) {
  return std::equal(a.begin(), a.end(), b.begin(), b.end(),
                    [](const kest::String &x, const kest::String &y) { return x.view() == y.view(); });
}

class code_cache {
public:
  PyObject *get_of(const kest::String &user, code_mode mode, std::span<const kest::String> names, text_maker make) {
    thread_local last_run last;
    if (last.user.isSame(user) && last.mode == mode && last.generation == m_dropped && same_names(last.names, names)) {
      ++m_hits;
      m_order.splice(m_order.begin(), m_order, last.position);
      return result_of(last.position->result);
    }
    std::string made;
    std::string_view text = user.utf8View();
    if (make) {
      made = make(text, names);
      text = made;
    }
    PyObject *result = get(text, mode);
    // Remembered only when the text has its entry now: the one just used is first.
    if (!m_order.empty() && m_order.front().mode == mode && m_order.front().text == text)
      last = {user, mode, {names.begin(), names.end()}, m_dropped, m_order.begin()};
    return result;
  }

  PyObject *get(std::string_view text, code_mode mode) {
    if (auto found = m_index.find(cache_key{mode, text}); found != m_index.end()) {
      ++m_hits;
      m_order.splice(m_order.begin(), m_order, found->second); // now the most recently used
      return result_of(found->second->result);
    }
    compiled made = compile_text(text, mode);
    if (!made.code && !made.error_type)
      return nullptr; // not a syntax error (out of memory, an interrupt, ...): not remembered
    // Compiling runs Python code, during which another thread may have cached
    // the same text: the first entry stays, and this lookup counts as its hit.
    if (auto found = m_index.find(cache_key{mode, text}); found != m_index.end()) {
      PyErr_Clear();
      ++m_hits;
      m_order.splice(m_order.begin(), m_order, found->second);
      return result_of(found->second->result);
    }
    ++m_misses;
    // This time the error that the compiler raised stays set.
    PyObject *result = nullptr;
    if (made.code) {
      Py_IncRef(made.code.get());
      result = made.code.get();
    }
    if (m_capacity > 0) {
      m_order.push_front(entry{std::string(text), mode, std::move(made)});
      m_index.emplace(cache_key{mode, m_order.front().text}, m_order.begin());
      trim();
    }
    return result;
  }

  void clear() {
    m_index.clear();
    m_order.clear();
    m_hits = m_misses = 0;
    ++m_dropped;
  }

  void set_capacity(std::size_t capacity) {
    m_capacity = capacity;
    trim();
  }

  code_cache_statistics statistics() const {
    return {m_hits, m_misses, static_cast<std::int64_t>(m_order.size()), static_cast<std::int64_t>(m_capacity)};
  }

private:
  static PyObject *result_of(const compiled &c) {
    if (c.code) {
      Py_IncRef(c.code.get());
      return c.code.get();
    }
    raise_again(c);
    return nullptr;
  }
  void trim() {
    while (m_order.size() > m_capacity) {
      m_index.erase(cache_key{m_order.back().mode, m_order.back().text});
      m_order.pop_back();
      ++m_dropped;
    }
  }

  std::list<entry> m_order; // most recently used first
  std::unordered_map<cache_key, std::list<entry>::iterator, key_hash> m_index;
  std::size_t m_capacity = default_code_cache_capacity;
  std::int64_t m_hits = 0, m_misses = 0;
  std::uint64_t m_dropped = 0; // entries dropped so far: a remembered position is valid while it stays
};

/// Kept for the life of the process: its code objects must not be released
/// after the interpreter is gone.
code_cache &cache() {
  static auto *c = new code_cache;
  return *c;
}

} // namespace

PyObject *compiledCode(const kest::String &user, code_mode mode, std::span<const kest::String> names,
                       text_maker make) {
  return cache().get_of(user, mode, names, make);
}

void clearCodeCache() { cache().clear(); }

void setCodeCacheCapacity(std::size_t capacity) { cache().set_capacity(capacity); }

code_cache_statistics codeCacheStatistics() { return cache().statistics(); }

} // namespace sarvode
