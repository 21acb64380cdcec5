#pragma once
/// Python for a C++ host in a few calls (link `kest::python`).
///
///     kest::python::start();                                // once, from any thread
///     kest::python::scope s{{"price", 12.5}, {"count", 3}};
///     s.out("total", 0.0);                                  // assigned by the code, read back
///     auto r = kest::python::exec("total = price * count\nreturn total > 30", s);
///     double total = kest::to<double>(s["total"]);          // 37.5
///     auto json = kest::python::import_module("json");
///     auto text = kest::python::call(json, "dumps", "ok");       // "\"ok\""
///     kest::python::gil hold;                               // one lock for a loop of calls
///
/// Every function returns errors as values, as the object model does (a
/// `kest::Error`, with the Python type, message and line); only the checked
/// accessors (`as<T>()`, `kest::to<T>()`) throw, and only when asked to read
/// a value as what it is not.

#include <kest/kest.hpp>

#include <functional>
#include <initializer_list>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace kest::python {

/// The Python a process runs with.
struct interpreter {
  std::string version;    ///< "3.12.1"; empty before one is loaded
  std::string library;    ///< the Python library file
  std::string executable; ///< the program Python takes as sys.executable; empty when the host loaded Python itself
};

/// Loads the Python library, once: `python` when given (a python3 program, a
/// virtual environment's bin/python, or a libpython3.X.so), else the one
/// named by the environment variable SARVODE_PYTHON, else the activated
/// virtual environment's (VIRTUAL_ENV), else the Python this build was made
/// with. A process that has loaded Python itself keeps it. A Python older
/// than `oldest_python()` is refused. `start` calls it. Messages name
/// `python` as `named_as` ("--python /bin/ls is not a Python 3 program...").
Result<None> load_interpreter(const std::string &python = {}, std::string_view named_as = "Python");
/// The Python loaded so far.
interpreter loaded_interpreter();
/// The oldest Python this build serves: "3.11".
const char *oldest_python() noexcept;

/// What `start` loads.
struct options {
  std::string python{};    ///< as for `load_interpreter`; empty: the environment's choice
  std::string extension{}; ///< the path of sarvode_python.so; empty: the installed one
};

/// Loads Python (`load_interpreter(options.python)`) and the Python
/// extension, and runs the host's start-up handlers, which start Python. The
/// installed extension is `<libdir>/sarvode/extensions` beside the object
/// model's library. Idempotent and thread-safe: later calls, and calls in a
/// host that has already loaded the extension itself, return None at once.
Result<None> start(const options &options);
/// `start` with the extension at `extension` (empty: the installed one).
Result<None> start(const std::string &extension = {});

/// What an evaluation sees: names with values (converted as call arguments
/// are), and out-locals: names the code may assign, read back by name after
/// the evaluation.
class scope {
public:
  struct entry {
    template <class T>
    entry(std::string_view key, T &&initial) : name(key), value(host_value(std::forward<T>(initial))) {}
    std::string name;
    Any value;
  };
  scope() = default;
  scope(std::initializer_list<entry> locals);

  /// Adds a name with a value (converted as call arguments are).
  template <class T> scope &set(std::string_view name, T &&value) {
    return set_local(name, host_value(std::forward<T>(value)));
  }
  /// Adds an out-local with its value before the evaluation.
  template <class T> scope &out(std::string_view name, T &&initial) {
    return set_out(name, host_value(std::forward<T>(initial)));
  }
  /// An out-local's value now (after an evaluation, what the code assigned);
  /// None for a name that is no out-local.
  [[nodiscard]] Any operator[](std::string_view name) const;
  /// The object the code sees as `self`.
  scope &self(const Any &value);

  /// The scope as the language takes it.
  [[nodiscard]] EvaluationScope evaluation_scope() const;

private:
  scope &set_local(std::string_view name, const Any &value);
  scope &set_out(std::string_view name, const Any &initial);

  HashMap m_locals{String::getType(), Type()};
  HashMap m_out{String::getType(), Type()};
  Any m_self;
};

/// Runs statements as the body of a function: `return` gives the result
/// (None without one).
Result<Any> exec(std::string_view code, const scope &names = {});
/// Evaluates one expression.
Result<Any> eval(std::string_view expression, const scope &names = {});
/// The same in the read-only sandbox.
Result<Any> exec_sandboxed(std::string_view code, const scope &names = {});
Result<Any> eval_sandboxed(std::string_view expression, const scope &names = {});

/// The Python module `name` ("json", "os.path"), imported as Python imports it.
Result<Any> import_module(std::string_view name);
/// An attribute of a Python (or host) object.
Result<Any> attr(const Any &object, std::string_view name);
/// Calls a callable Python (or host) object with the arguments as they are.
Result<Any> call_with(const Any &callable, std::vector<Any> args);
/// Calls the object itself: `call(fn, 1, "x")`.
template <class... A> Result<Any> call(const Any &callable, A &&...args) {
  return call_with(callable, {host_value(std::forward<A>(args))...});
}
/// Calls a method: `call(json, "dumps", value)`.
template <class... A> Result<Any> call(const Any &object, const char *method, A &&...args) {
  auto found = attr(object, method);
  if (found.isError())
    return found;
  return call_with(found.as<Any>(), {host_value(std::forward<A>(args))...});
}

/// Holds Python's interpreter lock (the GIL) on this thread for its lifetime,
/// for a host loop that enters Python many times in a row: the wrappers of
/// Python objects find the lock held and do not take it per call.
///
///     kest::python::gil hold;
///     for (const kest::Any &item : list.as<kest::I_Iterable>())  // a Python list
///       total += kest::to<std::int64_t>(item);
///
/// Scopes nest, and each thread opens its own. While one is open, every other
/// thread that enters Python waits for it to end, so the loop must not wait
/// for such a thread. Before `start`, and after Python ended, it holds nothing.
class gil {
public:
  gil() noexcept;
  ~gil();
  gil(const gil &) = delete;
  gil &operator=(const gil &) = delete;
  /// Whether the scope holds the lock.
  [[nodiscard]] bool held() const noexcept { return m_held; }

private:
  bool m_held;
};

/// The calling thread's identity, for `interrupt`.
Any current_thread();
/// Makes the evaluation running on `thread` raise KeyboardInterrupt; true when
/// one was running there.
bool interrupt(const Any &thread);

/// Runs `fn` on this thread and returns what Python code printed to stdout
/// and stderr meanwhile, on this thread, in order. Each thread's capture is its
/// own; output of threads that capture nothing goes to the process's streams
/// as before. The first call takes over `kest.cpython.redirect_output`.
std::string capture_output(const std::function<void()> &fn);

} // namespace kest::python
