"""From the dotted name in a command to the object it means. May be called on any thread."""

import builtins
import sys

from quorvalen.core.command import MalformedCommand

# What was found before: name -> (name of the module, names of the attributes). A submodule that does not exist is
# looked for on disk every time, and that costs more than the whole rest of a command. Only what was found is
# remembered, so a module that appears later is seen. A dictionary's single steps are indivisible: no lock.
_known = {}
_KNOWN_LIMIT = 4096


def find(name):
    """Return what `name` means: a built-in function, or the longest importable module and attributes from there."""
    if "." in name:
        return find_from_module(name)
    return _find_builtin(_checked(name)[0])


def find_from_module(name):
    """Return what `name` means when it begins with a module, with or without a dot."""
    known = _known.get(name)
    module = sys.modules.get(known[0]) if known else None
    if module is not None:
        return _attributes(module, known[1])
    parts = _checked(name)
    count = _import_longest(parts)
    module_name, attributes = ".".join(parts[:count]), parts[count:]
    value = _attributes(sys.modules[module_name], attributes)
    if len(_known) >= _KNOWN_LIMIT:
        _known.clear()
    _known[name] = module_name, attributes
    return value


def follow(holder, name):
    """Return the attribute `name` of `holder`; the name may be dotted."""
    for attribute in _checked(name):
        holder = getattr(holder, attribute)
    return holder


def split(name):
    """Return ("a.b", "c") of "a.b.c", and ("", "c") of "c"."""
    _checked(name)
    holder, _, attribute = name.rpartition(".")
    return holder, attribute


def _checked(name):
    parts = name.split(".")
    if "" in parts:
        raise MalformedCommand('the name "{}" is empty or has an empty part'.format(name))
    return parts


def _find_builtin(name):
    try:
        return getattr(builtins, name)
    except AttributeError:
        raise AttributeError(
            'there is no built-in function "{}"; a function of a module is named "module.function"'.format(name)
        ) from None


def _attributes(value, names):
    for name in names:
        value = getattr(value, name)
    return value


def _import_longest(parts):
    """Import as many leading parts as name a module; return how many."""
    __import__(parts[0])
    for count in range(1, len(parts)):
        name = ".".join(parts[:count + 1])
        try:
            __import__(name)
        except ModuleNotFoundError as error:
            # Only "there is no such module" ends the search; a module that fails to import one of its own needs
            # is the user's error and must be seen.
            if error.name != name:
                raise
            return count
    return len(parts)
