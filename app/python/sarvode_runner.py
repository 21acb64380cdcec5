# The Python side of the sarvode command line. sarvode compiles this file into
# itself and runs it through the host's Python language, so the sandbox, the
# search paths and the host modules apply. It runs a script, a module, -c
# code, the standard input or the console the way python3 does (the code that
# runs as __main__ it stages for the host to run, with no frame of its own
# beneath), and ends a run the way python3 does (threads joined, exit
# handlers run, output flushed).
#
# Every function returns an exit status for the host: 0..255, or INTERRUPTED
# when KeyboardInterrupt ended the run (the host then ends by SIGINT, as
# python3 does, which a shell shows as 130).

import _signal  # not signal: python3 does not import it (nor enum) at start
import os
import sys

INTERRUPTED = -int(_signal.SIGINT)
_sources = {}  # the text of sarvode's other modules, by name; the host fills it
_make_module = None  # the host's maker of those modules; the host sets it
# The host compiles each of its Python modules under a name of this form.
RUNNER_FILE_PREFIX = "<sarvode "


def _python_of_this_installation():
    """The interpreter program of the embedded Python's own installation and
    version, found from its prefix; '' when there is none (as python3 leaves
    sys.executable when it cannot tell)."""
    prefix = sys.base_exec_prefix
    if os.name == "nt":
        candidates = [os.path.join(prefix, "python.exe")]
    else:
        major, minor = sys.version_info[:2]
        folder = os.path.join(prefix, "bin")
        exact = os.path.join(folder, f"python{major}.{minor}")
        candidates = [exact]
        # python3 only when it is the same program (a link to the exact name).
        for name in (f"python{major}", "python"):
            other = os.path.join(folder, name)
            if os.path.exists(exact) or not os.path.exists(other):
                continue
            if os.path.basename(os.path.realpath(other)) == f"python{major}.{minor}":
                candidates.append(other)
    for candidate in candidates:
        if os.path.isfile(candidate) and os.access(candidate, os.X_OK):
            return candidate
    return ""


def _prepare():
    # The interpreter starts without Python's own signal handlers; sarvode owns
    # its signals and wants Ctrl-C to raise KeyboardInterrupt, as in python3.
    # (The host itself ignores SIGPIPE and SIGXFSZ before Python starts.)
    # A SIGINT ignored from the start stays ignored, as python3 leaves it.
    # Only the main thread may set a handler (ValueError elsewhere).
    if _signal.getsignal(_signal.SIGINT) is not _signal.SIG_IGN:
        try:
            _signal.signal(_signal.SIGINT, _signal.default_int_handler)
        except ValueError:
            pass
    if sys.prefix != sys.base_prefix:
        return  # a virtual environment's program is sys.executable, as in python3
    executable = _python_of_this_installation()
    sys.executable = executable
    if hasattr(sys, "_base_executable"):
        sys._base_executable = executable  # multiprocessing and venv read it


_prepare()


# ---------------------------------------------------------------------------
# Errors: a compiler-style first line, then Python's own traceback.


def _trimmed(tb):
    """The traceback without the runner's own frames at its start."""
    while tb is not None and tb.tb_frame.f_code.co_filename.startswith(RUNNER_FILE_PREFIX):
        tb = tb.tb_next
    return tb


def _type_name(exc):
    """The exception's type as the last line of a traceback names it."""
    cls = type(exc)
    module = getattr(cls, "__module__", None)
    if not isinstance(module, str):
        return "<unknown>." + cls.__qualname__
    if module in ("__main__", "builtins"):
        return cls.__qualname__
    return module + "." + cls.__qualname__


def _first_line(exc, tb, user_files):
    where = None
    while tb is not None:
        if tb.tb_frame.f_code.co_filename in user_files:
            where = (tb.tb_frame.f_code.co_filename, tb.tb_lineno, None)
        tb = tb.tb_next
    try:
        message = str(exc)
    except Exception:
        message = "<exception str() failed>"
    if isinstance(exc, SyntaxError):
        message = exc.msg or message
        if where is None and exc.filename is not None:
            where = (exc.filename, exc.lineno, exc.offset)
    message = message.rstrip("\n")
    headline = f"{_type_name(exc)}: {message}" if message else _type_name(exc)
    if where is None:
        return f"sarvode: error: {headline}"
    file, line, column = where
    position = f"{file}:{line}" if line else file
    if line and column:
        position += f":{column}"
    return f"{position}: error: {headline}"


