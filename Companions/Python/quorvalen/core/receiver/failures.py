"""From an exception of any kind to the exception response that tells of it.

The exception may come from code that means no good to us: its class, its text or its causes may raise in turn. May be
called on any thread.
"""

import traceback

from quorvalen.core.command import EXCEPTION, HEADER_LENGTH, MAXIMUM_LENGTH, MalformedCommand, response_header
from quorvalen.core.values import encode_text, type_name

# Frames of these modules at the head of a traceback are the way to the user's code, not part of it.
_OWN_MODULES = "quorvalen.core."

# A copy of it answers when not even the report of a failure can be built, because the stack or the memory is used up,
# or when it is too long for a response.
LAST_RESORT = bytearray(HEADER_LENGTH - 1) + bytes((EXCEPTION,)) + (
    b'{"type":"builtins.RuntimeError","message":"the command failed, and so did the report of the failure; '
    b'the stack or the memory is probably used up, or the report is too long","traceback":""}'
)


def exception_response(command, error):
    """Return the response to `command` that reports `error`. `command` may be anything at all."""
    response = response_header(command if type(command) is bytes else b"", EXCEPTION)
    response += b'{"type":%s,"message":%s,"traceback":%s}' % (
        encode_text(type_name(type(error))),
        encode_text(_message(error)),
        encode_text(_traceback(error)),
    )
    return response if len(response) <= MAXIMUM_LENGTH else LAST_RESORT[:]


def _message(error):
    try:
        return str(error)
    except BaseException as failure:
        return "(its text cannot be had: str() raised {})".format(type_name(type(failure)))


def _traceback(error):
    try:
        # A command that we refuse says itself what is wrong with it.
        frames = None if type(error) is MalformedCommand else _users_part(error.__traceback__)
        return "".join(traceback.format_exception(type(error), error, frames))
    except BaseException as failure:
        return "(cannot be shown: formatting it raised {})\n".format(type_name(type(failure)))


def _users_part(frames):
    """Return the frames behind our own. A wrong name or a wrong argument has none: all frames are shown then."""
    user = frames
    while user is not None and str(user.tb_frame.f_globals.get("__name__")).startswith(_OWN_MODULES):
        user = user.tb_next
    return frames if user is None else user
