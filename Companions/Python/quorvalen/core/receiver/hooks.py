"""Reports of errors that nobody catches: one text per error, written to sys.stderr in one piece.

Python's own reports are written piece by piece, so that those of two threads that fail together are mixed up, and do
not say that the thread belongs to an interpreter inside a host program. A hook that somebody else has set is left
alone. Called on any thread; `install` on the one that started the interpreter.
"""

import _thread
import sys
import traceback

_IN_THREAD = "quorvalen: uncaught exception in Python thread {}:\n{}"
_UNRAISABLE = "quorvalen: an exception could not be raised ({}):\n{}"


def install():
    """Put our hooks where Python's own are still in force. Calling it again does nothing."""
    # `threading` is imported here although its presence changes how the interpreter shuts down (the bridge's own
    # shutdown is prepared for it). Up to Python 3.12 whatever thread imports it first counts as the main thread. The
    # bridge calls us on the thread that started the interpreter, which is the right one; without this import it would
    # be the host thread of the first command that happens to use `threading`.
    import threading

    if sys.excepthook is sys.__excepthook__:
        sys.excepthook = _report_uncaught
    if sys.version_info >= (3, 8):
        if threading.excepthook is _thread._excepthook:
            threading.excepthook = _report_in_thread
        if sys.unraisablehook is sys.__unraisablehook__:
            sys.unraisablehook = _report_unraisable
    # Python 3.6 and 3.7 have no hook for threads and need none: what they print by themselves is one text with the
    # thread's name and the traceback.


def _report_uncaught(kind, error, frames):
    if not _write(_IN_THREAD, _own_thread_name(), kind, error, frames):
        sys.__excepthook__(kind, error, frames)


def _report_in_thread(failure):
    if failure.exc_type is SystemExit:
        return  # ends the thread and nothing else, as everywhere in Python
    name = failure.thread.name if failure.thread is not None else _own_thread_name()
    if not _write(_IN_THREAD, name, failure.exc_type, failure.exc_value, failure.exc_traceback):
        _thread._excepthook(failure)


def _own_thread_name():
    # Not threading.current_thread(): on a host thread it would leave an entry behind for ever.
    threading = sys.modules.get("threading")
    own = _thread.get_ident()
    names = [thread.name for thread in threading.enumerate() if thread.ident == own] if threading else []
    return names[0] if names else "{} of the host".format(own)


def _report_unraisable(failure):
    if not _write(_UNRAISABLE, _circumstance(failure), failure.exc_type, failure.exc_value, failure.exc_traceback):
        sys.__unraisablehook__(failure)


def _circumstance(failure):
    message = failure.err_msg or "Exception ignored in"
    if failure.object is None:
        return message
    try:
        return "{}: {!r}".format(message, failure.object)
    except Exception:
        return "{}: object of type {}".format(message, type(failure.object).__name__)


def _write(text, subject, kind, error, frames):
    """Write one report; return whether that went well."""
    try:
        report = text.format(subject, "".join(traceback.format_exception(kind, error, frames)))
        sys.stderr.write(report)
        sys.stderr.flush()
    except Exception:
        return False
    return True
