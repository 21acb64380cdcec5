# The sarvode console: Python's own interactive loop (code.InteractiveConsole,
# which compiles each input in 'single' mode, so sys.displayhook shows results
# in Python notation and sets _), with line editing, history and Tab completion
# from Python's readline module when the interpreter has one.

import code
import os
import sys

from _sarvode_runner import _main_module, report

USER_FILES = {"<console>"}


def _redirect_output():
    """The host's output capture, or None when the host offers none."""
    try:
        import kest.cpython

        return kest.cpython.redirect_output
    except Exception:
        return None


def _show(stream, text):
    """Writes what an input wrote to the terminal's own stream, at once."""
    target = sys.__stderr__ if stream == "stderr" else sys.__stdout__
    if target is not None:
        target.write(text)
        target.flush()


class Console(code.InteractiveConsole):
    def __init__(self, names, prompts):
        super().__init__(names, filename="<console>")
        self.prompts = prompts

    def raw_input(self, prompt=""):
        if self.prompts:
            return input(prompt)
        # Input that is not a terminal: no prompts, as lines come.
        line = sys.stdin.readline()
        if not line:
            raise EOFError
        return line[:-1] if line.endswith("\n") else line

    def runcode(self, code):
        # While an input runs, what it writes to sys.stdout and sys.stderr (its
        # results, its tracebacks, its threads) reaches the terminal through the
        # host's capture, in the order it was written. Between inputs the
        # streams are the terminal's own, so input() keeps line editing.
        redirect = _redirect_output()
        if redirect is None:
            return super().runcode(code)
        redirect(_show)
        try:
            return super().runcode(code)
        finally:
            redirect(None)

    def write(self, data):
        # Without prompts, the loop's own notes (the newline at the end of
        # input) stay off standard error.
        if self.prompts or data.strip():
            sys.stderr.write(data)

    def showsyntaxerror(self, filename=None, **kwargs):
        # Raised by the compiler while reading the input: no traceback of ours.
        report(sys.exc_info()[1], None, USER_FILES)

    def showtraceback(self):
        exc = sys.exc_info()[1]
        # The first frame is the loop's own runcode; the input's frames follow.
        tb = exc.__traceback__.tb_next if exc.__traceback__ is not None else None
        report(exc, tb, USER_FILES)


def _line_editing(names, history):
    """Sets up completion and history; returns what saves the history, or None
    when the interpreter has no readline module."""
    try:
        import readline
        import rlcompleter
    except ImportError:
        return None
    completer = rlcompleter.Completer(names)

    def complete(text, state):
        # Looking at attributes must not print warnings into the input line.
        import warnings

        with warnings.catch_warnings():
            warnings.simplefilter("ignore")
            return completer.complete(text, state)

    readline.set_completer(complete)
    if "libedit" in (readline.__doc__ or ""):
        readline.parse_and_bind("bind ^I rl_complete")
    else:
        readline.parse_and_bind("tab: complete")
    readline.set_history_length(1000)
    if not history:
        return None
    try:
        readline.read_history_file(history)
    except Exception:
        pass  # no history yet, or unreadable: start empty

    def save():
        try:
            os.makedirs(os.path.dirname(history), exist_ok=True)
            readline.write_history_file(history)
        except Exception:
            pass  # a read-only folder (or the sandbox) keeps no history

    return save


def _run_startup(names):
    """PYTHONSTARTUP, as python3 runs it before the first prompt of a bare
    console: in __main__, its errors shown and the console opened anyway."""
    path = os.environ.get("PYTHONSTARTUP")
    if not path:
        return
    try:
        with open(path, "rb") as file:
            source = file.read()
        exec(compile(source, path, "exec", dont_inherit=True), names)
    except SystemExit:
        raise
    except BaseException as exc:
        report(exc, exc.__traceback__, {path})


def run_console(history, host_names, after_script=False):
    """Reads inputs until end of input or exit(); SystemExit ends the console
    with its status. After a script (python3 -i), its argv and sys.path stay."""
    if not after_script:
        sys.argv = [""]
        sys.path.insert(0, "")
    names = _main_module(host_names).__dict__
    if not after_script:
        _run_startup(names)
    prompts = sys.stdin is not None and sys.stdin.isatty()
    save = _line_editing(names, history) if prompts else None
    banner = f"Python {sys.version.split()[0]} in sarvode; Tab completes, Ctrl-D leaves." if prompts else ""
    try:
        Console(names, prompts).interact(banner=banner, exitmsg="")
    finally:
        if save is not None:
            save()
