"""The operations of a command's body: what each may hold, and what it does. May be called on any thread."""

from collections import namedtuple

from quorvalen.core import values
from quorvalen.core.command import MAXIMUM_LENGTH, MalformedCommand
from quorvalen.core.receiver import handles, names

_MEMBER_KINDS = {
    "name": (str, "a string"),
    "handle": (int, "an integer"),
    "arguments": (list, "an array"),
    "keywords": (dict, "an object"),
}
_VALUE_MEMBERS = ("arguments", "keywords", "value")  # the members in which a handle may stand

# Room for the header and for what surrounds the value.
_LARGEST_VALUE = MAXIMUM_LENGTH - 64


def execute(body):
    """Execute the command with this body and return the body of the response. Raises what the user's code raises."""
    members, may_hold_references = values.decode(body)
    operation = _operation(members)
    _check_members(operation, members)
    if may_hold_references:
        for member in _VALUE_MEMBERS:
            if member in members:
                members[member] = values.resolve(members[member], _look_up)
    result = operation.function(**members)
    return b'{"value":%s}' % (handles.keep_as_json(result) if operation.keeps_result else _as_json(result))


def _operation(members):
    name = members.pop("operation", None)
    operation = _OPERATIONS.get(name) if type(name) is str else None
    if operation is None:
        known = ", ".join(sorted(_OPERATIONS))
        if name is None:
            raise MalformedCommand('the member "operation" is missing; expected one of {}'.format(known))
        shown = ascii(name) if type(name) is str else values.json_kind(name)
        raise MalformedCommand('"operation" is {}; expected one of {}'.format(shown, known))
    return operation


def _check_members(operation, members):
    for member, value in members.items():
        if member not in operation.members:
            raise MalformedCommand(
                'the operation "{}" knows no member {}; it knows {}'.format(
                    operation.name, ascii(member), ", ".join(operation.members)
                )
            )
        kind = _MEMBER_KINDS.get(member)
        if kind is not None and type(value) is not kind[0]:
            raise MalformedCommand(
                'the member "{}" of the operation "{}" must be {}, not {}'.format(
                    member, operation.name, kind[1], values.json_kind(value)
                )
            )
    for choice in operation.required:
        if not any(member in members for member in choice):
            raise MalformedCommand(
                'the operation "{}" needs the member {}'.format(operation.name, " or ".join(map('"{}"'.format, choice)))
            )


def _look_up(reference):
    return handles.get(reference.handle)


def _as_json(result):
    try:
        text = values.encode(result)
    except values.NotPlain:
        return handles.keep_as_json(result)
    return text if len(text) <= _LARGEST_VALUE else handles.keep_as_json(result)


def _target(name, handle):
    if handle is None:
        return names.find(name)
    kept = handles.get(handle)
    return kept if name is None else names.follow(kept, name)


def _call(name=None, handle=None, arguments=(), keywords=None):
    return _target(name, handle)(*arguments, **(keywords or {}))


def _get(name, handle=None):
    return _target(name, handle)


def _set(name, value, handle=None):
    holder_name, attribute = names.split(name)
    if handle is not None:
        holder = _target(holder_name or None, handle)
    elif holder_name:
        holder = names.find_from_module(holder_name)
    else:
        raise MalformedCommand('the operation "set" needs a "handle", or a dotted "name" like "module.attribute"')
    setattr(holder, attribute, value)


def _create(name, arguments=(), keywords=None):
    kind = names.find(name)
    if not isinstance(kind, type):
        raise MalformedCommand('the operation "create" needs a class; "{}" is none'.format(name))
    return kind(*arguments, **(keywords or {}))


def _release(handle):
    handles.release(handle)


# `required` holds the members that must be there, each as the choice of members that will do.
_Operation = namedtuple("_Operation", "name function members required keeps_result")
_OPERATIONS = {
    operation.name: operation
    for operation in (
        _Operation("call", _call, ("name", "handle", "arguments", "keywords"), (("name", "handle"),), False),
        _Operation("get", _get, ("name", "handle"), (("name",),), False),
        _Operation("set", _set, ("name", "handle", "value"), (("name",), ("value",)), False),
        _Operation("create", _create, ("name", "arguments", "keywords"), (("name",),), True),
        _Operation("release", _release, ("handle",), (("handle",),), False),
    )
}
