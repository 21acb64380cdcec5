// The write, flush and flush_all of a captured stream. They are builtins
// bound to a capsule that holds the stream's state, and are set on the
// Python stream object as instance attributes, so print's lookup of "write"
// reaches C at once. Everything here runs inside those builtins, where the
// caller holds the interpreter lock.

#include "language/host_stream.hpp"

#include "convert/from_python.hpp"
#include "convert/to_python.hpp"
#include "platform/platform.hpp"
#include "proxies/cpython_object.hpp"
#include "pyobject/slots.hpp"

#include <kest/callable.hpp>
#include <kest/error.hpp>
#include <kest/string.hpp>

#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <span>
#include <utility>
#include <vector>

namespace sarvode {

namespace {

constexpr const char *capsule_name = "sarvode.host_stream";

/// A reference owned by code that always holds the interpreter lock: its
/// release does not take the lock again (a write would pay for it twice).
class held {
public:
  held() noexcept = default;
  static held steal(PyObject *p) noexcept { return held(p); }
  static held borrow(PyObject *p) noexcept {
    Py_XINCREF(p);
    return held(p);
  }
  held(held &&o) noexcept : m_ptr(std::exchange(o.m_ptr, nullptr)) {}
  held &operator=(held &&o) noexcept {
    held(std::move(o)).swap(*this); // the old reference goes with the temporary
    return *this;
  }
  held(const held &) = delete;
  held &operator=(const held &) = delete;
  ~held() { Py_XDECREF(m_ptr); }
  void swap(held &o) noexcept { std::swap(m_ptr, o.m_ptr); }
  [[nodiscard]] PyObject *get() const noexcept { return m_ptr; }
  explicit operator bool() const noexcept { return m_ptr != nullptr; }

private:
  explicit held(PyObject *p) noexcept : m_ptr(p) {}
  PyObject *m_ptr = nullptr;
};

/// One lock for every delivery and every change of the waiting text,
/// reentrant (a sink may print). Its owner changes only under the interpreter
/// lock (every caller is a builtin that Python called), so taking it when it
/// is free costs two stores. A thread that finds it held lets go of the
/// interpreter lock and sleeps until the holder gives it back, so that the
/// holder can finish even when its sink runs Python; between naps it runs
/// Python's signal handlers, which may end the wait with their exception.
class delivery_lock {
public:
  /// False with a Python error set when the wait was ended.
  static bool acquire(unsigned long me) {
    if (s_owner.load(std::memory_order_relaxed) == me) {
      ++s_depth;
      return true;
    }
    while (s_owner.load(std::memory_order_acquire) != 0) {
      {
        py::released unlocked;
        auto &w = waiting();
        std::unique_lock guard(w.mutex);
        (void)w.released.wait_for(guard, std::chrono::milliseconds(10),
                                  [] { return s_owner.load(std::memory_order_acquire) == 0; });
      }
      if (PyErr_CheckSignals() < 0)
        return false;
    }
    s_owner.store(me, std::memory_order_relaxed);
    s_depth = 1;
    return true;
  }
  /// False when the calling thread does not hold it.
  static bool release(unsigned long me) {
    if (s_owner.load(std::memory_order_relaxed) != me)
      return false;
    if (--s_depth == 0) {
      s_owner.store(0, std::memory_order_release);
      auto &w = waiting();
      { std::lock_guard guard(w.mutex); } // a waiter between its test and its sleep is woken
      w.released.notify_all();
    }
    return true;
  }

private:
  struct wait_state {
    std::mutex mutex;
    std::condition_variable released;
  };
  static wait_state &waiting() {
    static const bool made = [] {
      platform::after_fork_in_child(&remake);
      s_state = new wait_state(); // kept for the process
      return true;
    }();
    (void)made;
    return *s_state;
  }
  /// In a forked child only the forking thread lives on: whoever held the
  /// lock, or the mutex, is gone.
  static void remake() {
    s_state = new wait_state();
    s_owner.store(0, std::memory_order_relaxed);
    s_depth = 0;
  }
  static inline wait_state *s_state = nullptr;
  static inline std::atomic<unsigned long> s_owner{0};
  static inline int s_depth = 0; // touched only by the owner
};

/// Holds the delivery lock for a scope.
class delivery_scope {
public:
  explicit delivery_scope(unsigned long thread) : m_thread(thread), m_taken(delivery_lock::acquire(thread)) {}
  ~delivery_scope() {
    if (m_taken)
      (void)delivery_lock::release(m_thread);
  }
  delivery_scope(const delivery_scope &) = delete;
  delivery_scope &operator=(const delivery_scope &) = delete;
  [[nodiscard]] bool taken() const noexcept { return m_taken; }

private:
  unsigned long m_thread;
  bool m_taken;
};

struct stream_state {
  kest::String name;
  held python_name;   // the same, as a str, for a Python sink
  kest::Any sink;
  held python_sink;   // the Python callable when the sink is one: called as Python calls it
  /// Per thread, the text (an exact str) that waits for a newline; few
  /// threads write at once, so a short list searched in order beats a hash
  /// table. An entry leaves the list when its text is handed over.
  std::vector<std::pair<unsigned long, held>> pending;

