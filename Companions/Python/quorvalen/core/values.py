"""Values on the wire: strict JSON, and handles for what JSON cannot carry without loss.

Used by both sides, from any thread: nothing here keeps state. Docs/command-format.md has the rules.
"""

import json
from json.encoder import encode_basestring
from math import isinf

from quorvalen.core.command import MAXIMUM_LENGTH, MalformedCommand

SMALLEST_INTEGER = -(2 ** 63)
LARGEST_INTEGER = 2 ** 64 - 1
MAXIMUM_LEVELS = 100  # an array without arrays and objects in it is one level
MAXIMUM_ITEMS = MAXIMUM_LENGTH // 2  # an item takes two bytes at least: more cannot fit into a message

_CONSTANTS = {None: "null", True: "true", False: "false"}
_SCALARS = frozenset((type(None), bool, int, float, str))
_ARRAYS = (list, tuple)


class NotPlain(ValueError):
    """The value cannot be written as JSON without losing something. The message says what stands in the way."""


class Reference:
    """A `{"$handle": ...}` object as it was read, before anyone has looked the handle up."""

    __slots__ = ("handle", "type_name")

    def __init__(self, handle, type_name):
        self.handle = handle
        self.type_name = type_name


def type_name(kind):
    """Return module and qualified name of a class. Runs no code of the class, whatever its metaclass."""
    name = type.__dict__["__qualname__"].__get__(kind)
    try:
        module = type.__dict__["__module__"].__get__(kind)
    except AttributeError:  # a class may have lost it
        return name
    return "{}.{}".format(module, name) if type(module) is str else name


def encode(value, handle_of=None, levels=MAXIMUM_LEVELS):
    """Return `value` as UTF-8 JSON; raise NotPlain when that would lose something.

    `handle_of`, when given, is called with every object of no JSON type; it answers the number of the handle that the
    object stands for, or None. Without it such an object is not plain. `levels` is how deep the value may be nested.
    """
    try:
        return _text(value, handle_of, levels).encode("utf-8")
    except UnicodeEncodeError:
        raise NotPlain("a text holds a lone surrogate, which UTF-8 has no bytes for") from None


def _text(value, handle_of, levels):
    kind = type(value)
    if kind is str:
        return encode_basestring(value)
    if kind is int:
        _check_integer(value)
        return repr(value)
    if kind is bool or value is None:
        return _CONSTANTS[value]
    # Everything else, and every element of it, is checked first: the JSON encoder alone would let subclasses,
    # number keys and integers of any size pass.
    _Measure(handle_of, levels).elements((value,), 0)
    try:
        return _encoder(handle_of).encode(value)
    except (ValueError, TypeError, RuntimeError) as error:
        # Not finite; or changed by another thread since it was measured.
        raise NotPlain(str(error)) from None


def encode_text(text):
    """Return any text as a JSON string in UTF-8; a lone surrogate becomes its escape, spelt out."""
    return encode_basestring(readable(text)).encode("utf-8")


def readable(text):
    """Return `text` with lone surrogates spelt out, so that it can leave the process as UTF-8."""
    # By way of str itself: a subclass of the user's may have methods of its own.
    return str.encode(text, "utf-8", "backslashreplace").decode("utf-8")


def _make_encoder(default):
    return json.JSONEncoder(
        ensure_ascii=False, check_circular=False, allow_nan=False, separators=(",", ":"), default=default
    )


_PLAIN_ENCODER = _make_encoder(None)


def _encoder(handle_of):
    if handle_of is None:
        return _PLAIN_ENCODER
    return _make_encoder(lambda reference: {"$handle": handle_of(reference)})


def _check_integer(value):
    if not SMALLEST_INTEGER <= value <= LARGEST_INTEGER:
        raise NotPlain("an integer lies outside -2^63 to 2^64 - 1")


class _Measure:
    """Walks one value and raises NotPlain at the first thing that JSON cannot carry."""

    def __init__(self, handle_of, levels):
        self._handle_of = handle_of
        self._levels = levels
        # Identity of a container -> its (levels, items), None while it is being walked. A container that occurs many
        # times is walked once (else a few dozen lists that hold one another twice would take for ever), and one that
        # is met inside itself is a cycle.
        self._known = {}

    def elements(self, container, level):
        """Return (levels, items) of a container, which itself stands on `level`."""
        levels, items = 1, 1
        for item in _elements(container):
            kind = type(item)
            if kind in _SCALARS:
                if kind is int:
                    _check_integer(item)
                items += 1
            elif kind is dict or kind in _ARRAYS:
                inner_levels, inner_items = self._inner(item, level + 1)
                levels = max(levels, inner_levels + 1)
                items += inner_items
            elif self._handle_of is None or self._handle_of(item) is None:
                raise NotPlain("an object of type {} has no JSON form".format(type_name(kind)))
        if items > MAXIMUM_ITEMS:
            raise NotPlain("the value is too large for one message")
        return levels, items

    def _inner(self, container, level):
        identity = id(container)
        if identity not in self._known:
            self._check_level(level)
            self._known[identity] = None
            self._known[identity] = self.elements(container, level)
        measured = self._known[identity]
        if measured is None:
            raise NotPlain("the value contains itself")
        self._check_level(level + measured[0] - 1)
        return measured

    def _check_level(self, level):
        if level > self._levels:
            raise NotPlain("the value is nested more than {} levels deep".format(MAXIMUM_LEVELS))


