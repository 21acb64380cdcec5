#pragma once
// The extension's window on CPython: the limited API only, and two small
// helpers that make reference ownership and the interpreter lock visible.

#include <Python.h>

#include <string_view>
#include <utility>

namespace sarvode::py {

namespace detail {
/// How many lock scopes of this thread are open. Only the outermost takes the
/// interpreter lock (its state kept beside the count); the scopes inside it
/// (one per entry into Python while a host loop holds the lock, say) cost an
/// increment. A thread that lets the lock go while scopes are open does so
/// through `released`.
inline thread_local int t_lock_depth = 0;
inline thread_local PyGILState_STATE t_lock_state{};
/// Whether this thread's first lock scope has looked at its Python thread state.
inline thread_local bool t_state_settled = false;
/// Gives a thread that Python does not know a thread state of its own, kept
/// until the thread ends. Without it, every outermost lock scope of such a
/// thread would make a thread state and free it again (with its frame stack),
/// about forty times the cost of the call inside, and would lose the thread's
/// `threading.local` values and context variables between calls.
void settle_thread_state() noexcept;
} // namespace detail

/// Opens a lock scope on this thread; false (nothing to close) when Python is
/// not running. Once the interpreter is finalizing, the only thread that runs
/// Python already holds the lock, and after it there is no lock to take.
inline bool enter_lock() noexcept {
  if (detail::t_lock_depth > 0) {
    ++detail::t_lock_depth;
    return true;
  }
  if (!Py_IsInitialized())
    return false;
  if (!detail::t_state_settled) [[unlikely]]
    detail::settle_thread_state();
  detail::t_lock_state = PyGILState_Ensure();
  detail::t_lock_depth = 1;
  return true;
}
/// Closes the scope that a true `enter_lock` opened.
inline void leave_lock() noexcept {
  if (--detail::t_lock_depth == 0)
    PyGILState_Release(detail::t_lock_state);
}

/// Holds the interpreter lock for its lifetime (nests safely).
class gil {
public:
  gil() noexcept : m_entered(enter_lock()) {}
  ~gil() {
    if (m_entered)
      leave_lock();
  }
  gil(const gil &) = delete;
  gil &operator=(const gil &) = delete;

private:
  bool m_entered;
};

/// Lets the interpreter lock go for its lifetime, from a thread that holds
/// it: other threads run Python meanwhile, and this thread's lock scopes take
/// it again should any open before the end.
class released {
public:
  released() noexcept
      : m_depth(std::exchange(detail::t_lock_depth, 0)), m_lock_state(detail::t_lock_state),
        m_thread(PyEval_SaveThread()) {}
  ~released() {
    PyEval_RestoreThread(m_thread);
    detail::t_lock_depth = m_depth;
    detail::t_lock_state = m_lock_state;
  }
  released(const released &) = delete;
  released &operator=(const released &) = delete;

private:
  int m_depth;
  PyGILState_STATE m_lock_state;
  PyThreadState *m_thread;
};

/// One owned Python reference. Made only through `steal` or `borrow`; its
/// release takes the interpreter lock, so it is correct on any thread and on
/// every error path.
class object {
public:
  object() noexcept = default;
  object(object &&o) noexcept : m_ptr(std::exchange(o.m_ptr, nullptr)) {}
  object &operator=(object &&o) noexcept {
    object(std::move(o)).swap(*this);
    return *this;
  }
  object(const object &) = delete;
  object &operator=(const object &) = delete;
  ~object() { reset(); }

  /// Takes over a new reference (may be null).
  [[nodiscard]] static object steal(PyObject *p) noexcept { return object(p); }
  /// Adds a reference to a borrowed one (may be null).
  [[nodiscard]] static object borrow(PyObject *p) noexcept {
    if (p) {
      gil lock;
      Py_IncRef(p);
    }
    return object(p);
  }

  /// After the interpreter ended (or while it ends) the reference is let go
  /// of: there is nothing left to release it to.
  void reset() noexcept {
    PyObject *p = std::exchange(m_ptr, nullptr);
    if (!p)
      return;
    if (detail::t_lock_depth > 0) { // this thread holds the lock: Python runs
      Py_DecRef(p);
    } else if (Py_IsInitialized()) {
      gil lock;
      Py_DecRef(p);
    }
  }
  /// Hands the reference to the caller.
  [[nodiscard]] PyObject *release() noexcept { return std::exchange(m_ptr, nullptr); }
  [[nodiscard]] PyObject *get() const noexcept { return m_ptr; }
  explicit operator bool() const noexcept { return m_ptr != nullptr; }
  void swap(object &o) noexcept { std::swap(m_ptr, o.m_ptr); }

private:
  explicit object(PyObject *p) noexcept : m_ptr(p) {}
  PyObject *m_ptr = nullptr;
};

/// The extension's own type made from `spec` on first use and kept in `cache`
/// for the process (never freed); null with a Python error when it cannot be
/// made. The caller holds the interpreter lock, which guards the cache.
inline PyTypeObject *type_from_spec(PyType_Spec &spec, PyTypeObject *&cache) {
  if (!cache)
    cache = reinterpret_cast<PyTypeObject *>(PyType_FromSpec(&spec));
  return cache;
}

/// The UTF-8 text of a str, viewed in the object's own cached form (valid while
/// the object lives); empty for anything that has none, with no error left pending.
/// The caller holds the interpreter lock.
inline std::string_view utf8(PyObject *text) noexcept {
  Py_ssize_t size = 0;
  const char *data = text && PyUnicode_Check(text) ? PyUnicode_AsUTF8AndSize(text, &size) : nullptr;
  if (!data) {
    PyErr_Clear();
    return {};
  }
  return {data, static_cast<std::size_t>(size)};
}

} // namespace sarvode::py