def report(exc, tb, user_files):
    """Prints an uncaught exception: the first line names the innermost frame
    of the user's own code, then sys.excepthook prints the traceback as
    python3 does. A script that set its own sys.excepthook gets only what
    its hook prints."""
    tb = _trimmed(tb)
    try:
        sys.stdout.flush()
    except Exception:
        pass
    if sys.excepthook is sys.__excepthook__:
        sys.stderr.write(_first_line(exc, tb, user_files) + "\n")
    exc.__traceback__ = tb  # the hook prints the exception's own traceback
    try:
        sys.excepthook(type(exc), exc, tb)
    except BaseException:
        sys.__excepthook__(type(exc), exc, tb)
    sys.stderr.flush()


def exit_status(exc):
    """The status for SystemExit, as python3 gives it."""
    code = exc.code
    if code is None:
        return 0
    if isinstance(code, int):
        # python3 reads it as a C long: one too large is -1, which is 255.
        if not -(2**63) <= code < 2**63:
            return 255
        return code & 0xFF
    try:
        sys.stderr.write(str(code) + "\n")
        sys.stderr.flush()
    except Exception:
        pass
    return 1


def _stderr_lost():
    err = sys.stderr
    try:
        return err is None or err.closed
    except Exception:
        return True


def _uncaught(exc, user_files):
    # Kept as python3 keeps them, for -i (pdb.pm(), traceback.print_last()).
    sys.last_type, sys.last_value = type(exc), exc
    sys.last_traceback = exc.__traceback__ = _trimmed(exc.__traceback__)
    if sys.version_info >= (3, 12):
        sys.last_exc = exc
    if _stderr_lost():
        # Nowhere to print a report: the hook says so as python3's does
        # ("lost sys.stderr" on the process's standard error).
        try:
            sys.excepthook(type(exc), exc, exc.__traceback__)
        except BaseException:
            sys.__excepthook__(type(exc), exc, exc.__traceback__)
        return
    report(exc, exc.__traceback__, user_files)


def _ended(exc, user_files):
    """The status for an exception that ended the code (None: it ended
    normally), reported as python3 reports it."""
    if exc is None:
        return 0
    if isinstance(exc, SystemExit):
        return exit_status(exc)
    _uncaught(exc, user_files)
    return INTERRUPTED if isinstance(exc, KeyboardInterrupt) else 1


def _guarded(action, user_files):
    try:
        action()
    except BaseException as exc:
        return _ended(exc, user_files)
    return 0


# ---------------------------------------------------------------------------
# The code that runs as __main__ runs from the host, with no frame of the
# runner beneath it (the host function run_main), as python3 runs it: the
# runner stages it, returns STAGED, and the host then runs it and calls
# after_main, which reports how it ended.

STAGED = -1000
main_target = None  # __main__'s code, its text as (source, filename), or runpy's entry to call
main_error = None  # what the staged code raised, set by the host
_after = None  # (user files, what to undo afterwards, the console to follow)


def _stage(prepare, user_files, undo=None):
    """Stages what prepare() returns, or reports the error it raised."""
    global main_target, main_error, _after
    target = []
    status = _guarded(lambda: target.append(prepare()), user_files)
    if not target:
        if undo is not None:
            undo()
        return status
    main_target, main_error = target[0], None
    _after = (user_files, undo, None)
    return STAGED


def after_main():
    """After the host ran the staged code: its status, as _guarded gives it,
    then the console when -i asked for it."""
    global main_error, _after
    user_files, undo, console = _after
    exc, main_error, _after = main_error, None, None
    if undo is not None:
        undo()
    try:
        status = _ended(exc, user_files)
    finally:
        exc = None  # its traceback holds the code's frames
    if console is not None:
        return _console_after_script(*console)
    return status


def _own_module(name):
    """One of sarvode's other modules (the console), made on first use, by the
    host's maker (_make_module), from the text the host handed over
    (_sources), so that a script run does not import what it imports."""
    module = sys.modules.get(name)
    return module if module is not None else _make_module(name, _sources[name])


def _console_after_script(history, host_names):
    run_console = _own_module("_sarvode_console").run_console

    return _guarded(lambda: run_console(history, host_names, after_script=True), {"<console>"})


# ---------------------------------------------------------------------------
# Modes.


def _main_module(host_names=None):
    """__main__, with python3's globals only; the console passes the host
    modules (kest, python), which it offers without an import."""
    import builtins

    main = sys.modules.get("__main__")
    if main is None:
        main = sys.modules["__main__"] = type(sys)("__main__")  # types.ModuleType, without importing types
    main.__dict__.setdefault("__builtins__", builtins)
    for name, value in (host_names or {}).items():
        main.__dict__.setdefault(name, value)
    return main


def _compiled(source, filename):
    """__main__'s code as a text for the host to compile, as
    compile(source, filename, "exec", dont_inherit=True) does: the builtin's
    first call would make every class of the ast module, a millisecond of
    each start that python3 does not spend."""
    _main_module()
    return (source, filename)


