"""The CPython shared libraries of this machine: Debian's, those in /usr/local, and pyenv's."""

import collections
import os
import pathlib
import re

# `version` names the installation in the table, `headers` may be missing.
Python = collections.namedtuple("Python", "version minor library home headers")

LIBRARY = re.compile(r"libpython3\.(\d+)m?\.so\.1\.0")
SUPPORTED = range(6, 15)


def _places():
    pyenv = pathlib.Path(os.environ.get("PYENV_ROOT", pathlib.Path.home() / ".pyenv"))
    yield pathlib.Path("/usr/lib/x86_64-linux-gnu"), pathlib.Path("/usr"), " Debian"
    yield pathlib.Path("/usr/local/lib"), pathlib.Path("/usr/local"), " local"
    for home in sorted(pyenv.glob("versions/3.*")):
        if not home.is_symlink():
            yield home / "lib", home, ""


def _headers(home, minor):
    found = sorted(home.glob("include/python3.%d*/patchlevel.h" % minor))
    return found[0].parent if found else None


def _version(home, minor, headers):
    if headers:
        text = (headers / "patchlevel.h").read_text()
        return re.search(r'PY_VERSION\s+"([^"]+)"', text).group(1)
    return home.name if home.name.startswith("3.") else "3.%d" % minor


def find():
    """Every installation that has its standard library too, oldest version first."""
    found = []
    for libraries, home, suffix in _places():
        for library in sorted(libraries.glob("libpython3.*.so.1.0")):
            match = LIBRARY.fullmatch(library.name)
            if not match or int(match.group(1)) not in SUPPORTED:
                continue
            minor = int(match.group(1))
            if not (home / "lib" / ("python3.%d" % minor) / "os.py").exists():
                continue
            headers = _headers(home, minor)
            version = _version(home, minor, headers) + suffix
            found.append(Python(version, minor, library, home, headers))
    return sorted(found, key=lambda python: (python.minor, python.version))