def _elements(container):
    if type(container) is not dict:
        return container
    for key in container:
        if type(key) is not str or key.startswith("$"):
            raise NotPlain("a key of an object is no string, or begins with $: {!r}".format(key))
    return container.values()


def decode(body):
    """Return (members, may_hold_references) of a body, which must be one JSON object in UTF-8.

    Handles come back as Reference objects; pass the values that may hold some through `resolve` when the second
    result says so. Raises MalformedCommand.
    """
    try:
        text = body.decode("utf-8")
    except UnicodeDecodeError as error:
        raise MalformedCommand(
            "the body is not UTF-8: byte 0x{:02x} at position {} ({})".format(
                body[error.start], error.start, error.reason
            )
        ) from None
    try:
        members = _DECODER.decode(text)
    except json.JSONDecodeError as error:
        raise MalformedCommand("the body is not JSON: {}".format(error)) from None
    except RecursionError:
        raise MalformedCommand("the body is nested too deeply") from None
    if type(members) is not dict:
        raise MalformedCommand("the body must be one JSON object, not {}".format(json_kind(members)))
    # A key can be spelt with escapes, and only an escape can bring in a lone surrogate: both are looked for in
    # `resolve`, which the common command is spared.
    return members, "$handle" in text or "\\u" in text


def resolve(value, look_up):
    """Return `value` with every Reference replaced by `look_up(reference)`."""
    kind = type(value)
    if kind is Reference:
        return look_up(value)
    if kind is list:
        return [resolve(item, look_up) for item in value]
    if kind is dict:
        return {_without_surrogates(key): resolve(item, look_up) for key, item in value.items()}
    return _without_surrogates(value) if kind is str else value


def json_kind(value):
    """Return how to speak of a decoded value in a message."""
    if type(value) is Reference:
        return "a handle"
    names = {dict: "an object", list: "an array", str: "a string", type(None): "null", bool: "true or false"}
    return names.get(type(value), "a number")


def _without_surrogates(text):
    try:
        text.encode("utf-8")
    except UnicodeEncodeError:
        raise MalformedCommand("the text {} holds a lone surrogate".format(ascii(text))) from None
    return text


def _read_object(pairs):
    members = dict(pairs)
    if len(members) != len(pairs):
        keys = [key for key, _ in pairs]
        twice = next(key for key in keys if keys.count(key) > 1)
        raise MalformedCommand("an object has the member {} twice".format(ascii(twice)))
    if "$handle" in members:
        return _read_reference(members)
    for key in members:
        if key.startswith("$"):
            raise MalformedCommand(
                'an object has the member {}; of the keys that begin with $ there is only "$handle"'.format(ascii(key))
            )
    return members


def _read_reference(members):
    handle = members.pop("$handle")
    kind = members.pop("type", "")
    if type(handle) is not int:
        raise MalformedCommand('"$handle" must be an integer, not {}'.format(json_kind(handle)))
    if members:
        raise MalformedCommand('beside "$handle" only "type" may stand, not {}'.format(ascii(next(iter(members)))))
    return Reference(handle, kind if type(kind) is str else "")


def _refuse_constant(name):
    raise MalformedCommand("{} is no JSON number".format(name))


def _read_float(text):
    value = float(text)
    if isinf(value):
        raise MalformedCommand("the number {} is too large for a floating-point number".format(text))
    return value


def _read_integer(text):
    try:
        return int(text)
    except ValueError:
        pass
    # Python limits how many digits int() reads at once; the command format does not.
    digits, value = text.lstrip("-"), 0
    for start in range(0, len(digits), 500):
        part = digits[start:start + 500]
        value = value * 10 ** len(part) + int(part)
    return -value if text.startswith("-") else value


_DECODER = json.JSONDecoder(
    object_pairs_hook=_read_object,
    parse_constant=_refuse_constant,
    parse_float=_read_float,
    parse_int=_read_integer,
)