def _runpy_main(name, alter_argv):
    """runpy's entry for -m and for a folder or archive, which python3 calls
    from C: the host calls it with no frame of the runner beneath."""
    import runpy

    _main_module()
    # Called by the host with these arguments (not through functools, which
    # python3 -m does not import).
    return (runpy._run_module_as_main, (name, alter_argv))


def run_file(path, args):
    """python3 FILE: the file as __main__, its folder first on sys.path."""
    sys.argv = [path, *args]
    if os.path.isdir(path) or _is_zip(path):
        # A folder or archive with __main__.py, found the way python3 finds it
        # (by its absolute path, which safe_path leaves in place: it is the code).
        where = os.path.abspath(path)
        sys.path.insert(0, where)
        return _stage(lambda: _runpy_main("__main__", False), {where})
    filename = os.path.abspath(path)
    if not sys.flags.safe_path:  # PYTHONSAFEPATH=1: not the script's folder
        sys.path.insert(0, os.path.dirname(os.path.realpath(path)))

    def prepare():
        # The loaders python3 gives __main__: those of the import system's
        # frozen core, which is loaded already (importlib.machinery is not).
        import _frozen_importlib_external as bootstrap

        with open(path, "rb") as file:
            source = file.read()
        main = _main_module()
        main.__file__ = filename
        main.__cached__ = None
        if _is_compiled(path, source):
            main.__loader__ = bootstrap.SourcelessFileLoader("__main__", filename)
            return _compiled_code(source)
        main.__loader__ = bootstrap.SourceFileLoader("__main__", filename)
        return _compiled(source, filename)

    return _stage(prepare, {filename})


def _is_compiled(path, data):
    """python3's test for a compiled file: its name ends in .pyc, or it starts
    with the two bytes of the compiled-code magic number."""
    from _frozen_importlib_external import MAGIC_NUMBER

    return path.lower().endswith(".pyc") or data[:2] == MAGIC_NUMBER[:2]


def _compiled_code(data):
    """The code of a compiled file, after its 16-byte header, as python3 reads it."""
    import marshal
    from _frozen_importlib_external import MAGIC_NUMBER

    if data[:4] != MAGIC_NUMBER:
        raise RuntimeError("Bad magic number in .pyc file")
    return marshal.loads(data[16:])


def _is_zip(path):
    """python3's test: the zip importer, loaded at start, accepts the file."""
    import zipimport

    try:
        zipimport.zipimporter(path)
    except (zipimport.ZipImportError, OSError):
        return False
    return True


def run_module(name, args):
    """python3 -m MODULE: the module (a package's __main__) as __main__."""
    sys.argv = ["-m", *args]
    if not sys.flags.safe_path:
        sys.path.insert(0, os.getcwd())
    files = set()

    def prepare():
        import importlib.util

        spec = importlib.util.find_spec(name) if name else None
        if spec is not None and spec.submodule_search_locations is not None:
            spec = importlib.util.find_spec(name + ".__main__")
        if spec is not None and spec.origin:
            files.add(spec.origin)
        return _runpy_main(name, True)

    return _stage(prepare, files)


def run_stdin(argv0, args):
    """python3 - : the standard input read whole, then run as __main__."""
    sys.argv = [argv0, *args]
    if not sys.flags.safe_path:
        sys.path.insert(0, "")

    # As python3 runs it: __file__ is '<stdin>' while the code runs.
    main = _main_module()
    main.__file__ = "<stdin>"
    main.__cached__ = None

    def undo():
        main.__dict__.pop("__file__", None)
        main.__dict__.pop("__cached__", None)

    return _stage(lambda: _compiled(sys.stdin.buffer.read(), "<stdin>"), {"<stdin>"}, undo)


def run_command(code, args):
    """python3 -c CODE: the code as __main__, the current folder first on
    sys.path (as '')."""
    sys.argv = ["-c", *args]
    if not sys.flags.safe_path:
        sys.path.insert(0, "")
    if sys.version_info >= (3, 13) and isinstance(code, str):
        # From 3.13 on, python3 -c keeps the code's lines for tracebacks.
        import linecache

        linecache.cache["<string>"] = (len(code), None, [line + "\n" for line in code.splitlines()], "<string>")
    return _stage(lambda: _compiled(code, "<string>"), {"<string>"})


def show(value, prefix):
    """Prints a value as print() does, after a prefix; nothing for None."""
    if value is None:
        return 0
    return _guarded(lambda: print(prefix + str(value)), {"<string>"})


