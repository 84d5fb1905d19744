"""A Debian system in a folder: the packages named and all that they depend on, as they are
installed here, and nothing else, with a package database of its own.  Commands run in it with
the folder as their root."""

import os
import re
import shutil
import stat
import subprocess

DATABASE = "var/lib/dpkg"
ENVIRONMENT = {"PATH": "/usr/sbin:/usr/bin:/sbin:/bin", "LC_ALL": "C.UTF-8"}
# What a package is made of beyond its documentation.
LEFT_OUT = re.compile(r"/usr/share/(?!python3)")


def names_of(dependencies):
    """The packages of "a (>= 1) | b, c:any" as [[a, b], [c]]."""
    return [
        [re.split(r"[ (:]", word.strip())[0] for word in part.split("|")]
        for part in dependencies.split(",")
        if part.strip()
    ]


def read_status():
    """The packages installed: name -> (its stanza, its fields), and under what they provide."""
    with open(f"/{DATABASE}/status", encoding="utf-8") as file:
        stanzas = file.read().split("\n\n")
    found, provided = {}, {}
    for stanza in stanzas:
        fields = dict(re.findall(r"^([A-Z][-A-Za-z]*): (.*)$", stanza, re.M))
        if fields.get("Status") != "install ok installed":
            continue
        found.setdefault(fields["Package"], (stanza, fields))
        for name in names_of(fields.get("Provides", "")):
            provided.setdefault(name[0], (stanza, fields))
    return {**provided, **found}


def closure(names):
    """The packages and what they depend on: name -> (stanza, fields)."""
    installed = read_status()
    found = {}
    waiting = list(names)
    while waiting:
        stanza, fields = installed[waiting.pop()]
        if fields["Package"] in found:
            continue
        found[fields["Package"]] = (stanza, fields)
        depends = fields.get("Depends", "") + "," + fields.get("Pre-Depends", "")
        for choices in names_of(depends):
            waiting += [name for name in choices if name in installed][:1]
    return found


class Tree:
    def __init__(self, root, packages):
        self.root = root
        self.enter = [] if os.geteuid() == 0 else ["unshare", "--map-root-user"]
        for folder in ("dev", "tmp", "run", "usr", f"{DATABASE}/info", f"{DATABASE}/updates",
                       f"{DATABASE}/triggers", "var/cache/ldconfig"):
            os.makedirs(self.path(folder))
        for name in ("bin", "sbin", "lib", "lib64"):  # as on a system that keeps them in /usr
            if os.path.islink("/" + name):
                os.makedirs(self.path("usr/" + name))
                os.symlink("usr/" + name, self.path(name))
        with open(self.path("dev/null"), "w", encoding="ascii"):
            pass
        with open(self.path(f"{DATABASE}/triggers/ldconfig"), "w", encoding="ascii") as file:
            file.write("libc-bin\n")
        with open(self.path(f"{DATABASE}/status"), "w", encoding="utf-8") as status:
            for stanza, fields in closure(packages).values():
                status.write(stanza + "\n\n")
                self.copy(fields)

    def path(self, name):
        return os.path.join(self.root, name.lstrip("/"))

    def copy(self, fields):
        """A package's files and what the database has of it."""
        info = f"/{DATABASE}/info/{fields['Package']}"
        if not os.path.exists(info + ".list"):
            info += ":" + fields["Architecture"]
        kinds = ["list"]
        if fields["Package"] == "libc-bin":  # whose trigger is ldconfig
            kinds += ["triggers", "postinst"]
        for kind in kinds:
            if os.path.exists(f"{info}.{kind}"):
                shutil.copy(f"{info}.{kind}", self.path(f"{info}.{kind}"))
        with open(info + ".list", encoding="utf-8") as file:
            for name in file.read().splitlines():
                if os.path.lexists(name) and not LEFT_OUT.match(name):
                    self.copy_file(name)

    def copy_file(self, name):
        there = self.path(name)
        if os.path.isdir(name) and not os.path.islink(name):
            os.makedirs(there, exist_ok=True)
        elif not os.path.lexists(there):
            os.makedirs(os.path.dirname(there), exist_ok=True)
            shutil.copy(name, there, follow_symlinks=False)

    def can_be_entered(self):
        return self.run("true").returncode == 0

    def run(self, *command):
        return subprocess.run([*self.enter, "chroot", self.root, *command], env=ENVIRONMENT,
                              capture_output=True, text=True, check=False)

    def dpkg(self, *words):
        return subprocess.run(
            [*self.enter, "dpkg", "--root=" + self.root, "--log=/dev/null", *words],
            env=ENVIRONMENT, capture_output=True, text=True, check=False)

    def conffiles(self, package):
        """The configuration files of an installed package."""
        try:
            with open(self.path(f"{DATABASE}/info/{package}.conffiles"), encoding="utf-8") as file:
                return file.read().splitlines()
        except FileNotFoundError:
            return []

    def files(self):
        """All names with their kinds, but those of caches and of the package database."""
        found = set()
        for folder, folders, names in os.walk(self.root):
            for name in folders + names:
                path = os.path.join(folder, name)
                kind = stat.S_IFMT(os.lstat(path).st_mode)
                found.add((os.path.relpath(path, self.root), kind))
        mine = (DATABASE, "var/cache", "etc/ld.so.cache", "tmp/", "usr/lib/python3.",
                "usr/share/python3/")
        return {(name, kind) for name, kind in found if not name.startswith(mine)}
