"""What bash completes behind the programs' names: their subcommands, their options, all that
the help and the program's rows have, and the values that an option takes.  And -h beside --help."""

import os
import re
import subprocess
import tempfile
import unittest
import unittest.mock

SOURCE = os.environ["KESTRO_SOURCE_DIR"]
BIN = os.environ["KESTRO_BUILD_DIR"] + "/bin/"
# Completes the words behind "bash -c SCRIPT", as bash would: the program, the last word, the one
# before it.
COMPLETE = """
compopt() { printf '<%s>\\n' "$2"; }
. "$1"; shift
COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1))
"$(complete -p "${1##*/}" | sed 's/.*-F //; s/ .*//')" "$1" "${!#}" "${COMP_WORDS[COMP_CWORD - 1]}"
((${#COMPREPLY[@]} == 0)) || printf '%s\\n' "${COMPREPLY[@]}"
"""
FILES = ["<default>"]  # bash completes names of files
FOLDERS = ["<dirnames>"]


def ran(*command):
    return subprocess.run(command, capture_output=True, text=True, check=False)


def completed(program, *words):
    done = ran("bash", "-euc", COMPLETE, "bash", f"{SOURCE}/packaging/bash-completion/kestro",
               BIN + program, *words)
    assert done.stderr == "", done.stderr
    return done.stdout.splitlines()


def help_of(*words):
    return ran(BIN + words[0], *words[1:], "--help").stdout


def subcommands(program):
    return re.findall(r"^  ([a-z]+) +[a-z]", help_of(program), re.M)


def built(program):
    return [program] if os.path.exists(BIN + program) else []


def commands():
    return [("capread",)] + [(program, word) for program in ("fwlog", "tmf", *built("capship"))
                             for word in subcommands(program)]


class Completion(unittest.TestCase):
    def test_subcommands(self):
        self.assertGreaterEqual(set(subcommands("fwlog")), {"load", "postgresql", "info"})
        self.assertGreaterEqual(set(subcommands("tmf")), {"info", "read", "write"})
        for program in ("fwlog", "tmf", *built("capship")):
            self.assertEqual(sorted(completed(program, "")),
                             sorted(["-h", "--help", "--version", *subcommands(program)]))
        self.assertEqual(completed("tmf", "re"), ["read", "repair"])

    def test_options_are_those_of_the_help(self):
        for command in commands():
            # The synopsis has all, too.
            synopsis = help_of(*command).split("\n\n")[0]
            options = set(re.findall(r"(?<=[ \[(])--?[a-z][-a-z]*", synopsis))
            options |= {"-h", "--help"} | ({"--version"} if command == ("capread",) else set())
            self.assertEqual(set(completed(*command, "-")), options, command)

    def test_options_of_kestro_are_those_of_its_rows(self):
        with open(SOURCE + "/driver/options.cpp", encoding="utf-8") as file:
            rows = set(re.findall(r'\.name = "(-[^"]+)"', file.read()))
        self.assertIn("-showsets", rows)
        self.assertEqual(set(completed("Kestro", "-")), rows - {"-?"})

    def test_values(self):
        for words, expected in (
            (("fwlog", "sql", "--dialect", ""), ["postgresql", "sqlite"]),
            (("fwlog", "dump", "--numbers", "j"), ["json"]),
            (("fwlog", "dump", "--numbers", "=", ""), ["text", "json"]),
            (("fwlog", "dump", "--numbers", "="), ["text", "json"]),
            (("fwlog", "postgresql", "--create", "=", "m"), ["minimal"]),
            (("fwlog", "postgresql", "--create", "--sl"), ["--slot"]),
            (("fwlog", "layout", "-info", "DB"), ["DBNAME", "DBUSER"]),
            (("capread", "-info", "S"), ["SESSION"]),
            (("Kestro", "-info", "P"), ["PROG"]),
            (("Kestro", "-INFO", "P"), ["PROG"]),
            (("tmf", "read", "--count", ""), []),
            (("Kestro", "-dset", ""), []),
        ):
            self.assertEqual(completed(*words), expected, words)

    def test_files(self):
        for words, expected in (
            (("fwlog", "info", "-cfg", ""), FILES),
            (("fwlog", "prune", "--status", "=", ""), FILES),
            (("fwlog", "csv", "--dir", ""), FOLDERS),
            (("Kestro", "-stat", "x"), FILES),
            (("Kestro", "-cfg", "x"), FILES),
            (("Kestro", "-pidfile", "x"), FILES),
            (("Kestro", "-ascii", "orders"), FILES),
            (("tmf", "info", ""), FILES),
            (("tmf", "info", "../a/b.c*[", ""), FILES),
            (("capread", "--layout", "f", "x"), FILES),
        ):
            self.assertEqual(completed(*words), expected, words)

    def test_program_below_the_home_folder(self):
        with tempfile.TemporaryDirectory() as home:
            os.symlink(BIN, home + "/bin")
            with unittest.mock.patch.dict(os.environ, HOME=home):
                done = ran("bash", "-euc", COMPLETE, "bash",
                           f"{SOURCE}/packaging/bash-completion/kestro", "~/bin/tmf", "re")
            self.assertEqual((done.stdout, done.stderr), ("read\nrepair\n", ""))

    def test_program_that_is_not_there_completes_nothing(self):
        self.assertEqual(completed("none/fwlog", "x"), [])


class Help(unittest.TestCase):
    def test_h_is_help_in_each_tool_and_subcommand(self):
        for command in [("fwlog",), ("tmf",), *commands()]:
            told = ran(BIN + command[0], *command[1:], "-h")
            self.assertEqual((told.returncode, told.stdout, told.stderr),
                             (0, help_of(*command), ""), command)
            self.assertTrue(told.stdout.startswith("Usage: " + command[0]), command)
            self.assertRegex(told.stdout, r"--help +print this \(also -h\)|-h \| --help")

    def test_kestro_has_none(self):
        self.assertIn("Unrecognized option -h", ran(BIN + "Kestro", "-h").stderr)


if __name__ == "__main__":
    unittest.main()