  std::size_t position(unsigned long thread) const {
    for (std::size_t i = 0; i < pending.size(); ++i)
      if (pending[i].first == thread)
        return i;
    return pending.size();
  }
  /// Takes the thread's waiting text out of the list (empty when none).
  held take(unsigned long thread) {
    const auto at = position(thread);
    if (at == pending.size())
      return {};
    held text = std::move(pending[at].second);
    pending[at] = std::move(pending.back());
    pending.pop_back();
    return text;
  }
};

stream_state *state_of(PyObject *capsule) {
  return static_cast<stream_state *>(PyCapsule_GetPointer(capsule, capsule_name));
}

/// Hands `text` (an exact str) to the sink; the caller holds the delivery
/// lock. False with a Python error set when the sink failed.
bool deliver(stream_state &state, PyObject *text) {
  if (state.python_sink) {
    auto result = held::steal(
        PyObject_CallFunctionObjArgs(state.python_sink.get(), state.python_name.get(), text, nullptr));
    return static_cast<bool>(result);
  }
  const std::array<kest::Any, 2> arguments{state.name, fromPython(text)};
  auto outcome = kest::internal::result_unwrap_lazy(
      kest::I_Callable_Generic::unsafeFrom(state.sink).callWith(std::span<const kest::Any>(arguments)));
  if (!kest::Error::isInstance(outcome))
    return true; // the sink's own result is not shown
  (void)held::steal(toPythonLocked(outcome)); // raises it
  return false;
}

PyObject *write(PyObject *capsule, PyObject *text) {
  return guarded<PyObject *>(nullptr, [&]() -> PyObject * {
    auto *state = state_of(capsule);
    if (!state)
      return nullptr;
    if (!PyUnicode_Check(text)) {
      auto type_name = held::steal(PyType_GetName(Py_TYPE(text)));
      if (type_name)
        PyErr_Format(PyExc_TypeError, "write() argument must be str, not %U", type_name.get());
      return nullptr;
    }
    const Py_ssize_t length = PyUnicode_GetLength(text);
    if (length < 0)
      return nullptr;
    const unsigned long thread = PyThread_get_thread_ident();
    delivery_scope scope(thread);
    if (!scope.taken())
      return nullptr;
    // An exact str from here on: what waits and what the sink gets is plain
    // text, whose release runs no Python.
    held waiting = state->take(thread);
    held whole = waiting ? held::steal(PyUnicode_Concat(waiting.get(), text))
                 : PyUnicode_CheckExact(text) ? held::borrow(text)
                                              : held::steal(PyUnicode_Substring(text, 0, length));
    if (!whole)
      return nullptr;
    const Py_ssize_t size = PyUnicode_GetLength(whole.get());
    const Py_ssize_t newline = size ? PyUnicode_FindChar(whole.get(), '\n', 0, size, -1) : -1;
    if (newline == -2)
      return nullptr;
    const Py_ssize_t end = newline + 1; // 0 without a newline
    if (end < size) {
      auto rest = end == 0 ? std::move(whole) : held::steal(PyUnicode_Substring(whole.get(), end, size));
      if (!rest)
        return nullptr;
      state->pending.emplace_back(thread, std::move(rest));
    }
    if (end > 0) {
      auto lines = end == size ? std::move(whole) : held::steal(PyUnicode_Substring(whole.get(), 0, end));
      if (!lines || !deliver(*state, lines.get()))
        return nullptr;
    }
    return PyLong_FromSsize_t(length);
  });
}

PyObject *flush(PyObject *capsule, PyObject *) {
  return guarded<PyObject *>(nullptr, [&]() -> PyObject * {
    auto *state = state_of(capsule);
    if (!state)
      return nullptr;
    const unsigned long thread = PyThread_get_thread_ident();
    delivery_scope scope(thread);
    if (!scope.taken())
      return nullptr;
    if (held text = state->take(thread); text && !deliver(*state, text.get()))
      return nullptr;
    Py_RETURN_NONE;
  });
}

PyObject *flush_all(PyObject *capsule, PyObject *) {
  return guarded<PyObject *>(nullptr, [&]() -> PyObject * {
    auto *state = state_of(capsule);
    if (!state)
      return nullptr;
    delivery_scope scope(PyThread_get_thread_ident());
    if (!scope.taken())
      return nullptr;
    // Taken out first: a sink that prints must not see the list change under it.
    auto pending = std::exchange(state->pending, {});
    for (auto &[thread, text] : pending)
      if (!deliver(*state, text.get()))
        return nullptr;
    Py_RETURN_NONE;
  });
}

PyObject *acquire(PyObject *, PyObject *) {
  if (!delivery_lock::acquire(PyThread_get_thread_ident()))
    return nullptr;
  Py_RETURN_NONE;
}

PyObject *release(PyObject *, PyObject *) {
  if (!delivery_lock::release(PyThread_get_thread_ident())) {
    PyErr_SetString(PyExc_RuntimeError, "cannot release un-acquired lock");
    return nullptr;
  }
  Py_RETURN_NONE;
}

PyMethodDef write_method{"write", &write, METH_O, "Writes text; whole lines go to the host."};
PyMethodDef flush_method{"flush", &flush, METH_NOARGS, "Hands this thread's waiting text to the host."};
PyMethodDef flush_all_method{"flush_all", &flush_all, METH_NOARGS, "Hands every thread's waiting text to the host."};
PyMethodDef acquire_method{"acquire", &acquire, METH_NOARGS, "Takes the delivery lock."};
PyMethodDef release_method{"release", &release, METH_NOARGS, "Gives the delivery lock back."};

void destroy(PyObject *capsule) { delete state_of(capsule); }

} // namespace

PyObject *makeHostStreamFunctions(const char *name, const kest::Any &sink) {
  auto state = std::make_unique<stream_state>();
  state->name = kest::String::fromUtf8(name);
  state->python_name = held::steal(PyUnicode_FromString(name));
  if (!state->python_name)
    return nullptr;
  state->sink = sink;
  if (isPythonBacked(sink))
    state->python_sink = held::borrow(pythonObjectOf(sink));
  auto capsule = held::steal(PyCapsule_New(state.get(), capsule_name, &destroy));
  if (!capsule)
    return nullptr;
  (void)state.release(); // the capsule owns it now
  auto w = held::steal(PyCFunction_NewEx(&write_method, capsule.get(), nullptr));
  auto f = held::steal(PyCFunction_NewEx(&flush_method, capsule.get(), nullptr));
  auto a = held::steal(PyCFunction_NewEx(&flush_all_method, capsule.get(), nullptr));
  if (!w || !f || !a)
    return nullptr;
  return PyTuple_Pack(3, w.get(), f.get(), a.get());
}

PyObject *makeDeliveryLockFunctions() {
  auto a = held::steal(PyCFunction_NewEx(&acquire_method, nullptr, nullptr));
  auto r = held::steal(PyCFunction_NewEx(&release_method, nullptr, nullptr));
  if (!a || !r)
    return nullptr;
  return PyTuple_Pack(2, a.get(), r.get());
}

} // namespace sarvode
