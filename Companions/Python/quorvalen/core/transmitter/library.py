"""Finds and opens the native bridge library, once per process, and gives it the way back into this Python."""

import ctypes
import os
import sys
from _thread import allocate_lock, get_ident

from quorvalen.core.command import BridgeError
from quorvalen.core.receiver.failures import LAST_RESORT, exception_response
from quorvalen.core.receiver.Receiver import answer
from quorvalen.core.transmitter import bridge

LIBRARY_VARIABLE = "QUORVALEN_PYTHON_BRIDGE"
RUNTIME_VARIABLE = "QUORVALEN_PYTHON_RUNTIME_PATH"
VERSION_VARIABLE = "QUORVALEN_PYTHON_VERSION"
_LIBRARY_NAME = "libQuorvalenPythonRuntimeNative.so"

_CALLBACK_TYPE = ctypes.CFUNCTYPE(ctypes.c_void_p, ctypes.POINTER(ctypes.c_ubyte), ctypes.c_int)

_opening = allocate_lock()
_opened = {}  # at most one entry: real path of the library -> its Bridge; written under _opening
_serve = answer

# The response of the latest callback of each thread. The native side copies a response right after the callback has
# returned it, without the interpreter lock, and never releases it: so it must be kept until then, and by us. Not
# thread-local: on a thread that Python did not create, thread-local values end with the callback.
_responses = {}


def open_bridge(path=None):
    """Return the process's Bridge; open the library on the first call.

    The file is `path`, or what QUORVALEN_PYTHON_BRIDGE names, or the one beside this package in the installed layout.
    There is one native transmitter per process, so a second, different file is refused.
    """
    with _opening:
        wanted = path or os.environ.get(LIBRARY_VARIABLE)
        if _opened and not wanted:
            return next(iter(_opened.values()))
        found = os.path.realpath(wanted or _installed_path())
        if found not in _opened:
            if _opened:
                raise BridgeError("the bridge {} is in use already; {} cannot be".format(next(iter(_opened)), found))
            _opened[found] = bridge.Bridge(_open_library(found))
        return _opened[found]


def set_callback(function):
    """Have commands from other runtimes answered by `function`, from bytes to bytearray; None: by the receiver.

    It may be called on any thread. What it raises becomes an exception response. Has no effect in a process whose
    interpreter the bridge itself has started: there commands go to the receiver directly.
    """
    global _serve
    _serve = answer if function is None else function


def set_config_source(source, library=None):
    """Have the bridge read its configuration from `source`, a file's name or JSON text. Raises BridgeError."""
    _configure("SetConfigSource", source, library)


def set_working_directory(path, library=None):
    """Have the bridge write its error log to the folder `path`. Raises BridgeError."""
    _configure("SetWorkingDirectory", path, library)


def _configure(function, text, path):
    opened = open_bridge(path)
    # The bridge lets the failure to open this file out as a C++ exception, and nothing above it here would catch that.
    configuration = os.path.join(os.path.dirname(next(iter(_opened))), "libConfigs.so")
    if not os.path.isfile(configuration):
        raise BridgeError("there is no configuration library at {}".format(configuration))
    encoded = os.fsencode(text)
    if b"\0" in encoded:
        raise ValueError("{}: {!r} holds a zero byte".format(function, text))
    opened.configure(function, encoded)


def _installed_path():
    package = os.path.dirname(os.path.dirname(os.path.dirname(os.path.abspath(__file__))))
    binaries = os.path.dirname(os.path.dirname(package))
    return os.path.join(binaries, "Native", "Linux", "X64", _LIBRARY_NAME)


def _open_library(path):
    if not os.path.isfile(path):
        raise BridgeError(
            "there is no bridge library at {}; install it there, or name its file in the environment variable {} or "
            "in the argument `library`".format(path, LIBRARY_VARIABLE)
        )
    _name_own_runtime()
    try:
        # CDLL releases the interpreter lock during calls; callbacks need that.
        library = ctypes.CDLL(path)
        _declare(library)
    except (OSError, AttributeError) as error:
        raise BridgeError("the file {} cannot be used as the bridge library: {}".format(path, error)) from None
    # Before the first command, because the bridge takes the callback over when it starts.
    library.SetCallback(ctypes.cast(_callback, ctypes.c_void_p))
    return library


def _declare(library):
    bytes_pointer = ctypes.POINTER(ctypes.c_ubyte)
    signatures = {
        "SendCommand": (ctypes.c_int, [bytes_pointer, ctypes.c_int]),
        "ReadResponse": (ctypes.c_int, [bytes_pointer, ctypes.c_int]),
        "SetCallback": (ctypes.c_int, [ctypes.c_void_p]),
        "GetNativeError": (ctypes.c_char_p, []),
        "SetConfigSource": (ctypes.c_int, [ctypes.c_char_p]),
        "SetWorkingDirectory": (ctypes.c_int, [ctypes.c_char_p]),
    }
    for name, (result, arguments) in signatures.items():
        function = getattr(library, name)
        function.restype, function.argtypes = result, arguments


def _name_own_runtime():
    """Tell the bridge the Python library of this very process, unless the user has named one.

    For callbacks the bridge calls a few functions of a Python library. Left to itself it would search the machine and
    might open another Python, whose functions know nothing of our objects. A Python that is part of the executable has
    no library to name; one of the same version knows the layout of its objects.
    """
    if RUNTIME_VARIABLE in os.environ or VERSION_VARIABLE in os.environ:
        return
    path = own_runtime_path()
    if path is not None:
        os.environ[RUNTIME_VARIABLE] = path
    else:
        os.environ[VERSION_VARIABLE] = "%d.%d" % sys.version_info[:2]


def own_runtime_path():
    """Return the file of the Python library in this process; None when Python is part of the executable itself."""
    try:
        path = _mapped_file(ctypes.cast(ctypes.pythonapi.Py_GetVersion, ctypes.c_void_p).value)
        return None if os.path.samefile(path, "/proc/self/exe") else path
    except OSError:
        return None  # the file has been replaced since the start, or there is no /proc: better none than a wrong one


def _mapped_file(address):
    with open("/proc/self/maps", encoding="utf-8", errors="surrogateescape") as maps:
        for line in maps:
            fields = line.rstrip("\n").split(None, 5)
            first, last = (int(edge, 16) for edge in fields[0].split("-"))
            if first <= address < last and len(fields) > 5:
                return fields[5]
    raise OSError("no mapped file holds that address")


def _answer_callback(message, length):
    command = b""
    try:
        command = ctypes.string_at(message, length) if message and length > 0 else b""
        response = _serve(command)
        if type(response) is not bytearray:
            raise TypeError("the callback must return a bytearray, not {}".format(type(response).__name__))
    except BaseException as error:  # an exception must not reach the native caller
        try:
            response = exception_response(command, error)
        except BaseException:
            response = LAST_RESORT[:]
    _responses[get_ident()] = response
    return id(response)


_callback = _CALLBACK_TYPE(_answer_callback)
bridge.serving_codes.add(_answer_callback.__code__)
