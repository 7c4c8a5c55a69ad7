"""The objects that other runtimes hold by number.

One table per interpreter, used by every host thread. It takes no lock on purpose: each step is a single operation of
a built-in type, which the interpreter lock makes indivisible, and a lock could be met again by a finalizer that runs
on the very thread that holds it.
"""

import itertools

from quorvalen.core import values


class UnknownHandle(LookupError):
    """No object is kept under that number: it was never given out, or it was released."""


_objects = {}
_numbers = itertools.count(1)


def keep(value):
    """Keep `value` alive until it is released; return its number, which is never given out again."""
    number = next(_numbers)
    _objects[number] = value
    return number


def keep_as_json(value):
    """Keep `value` and return the JSON that speaks of it."""
    kind = values.encode_text(values.type_name(type(value)))
    return b'{"$handle":%d,"type":%s}' % (keep(value), kind)


def get(number):
    """Return the object kept under `number`."""
    try:
        return _objects[number]
    except KeyError:
        raise _unknown(number) from None


def release(number):
    """Forget the object kept under `number`."""
    try:
        _objects.pop(number)
    except KeyError:
        raise _unknown(number) from None


def _unknown(number):
    return UnknownHandle("there is no handle {}; it was never given out, or it was released".format(number))
