// The streams that stand in for sys.stdout and sys.stderr while the host
// captures output. They are Python objects (made from the source below, in a
// namespace of their own), so that everything that writes to a text stream
// can write to them.

#include "language/output_capture.hpp"

#include "language/host_stream.hpp"
#include "runtime/python_ready.hpp"
#include "runtime/python_shutdown.hpp"

#include <kest/error.hpp>
#include <kest/callable.hpp>

#include <atomic>

namespace sarvode {

namespace {

// Each thread's text is kept apart until it ends a line, so that lines written
// by threads at once (print writes its text and its newline apart) reach the
// host whole. The stream's write, flush and flush_all are made in C
// (host_stream.cpp) and set on each stream object; the delivery lock keeps
// the host's calls one at a time, in the order of the writes, and apart from
// a switch of the streams.
constexpr const char *capture_source = R"(import io, sys

class HostStream(io.TextIOBase):
    """sys.stdout or sys.stderr while the host captures output."""

    encoding = 'utf-8'
    errors = 'strict'
    line_buffering = True

    def __init__(self, stream, functions):
        self._stream = stream
        # Found before the class's methods: print's text goes straight to C.
        self.write, self.flush, self.flush_all = functions

    @property
    def name(self):
        return '<' + self._stream + '>'

    def writable(self):
        return True

    def isatty(self):
        return False


class _DeliveryLock:
    """The lock of the streams' deliveries to the host (host_stream.cpp)."""

    def __enter__(self):
        _delivery_lock[0]()

    def __exit__(self, *exc):
        _delivery_lock[1]()


lock = _DeliveryLock()
saved = None


def retarget_logging(replacements):
    logging = sys.modules.get('logging')
    if logging is None:
        return
    for ref in list(getattr(logging, '_handlerList', ())):
        handler = ref()
        if isinstance(handler, logging.StreamHandler) and not isinstance(handler, logging.FileHandler):
            for old, new in replacements:
                if handler.stream is old:
                    try:
                        handler.setStream(new)
                    except AttributeError:
                        pass  # logging's last resort reads sys.stderr each time already


def flush_all():
    if saved is not None:
        for stream in saved[2]:
            stream.flush_all()


def flush_thread():
    if saved is not None:
        for stream in saved[2]:
            stream.flush()


def redirect(functions):
    """functions: the (write, flush, flush_all) of stdout and of stderr, or
    None to put the streams back."""
    global saved
    with lock:
        if saved is not None:
            out, err, ours = saved
            flush_all()
            saved = None
            retarget_logging([(ours[0], out), (ours[1], err)])
            if sys.stdout is ours[0]:
                sys.stdout = out
            if sys.stderr is ours[1]:
                sys.stderr = err
        if functions is None:
            return
        ours = (HostStream('stdout', functions[0]), HostStream('stderr', functions[1]))
        for stream in (sys.stdout, sys.stderr):
            try:
                stream.flush()  # what the old streams hold goes out before the new text
            except Exception:
                pass
        saved = (sys.stdout, sys.stderr, ours)
        retarget_logging([(sys.stdout, ours[0]), (sys.stderr, ours[1])])
        sys.stdout, sys.stderr = ours
)";

/// The namespace that holds the streams and their functions; made once, kept
/// for the process.
PyObject *capture_namespace() {
  // Guarded by the interpreter lock, not by a static's initialization guard:
  // making it runs Python, which lets other threads run, and one of them
  // waiting on a guard while holding the interpreter lock would wait for ever.
  // Two threads may make it at once; the first one stored is kept.
  static PyObject *made = nullptr;
  if (made)
    return made;
  auto globals = py::object::steal(PyDict_New());
  auto lock = py::object::steal(makeDeliveryLockFunctions());
  if (!globals || !lock || PyDict_SetItemString(globals.get(), "_delivery_lock", lock.get()) < 0)
    return nullptr;
  auto done = py::object::steal(runWithBuiltin("exec", capture_source, globals.get(), globals.get()));
  if (!done)
    return nullptr;
  if (!made)
    made = globals.release(); // kept for the process
  return made;
}

std::atomic<bool> g_redirected{false};

/// Calls the namespace's function `name` with `argument`; false with a Python error set on failure.
bool call_in_namespace(const char *name, PyObject *argument) {
  PyObject *space = capture_namespace();
  PyObject *function = space ? PyDict_GetItemString(space, name) : nullptr; // borrowed
  if (!function) {
    if (!PyErr_Occurred())
      PyErr_SetString(PyExc_RuntimeError, "the output capture is not available");
    return false;
  }
  auto result = py::object::steal(argument ? PyObject_CallFunctionObjArgs(function, argument, nullptr)
                                           : PyObject_CallFunctionObjArgs(function, nullptr));
  return static_cast<bool>(result);
}

/// The write, flush and flush_all of both streams, for `redirect`.
py::object stream_functions(const kest::Any &sink) {
  auto out = py::object::steal(makeHostStreamFunctions("stdout", sink));
  auto err = out ? py::object::steal(makeHostStreamFunctions("stderr", sink)) : py::object();
  return err ? py::object::steal(PyTuple_Pack(2, out.get(), err.get())) : py::object();
}

kest::Error error_from_python_now() {
  PyObject *type = nullptr, *value = nullptr, *traceback = nullptr;
  PyErr_Fetch(&type, &value, &traceback);
  auto t = py::object::steal(type), v = py::object::steal(value), tb = py::object::steal(traceback);
  auto text = py::object::steal(v ? PyObject_Str(v.get()) : nullptr);
  PyErr_Clear();
  return kest::Error(kest::String::fromUtf8(std::string("The output could not be redirected: ") +
                                            std::string(text ? py::utf8(text.get()) : std::string_view())));
}

} // namespace

kest::Result<kest::None> redirectOutput(const kest::Any &sink) {
  const bool stop = kest::is_none(sink);
  if (!stop && !kest::I_Callable_Generic::isInstance(sink))
    return kest::Error(kest::String(u"redirect_output takes a callable (stream, text), or None to stop."));
  if (pythonShutDown())
    return kest::Error(kest::String(u"Python has been shut down."));
  ensurePythonReady();
  py::gil lock;
  auto target = stop ? py::object::borrow(Py_None) : stream_functions(sink);
  if (!target || !call_in_namespace("redirect", target.get()))
    return error_from_python_now();
  g_redirected = !stop;
  return kest::None();
}

void flushRedirectedOutput() {
  if (!g_redirected.load(std::memory_order_relaxed))
    return;
  PyObject *type = nullptr, *value = nullptr, *traceback = nullptr;
  PyErr_Fetch(&type, &value, &traceback); // the evaluation's own error waits meanwhile
  if (!call_in_namespace("flush_thread", nullptr))
    PyErr_Clear(); // the sink failed: its error must not replace the evaluation's
  PyErr_Restore(type, value, traceback);
}

} // namespace sarvode
