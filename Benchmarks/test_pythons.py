"""Which Pythons are found, in a made-up pyenv."""

import os
import pathlib
import tempfile
import unittest
from unittest import mock

import pythons


def install(root, version, library, headers=True):
    short = ".".join(version.split(".")[:2])
    home = root / "versions" / version
    (home / "lib" / ("python" + short)).mkdir(parents=True)
    (home / "lib" / ("python" + short) / "os.py").touch()
    (home / "lib" / library).touch()
    if headers:
        directory = home / "include" / ("python" + short)
        directory.mkdir(parents=True)
        (directory / "patchlevel.h").write_text('#define PY_VERSION "%s"\n' % version)
    return home


class Find(unittest.TestCase):
    def setUp(self):
        directory = tempfile.TemporaryDirectory()
        self.addCleanup(directory.cleanup)
        self.root = pathlib.Path(directory.name)
        (self.root / "versions").mkdir()

    def found(self):
        with mock.patch.dict(os.environ, {"PYENV_ROOT": str(self.root)}):
            return [p for p in pythons.find() if str(p.library).startswith(str(self.root))]

    def test_oldest_first_with_everything_about_them(self):
        newer = install(self.root, "3.10.13", "libpython3.10.so.1.0")
        older = install(self.root, "3.7.16", "libpython3.7m.so.1.0")
        self.assertEqual(
            [pythons.Python("3.7.16", 7, older / "lib/libpython3.7m.so.1.0", older,
                            older / "include/python3.7"),
             pythons.Python("3.10.13", 10, newer / "lib/libpython3.10.so.1.0", newer,
                            newer / "include/python3.10")], self.found())

    def test_without_headers_the_directory_tells_the_version(self):
        install(self.root, "3.9.18", "libpython3.9.so.1.0", headers=False)
        self.assertEqual([("3.9.18", None)], [(p.version, p.headers) for p in self.found()])

    def test_leaves_out_what_the_bridge_cannot_load(self):
        install(self.root, "3.5.10", "libpython3.5m.so.1.0")
        install(self.root, "3.15.0", "libpython3.15.so.1.0")
        install(self.root, "3.11.7", "libpython3.11d.so.1.0")
        install(self.root, "3.12.1", "libpython3.12.a")
        home = install(self.root, "3.8.18", "libpython3.8.so.1.0")
        (home / "lib/python3.8/os.py").unlink()
        self.assertEqual([], self.found())

    def test_an_alias_is_no_second_installation(self):
        home = install(self.root, "3.13.0", "libpython3.13.so.1.0")
        (self.root / "versions/3.13").symlink_to(home)
        self.assertEqual(["3.13.0"], [p.version for p in self.found()])


if __name__ == "__main__":
    unittest.main()
