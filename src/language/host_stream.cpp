// The write, flush and flush_all of a captured stream. They are builtins
// bound to a capsule that holds the stream's state, and are set on the
// Python stream object as instance attributes, so print's lookup of "write"
// reaches C at once. Everything here runs inside those builtins, where the
// caller holds the interpreter lock.

#include "language/host_stream.hpp"

#include "convert/from_python.hpp"
#include "convert/to_python.hpp"

#include <kest/callable.hpp>
#include <kest/error.hpp>
#include <kest/string.hpp>

#include <array>
#include <atomic>
#include <memory>
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
    std::swap(m_ptr, o.m_ptr);
    return *this;
  }
  held(const held &) = delete;
  held &operator=(const held &) = delete;
  ~held() { Py_XDECREF(m_ptr); }
  [[nodiscard]] PyObject *get() const noexcept { return m_ptr; }
  explicit operator bool() const noexcept { return m_ptr != nullptr; }

private:
  explicit held(PyObject *p) noexcept : m_ptr(p) {}
  PyObject *m_ptr = nullptr;
};

/// One lock for every delivery, reentrant (a sink may print). A thread that
/// must wait lets go of the interpreter lock meanwhile, so that the thread
/// holding this one can finish its sink call even when that runs Python.
class delivery_lock {
public:
  static void acquire() {
    const unsigned long me = PyThread_get_thread_ident();
    if (s_owner.load(std::memory_order_relaxed) == me) {
      ++s_depth;
      return;
    }
    if (!PyThread_acquire_lock(lock(), NOWAIT_LOCK)) {
      PyThreadState *saved = PyEval_SaveThread();
      (void)PyThread_acquire_lock(lock(), WAIT_LOCK);
      PyEval_RestoreThread(saved);
    }
    s_owner.store(me, std::memory_order_relaxed);
    s_depth = 1;
  }
  /// False when the calling thread does not hold it.
  static bool release() {
    if (s_owner.load(std::memory_order_relaxed) != PyThread_get_thread_ident())
      return false;
    if (--s_depth == 0) {
      s_owner.store(0, std::memory_order_relaxed);
      PyThread_release_lock(lock());
    }
    return true;
  }

private:
  static PyThread_type_lock lock() {
    static PyThread_type_lock made = PyThread_allocate_lock(); // kept for the process
    return made;
  }
  static inline std::atomic<unsigned long> s_owner{0};
  static inline int s_depth = 0; // touched only by the owner
};

struct stream_state {
  kest::String name;
  kest::Any sink;
  /// Per thread, the text that waits for a newline; few threads write, so a
  /// short list searched in order beats a hash table.
  std::vector<std::pair<unsigned long, held>> pending;

  held *waiting(unsigned long thread) {
    for (auto &[owner, text] : pending)
      if (owner == thread)
        return &text;
    return nullptr;
  }
};

stream_state *state_of(PyObject *capsule) {
  return static_cast<stream_state *>(PyCapsule_GetPointer(capsule, capsule_name));
}

/// Hands `text` (a str) to the sink under the delivery lock; false with a
/// Python error set when the sink failed.
bool deliver(stream_state &state, PyObject *text) {
  const std::array<kest::Any, 2> arguments{state.name, fromPython(text)};
  delivery_lock::acquire();
  auto outcome = kest::internal::result_unwrap_lazy(
      kest::I_Callable_Generic::unsafeFrom(state.sink).callWith(std::span<const kest::Any>(arguments)));
  (void)delivery_lock::release();
  if (!kest::Error::isInstance(outcome))
    return true; // the sink's own result is not shown
  (void)held::steal(toPythonLocked(outcome)); // raises it
  return false;
}

PyObject *write(PyObject *capsule, PyObject *text) {
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
  held *slot = state->waiting(PyThread_get_thread_ident());
  held whole;
  if (slot && *slot) {
    whole = held::steal(PyUnicode_Concat(slot->get(), text));
    if (!whole)
      return nullptr;
    *slot = held();
  } else {
    whole = held::borrow(text);
  }
  const Py_ssize_t size = PyUnicode_GetLength(whole.get());
  const Py_ssize_t newline = size ? PyUnicode_FindChar(whole.get(), '\n', 0, size, -1) : -1;
  if (newline == -2)
    return nullptr;
  const Py_ssize_t end = newline + 1; // 0 without a newline
  if (end < size) {
    auto rest = end == 0 ? std::move(whole) : held::steal(PyUnicode_Substring(whole.get(), end, size));
    if (!rest)
      return nullptr;
    if (!slot) {
      state->pending.emplace_back(PyThread_get_thread_ident(), held());
      slot = &state->pending.back().second;
    }
    *slot = std::move(rest);
  }
  if (end > 0) {
    auto lines = end == size ? std::move(whole) : held::steal(PyUnicode_Substring(whole.get(), 0, end));
    if (!lines || !deliver(*state, lines.get()))
      return nullptr;
  }
  return PyLong_FromSsize_t(length);
}

PyObject *flush(PyObject *capsule, PyObject *) {
  auto *state = state_of(capsule);
  if (!state)
    return nullptr;
  if (held *slot = state->waiting(PyThread_get_thread_ident()); slot && *slot) {
    held text = std::move(*slot);
    if (!deliver(*state, text.get()))
      return nullptr;
  }
  Py_RETURN_NONE;
}

PyObject *flush_all(PyObject *capsule, PyObject *) {
  auto *state = state_of(capsule);
  if (!state)
    return nullptr;
  // Taken out first: a sink that lets other threads run must not see the list change under it.
  auto pending = std::exchange(state->pending, {});
  for (auto &[thread, text] : pending)
    if (text && !deliver(*state, text.get()))
      return nullptr;
  Py_RETURN_NONE;
}

PyObject *acquire(PyObject *, PyObject *) {
  delivery_lock::acquire();
  Py_RETURN_NONE;
}

PyObject *release(PyObject *, PyObject *) {
  if (!delivery_lock::release()) {
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
  state->sink = sink;
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