def check_syntax(source):
    """For --exec: the code's syntax errors shown on the user's own lines (the
    host runs the code as a function body, which the parser accepts as it
    stands: a top-level return is no syntax error to it). 0 or 1."""
    import ast

    try:
        ast.parse(source, "<string>", "exec")
    except SyntaxError as exc:
        report(exc, None, {"<string>"})
        return 1
    return 0


def finish(status):
    """The end of a run, in python3's order: non-daemon threads joined, exit
    handlers run, standard streams flushed (status 120 when stdout fails)."""
    threading = sys.modules.get("threading")
    if threading is not None:
        try:
            threading._shutdown()
        except BaseException as exc:
            sys.stderr.write(f"Exception ignored on threading shutdown: {exc!r}\n")
    import atexit

    atexit._run_exitfuncs()
    for stream in (sys.stdout, sys.stderr):
        try:
            if stream is not None:
                stream.flush()
        except Exception:
            if stream is sys.stdout:
                # What python3 prints and returns when its output cannot be flushed.
                sys.stderr.write(f"Exception ignored in: {stream!r}\n")
                _quiet_stdout()
                if status != INTERRUPTED:
                    status = 120
    return status


def _quiet_stdout():
    # Output lost to a closed pipe must not fail again when the host exits.
    try:
        devnull = os.open(os.devnull, os.O_WRONLY)
        os.dup2(devnull, sys.stdout.fileno())
        os.close(devnull)
    except Exception:
        pass


def _python_logging(host_log):
    """python3's logging: no handler on the root logger and its level WARNING
    until the script configures them. The extension puts the host's log
    bridge there for every host; a script run keeps it only when asked
    (--host-log)."""
    logging = sys.modules.get("logging")
    if host_log or logging is None:
        return
    root = logging.getLogger()
    for handler in list(root.handlers):
        if type(handler).__name__ == "KestLogHandler":
            root.removeHandler(handler)
    root.setLevel(logging.WARNING)


def _host_modules_last():
    """In a script run, the script's own modules (and those on sys.path) are
    found before the host's, as python3 finds them: a package named kest
    beside the script is the one imported. The host's importer goes after
    Python's own finders."""
    for finder in list(sys.meta_path):
        if type(finder).__name__ == "_KestModuleImporter":
            sys.meta_path.remove(finder)
            sys.meta_path.append(finder)


def call(name, arguments, host_names):
    """The host's way in: the runner function `name` with `arguments`, from
    one compiled text for every kind of call; main also gets the names of
    the host's evaluation (its modules), which it hands to __main__."""
    if name == "main":
        request, *rest = arguments
        return main(request, host_names, *rest)
    return _entries[name](*arguments)


def prepare(environment, xoptions):
    """Once Python runs: the environment variables that sarvode set for
    python3's options (-u, -W, -X dev, ...) are put back as they were, as
    python3 leaves its environment to child processes, and the -X options
    are in sys._xoptions as python3 keeps them."""
    for name, before in environment:
        name = os.fsdecode(name)
        if before is None:
            os.environ.pop(name, None)
        else:
            os.environ[name] = os.fsdecode(before)
    for option in xoptions:
        name, equals, value = os.fsdecode(option).partition("=")
        sys._xoptions[name] = value if equals else True
    return 0


def main(request, host_names, host_argv=(), host_log=False, inspect=None):
    """Runs a request from the host: (MODE, TARGET, ARG...), each as bytes of
    the command line, decoded as python3 decodes its argv (os.fsdecode).
    With `inspect` (the console's history file), the console follows the
    script in its __main__, as python3 -i runs it, whatever the script's end.
    STAGED when the host is to run the code (run_main), then after_main."""
    global _after
    if inspect is not None:
        # The script's status gives way to the console's.
        if main(request, host_names, host_argv, host_log) == STAGED:
            _after = (*_after[:2], (inspect, host_names))
            return STAGED
        return _console_after_script(inspect, host_names)
    mode, target, *args = [os.fsdecode(word) for word in request]
    sys.orig_argv = [os.fsdecode(word) for word in host_argv]
    _python_logging(host_log)
    if mode in ("file", "module", "command", "stdin"):
        _host_modules_last()
    if mode == "file":
        return run_file(target, args)
    if mode == "module":
        return run_module(target, args)
    if mode == "stdin":
        return run_stdin(target, args)
    if mode == "command":
        return run_command(target, args)
    if mode == "console":
        run_console = _own_module("_sarvode_console").run_console
        return _guarded(lambda: run_console(target, host_names), {"<console>"})
    raise ValueError(f"unknown run mode {mode!r}")


# What `call` reaches besides main.
_entries = {f.__name__: f for f in (prepare, show, check_syntax, after_main, finish)}
