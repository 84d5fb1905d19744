"""The installed Python module finds the installed library."""

import os
import subprocess
import sys
import tempfile
import unittest

BUILD = os.environ["KESTRO_BUILD_DIR"]


class Installed(unittest.TestCase):
    def test_module_finds_the_library_of_its_installation(self):
        with tempfile.TemporaryDirectory() as prefix:
            for folder in ("msgfile", "python"):
                subprocess.run(
                    [
                        os.environ["CMAKE_COMMAND"],
                        "-DCMAKE_INSTALL_PREFIX=" + prefix,
                        "-P",
                        os.path.join(BUILD, folder, "cmake_install.cmake"),
                    ],
                    check=True,
                    stdout=subprocess.DEVNULL,
                )
            modules = os.path.join(prefix, "lib", "python3", "dist-packages")
            environment = {"PATH": os.environ["PATH"], "PYTHONPATH": modules}
            libraries = self.folder_of(prefix, "libtmf.so.1")
            if libraries != os.path.join(prefix, "lib"):  # a folder that the system would know
                environment["LD_LIBRARY_PATH"] = libraries
            program = (
                "import tmf\n"
                "with tmf.Writer('queue') as writer: writer.write(b'one')\n"
                "print(tmf.__file__, tmf._lib._name, list(tmf.Reader('queue')))\n"
            )
            told = subprocess.run(
                [sys.executable, "-B", "-c", program],
                env=environment,
                cwd=prefix,
                check=True,
                capture_output=True,
                text=True,
            ).stdout.split(" ", 2)
            self.assertEqual(told[0], os.path.join(modules, "tmf.py"))
            if "LD_LIBRARY_PATH" not in environment:
                self.assertEqual(
                    os.path.realpath(told[1]), os.path.realpath(os.path.join(libraries, "libtmf.so.1"))
                )
            self.assertEqual(told[2], "[b'one']\n")

    @staticmethod
    def folder_of(prefix, name):
        return next(folder for folder, _, names in os.walk(prefix) if name in names)

    def test_library_that_is_not_there_is_named(self):
        told = subprocess.run(
            [sys.executable, "-B", "-c", "import tmf"],
            env={**os.environ, "LIBTMF": "/none/libtmf.so.1"},
            capture_output=True,
            text=True,
        )
        self.assertEqual(told.returncode, 1)
        self.assertIn("/none/libtmf.so.1: cannot open shared object file", told.stderr)


if __name__ == "__main__":
    unittest.main()
