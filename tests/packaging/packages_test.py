"""The Debian packages: what they hold, what lintian says, and that they install, run and are
removed in a system that has nothing but what they depend on."""

import fnmatch
import glob
import os
import re
import shutil
import subprocess
import tempfile
import unittest

import fresh_tree

SOURCE = os.environ["KESTRO_SOURCE_DIR"]
BUILD = os.environ["KESTRO_BUILD_DIR"]
HERE = os.path.dirname(os.path.abspath(__file__))
NAMES = ["kestro", "libtmf1", "libtmf-dev", "python3-tmf"]


def output(*command, **more):
    return subprocess.run(command, check=True, stdout=subprocess.PIPE, text=True, **more).stdout


class Packages(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.scratch = tempfile.mkdtemp()
        cls.addClassCleanup(shutil.rmtree, cls.scratch)
        open(cls.scratch + "/kestro_0.1_amd64.deb", "w", encoding="ascii").close()
        output(f"{SOURCE}/scripts/package", "--from", BUILD, cls.scratch,
               env={**os.environ, "KESTRO_PACKAGE_COMPRESSION": "gzip"})
        cls.packages = {os.path.basename(path).split("_")[0]: path
                        for path in glob.glob(cls.scratch + "/*.deb")}

    def test_packages_are_these_and_an_older_one_is_gone(self):
        found = [os.path.basename(path).split("_")[0] for path in glob.glob(self.scratch + "/*.deb")]
        self.assertEqual(sorted(found), sorted(NAMES))

    def test_contents_are_those_listed(self):
        """contents/PACKAGE has a line for each file or pattern of files, with its mode; each is
        there, but those behind "?", which not every build makes, and nothing else."""
        libraries = output("dpkg-architecture", "-qDEB_HOST_MULTIARCH").strip()
        for name in NAMES:
            with open(f"{HERE}/contents/{name}", encoding="utf-8") as file:
                lines = file.read().replace("LIB", "usr/lib/" + libraries).splitlines()
            listed = {line for line in lines if not line.startswith("?")}
            optional = {line[1:] for line in lines if line.startswith("?")}
            held = set()
            for line in output("dpkg-deb", "-c", self.packages[name]).splitlines():
                mode, owner, _, _, _, path = line.split(maxsplit=5)
                self.assertEqual(owner, "root/root", line)
                if mode.startswith("d"):
                    self.assertEqual(mode, "drwxr-xr-x", line)
                else:
                    held.add(f"{mode} {path}")
            unlisted = {line for line in held
                        if not any(fnmatch.fnmatchcase(line, pattern) for pattern in listed | optional)}
            missing = {pattern for pattern in listed if not fnmatch.filter(held, pattern)}
            self.assertEqual((unlisted, missing), (set(), set()), name)

    def test_pages_and_examples_are_those_of_the_sources(self):
        held = {path.removeprefix("./usr/share/doc/kestro/") for path in
                re.findall(r" (\./usr/share/doc/kestro/(?:docs|examples)/.*[^/])$",
                           output("dpkg-deb", "-c", self.packages["kestro"]), re.M)}
        sources = {os.path.relpath(os.path.join(folder, name), SOURCE)
                   for top in ("docs", "examples")
                   for folder, _, names in os.walk(f"{SOURCE}/{top}") for name in names
                   if name != "CMakeLists.txt" and "__pycache__" not in folder
                   and not folder.endswith("/docs/man")}
        if os.path.isdir(f"{SOURCE}/packaging/host"):  # examples for a host's /etc
            sources |= {"examples/host/" + name for name in os.listdir(f"{SOURCE}/packaging/host")}
        self.assertEqual(held, sources)

    def test_page_tells_all_packages(self):
        with open(SOURCE + "/docs/install.md", encoding="utf-8") as page:
            told = re.findall(r"^\| `([^`]+)` \|", page.read(), re.M)
        self.assertEqual(told, NAMES)

    def test_dependencies(self):
        def field(package, name):
            return output("dpkg-deb", "-f", self.packages[package], name).strip()

        version = field("libtmf1", "Version")
        self.assertRegex(field("kestro", "Depends"), r"\blibc6 \(.*\blibstdc\+\+6 \(")
        self.assertRegex(field("libtmf1", "Depends"), r"^libc6 \(>= [0-9.]*\)$")
        self.assertEqual(field("libtmf-dev", "Depends"), f"libtmf1 (= {version})")
        self.assertEqual(field("python3-tmf", "Depends"), f"python3 (>= 3.9), libtmf1 (>= {version})")
        self.assertEqual(field("python3-tmf", "Architecture"), "all")
        self.assertEqual(output("dpkg-deb", "-I", self.packages["libtmf1"], "shlibs"),
                         f"libtmf 1 libtmf1 (>= {version})\n")

    def test_copyright_says_that_there_is_no_licence_yet(self):
        for name in NAMES:
            text = subprocess.run(
                f"dpkg-deb --fsys-tarfile {self.packages[name]} |"
                f" tar -xO ./usr/share/doc/{name}/copyright",
                shell=True, check=True, stdout=subprocess.PIPE, text=True).stdout
            self.assertIn("no licence has been chosen yet", text)

    @unittest.skipUnless(shutil.which("lintian"), "lintian is missing: Debian package lintian")
    def test_lintian_finds_no_error(self):
        told = subprocess.run(["lintian", "--fail-on", "none", *self.packages.values()],
                              env={**os.environ, "TMPDIR": self.scratch},
                              check=True, capture_output=True, text=True).stdout
        # What it may tell is about the licence that has not been chosen.
        rest = [line for line in told.splitlines()
                if not re.search("copyright-without-copyright-notice", line)]
        self.assertEqual(rest, [])

    def test_installs_runs_and_is_removed_in_a_fresh_system(self):
        depends = ["libc-bin", "dash", "coreutils", "sed", "grep"]
        depends += ["libpam-modules-bin"]  # whose folder of systemd units each system has
        for path in self.packages.values():
            for choices in fresh_tree.names_of(output("dpkg-deb", "-f", path, "Depends")):
                depends += [name for name in choices if name not in NAMES]
        tree = fresh_tree.Tree(self.scratch + "/tree", depends)
        if not tree.can_be_entered():
            self.skipTest("no right to change the root folder")
        before = tree.files()
        self.install(tree)
        self.assertEqual(tree.dpkg("--audit", *NAMES).stdout, "")
        self.run_programs(tree)
        edited = [path for package in NAMES for path in tree.conffiles(package)]
        for path in edited:
            with open(tree.path(path), "a", encoding="utf-8") as file:
                file.write("# edited\n")
        self.install(tree)  # the same once more, as an upgrade does
        for path in edited:
            with open(tree.path(path), encoding="utf-8") as file:
                self.assertTrue(file.read().endswith("# edited\n"), path)

        # The folders that systemd makes for the services, one of them in use.
        folders = [tree.path(name) for name in ("etc/kestro", "var/lib/kestro")]
        for folder in folders:
            os.makedirs(folder, exist_ok=True)
        capture = folders[1] + "/capture"
        with open(capture, "w", encoding="ascii"):
            pass

        removed = tree.dpkg("--remove", *NAMES)
        self.assertEqual((removed.returncode, removed.stderr), (0, ""), removed.stdout)
        self.assertTrue(all(map(os.path.isdir, folders)))
        purged = tree.dpkg("--purge", *NAMES)
        self.assertEqual(purged.returncode, 0, purged.stderr)
        self.assertNotIn("rmdir", purged.stderr)
        os.remove(capture)  # stayed
        os.rmdir(folders[1])
        self.assertEqual(tree.files() ^ before, set())
        cache = tree.run("ldconfig", "-p").stdout
        self.assertIn("libc.so.6", cache)
        self.assertNotIn("libtmf", cache)

    def install(self, tree):
        installed = tree.dpkg("--install", *self.packages.values())
        self.assertEqual((installed.returncode, installed.stderr), (0, ""), installed.stdout)
        self.assertIn("libtmf.so.1 ", tree.run("ldconfig", "-p").stdout)

    def run_programs(self, tree):
        def run(script):
            ran = tree.run("sh", "-euc", script)
            self.assertEqual((ran.returncode, ran.stderr), (0, ""), script)
            return ran.stdout

        for program in ("fwlog", "capread", "tmf"):
            self.assertTrue(run(program + " --version").startswith(program))
        run("""cd /tmp; orders=/usr/share/doc/kestro/examples/orders
               cp $orders/fwutil.cfg orders.cfg; head -n 272 $orders/orders-changes.jsonl >changes
               fwlog load -cfg orders.cfg changes >loaded
               Kestro -cfg orders.cfg -stat status -synconly -recnum orders.msg >captured""")
        self.assertIn(" records", run("cd /tmp; tmf info orders.msg"))
        self.assertGreater(len(run("""cd /tmp
            fwlog layout -cfg orders.cfg --json -recnum >layout
            capread --layout layout -recnum orders.msg""").splitlines()), 100)
        self.assertEqual(run("""cd /tmp; python3 -c '
import tmf
with tmf.Writer("queue") as writer: writer.write(b"one")
print(list(tmf.Reader("queue")))'"""), "[b'one']\n")


if __name__ == "__main__":
    unittest.main()
