"""What is installed for a host: systemd units, users, logrotate's snippet, checked by the
programs that read them, and followed."""

import os
import pathlib
import re
import shutil
import subprocess
import tempfile
import unittest

BUILD = pathlib.Path(os.environ["KESTRO_BUILD_DIR"])


def run(*words, **more):
    return subprocess.run(words, capture_output=True, text=True, timeout=60, **more)


def tool(name):
    return shutil.which(name) or shutil.which(name, path="/usr/sbin:/sbin")


class Host(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.scratch = tempfile.TemporaryDirectory()
        cls.prefix = pathlib.Path(cls.scratch.name) / "a prefix"
        # One installation at a time: what they write in the build folder is the same.
        result = run("flock", BUILD / "install.lock", "cmake", "--install", BUILD,
                     "--prefix", "a prefix", cwd=cls.scratch.name)
        if result.returncode != 0:
            raise RuntimeError(result.stderr)
        cls.units = cls.prefix / "lib/systemd/system"

    @classmethod
    def tearDownClass(cls):
        cls.scratch.cleanup()

    def test_units_name_the_installed_programs(self):
        for unit, program in (("kestro@", "Kestro"), ("fwlog-postgresql@", "fwlog")):
            text = (self.units / f"{unit}.service").read_text()
            found = re.search(r'^ExecStart="(.+?)"', text, re.M).group(1)
            self.assertEqual(found, str(self.prefix / "bin" / program))
            page = re.search(r"^Documentation=file://(\S+)", text, re.M).group(1)
            self.assertTrue(pathlib.Path(page.replace("%%20", " ")).is_file(), page)
            self.assertNotIn("@BINDIR@", text)

    @unittest.skipUnless(tool("systemd-analyze"), "systemd-analyze is not installed")
    def test_systemd_finds_nothing_wrong(self):
        for unit in ("kestro@", "fwlog-postgresql@"):
            named = pathlib.Path(self.scratch.name) / f"{unit}orders.service"
            named.write_text((self.units / f"{unit}.service").read_text())
            result = run(tool("systemd-analyze"), "verify", "--man=no", named,
                         env={**os.environ, "SYSTEMD_LOG_LEVEL": "warning"})
            about = [line for line in result.stderr.splitlines() if "orders" in line]
            self.assertEqual((result.returncode, about), (0, []), result.stderr)

    def test_services_ask_for_no_more_rights_than_they_need(self):
        for unit in ("kestro@", "fwlog-postgresql@"):
            lines = (self.units / f"{unit}.service").read_text().splitlines()
            for line in ("User=kestro", "UMask=0027", "StateDirectory=kestro/%i",
                         "StateDirectoryMode=0750", "NoNewPrivileges=yes",
                         "CapabilityBoundingSet=", "ProtectSystem=strict", "ProtectHome=yes",
                         "PrivateTmp=yes", "PrivateDevices=yes", "ProtectProc=invisible",
                         "RestrictNamespaces=yes", "RestrictSUIDSGID=yes",
                         "MemoryDenyWriteExecute=yes", "SystemCallFilter=@system-service",
                         "SystemCallFilter=~@privileged @resources"):
                self.assertIn(line, lines, unit)
            self.assertFalse([line for line in lines if line.startswith("ReadWritePaths")], unit)
        kestro = (self.units / "kestro@.service").read_text()
        self.assertIn("\nIPAddressDeny=any\nIPAddressAllow=localhost\n", kestro)

    @unittest.skipUnless(tool("systemd-analyze"), "systemd-analyze is not installed")
    def test_systemd_thinks_little_exposed(self):
        for unit in ("kestro@", "fwlog-postgresql@"):
            named = pathlib.Path(self.scratch.name) / f"{unit}exposed.service"
            named.write_text((self.units / f"{unit}.service").read_text())
            # Out of 100, where less is better: 96 for a service without any of it.
            result = run(tool("systemd-analyze"), "security", "--offline=true", "--no-pager",
                         "--threshold=13", named)
            if "unrecognized option" in result.stderr:
                self.skipTest("this systemd-analyze looks at running services only")
            self.assertEqual(result.returncode, 0, result.stdout + result.stderr)

    @unittest.skipUnless(tool("systemd-sysusers"), "systemd-sysusers is not installed")
    def test_the_user_and_the_folders_are_made(self):
        root = pathlib.Path(self.scratch.name) / "root"
        (root / "etc").mkdir(parents=True)
        for program, folder in (("systemd-sysusers", "sysusers.d"),
                                ("systemd-tmpfiles", "tmpfiles.d")):
            words = ["--create"] if folder == "tmpfiles.d" else []
            result = run(tool(program), f"--root={root}", *words,
                         self.prefix / "lib" / folder / "kestro.conf")
            self.assertEqual((result.returncode, result.stderr.count("rror")), (0, 0),
                             result.stderr)
        self.assertRegex((root / "etc/passwd").read_text(), r"(?m)^kestro:.*:/var/lib/kestro:")
        folder = root / "etc/kestro"
        self.assertTrue(folder.is_dir())
        self.assertEqual(folder.stat().st_mode & 0o7777, 0o750)
        group = re.search(r"(?m)^kestro:[^:]*:(\d+):", (root / "etc/group").read_text())
        if os.geteuid() == 0:
            self.assertEqual((folder.stat().st_uid, folder.stat().st_gid), (0, int(group[1])))

    @unittest.skipUnless(tool("logrotate"), "logrotate is not installed")
    def test_logrotate_reads_its_snippet(self):
        snippet = self.prefix / "share/doc/kestro/examples/host/logrotate"
        copy = pathlib.Path(self.scratch.name) / "logrotate"
        # The user is made by the service's files, not by this test.
        text = re.sub(r"(?m)^ +su .*\n", "", snippet.read_text())
        copy.write_text(text)
        copy.chmod(0o644)
        result = run(tool("logrotate"), "-d", copy)
        self.assertEqual(result.returncode, 0, result.stderr)
        self.assertNotIn("error:", result.stderr)
        self.assertIn("/var/lib/kestro/*/*.txt", result.stderr)

    def test_the_reserved_ports_are_those_of_message_files(self):
        text = (self.prefix / "share/doc/kestro/examples/host/sysctl.conf").read_text()
        first, last = re.search(r"(?m)^net.ipv4.ip_local_reserved_ports=(\d+)-(\d+)$",
                                text).groups()
        layout = pathlib.Path(os.environ["KESTRO_SOURCE_DIR"], "docs/operations.md").read_text()
        self.assertIn(f"ports {first} to {last}", layout)


if __name__ == "__main__":
    unittest.main()
