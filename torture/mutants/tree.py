"""A copy of the repository with a build of its own, in which the mutants lie."""
import json
import os
import re
import shlex
import shutil
import subprocess

MODULES = {
    "quarn": ("quarn/src", "quarn/internal"), "cw": ("cw/src", "cw/internal"),
    "vorpc": ("vorpc/src", "vorpc/internal"), "vorpc_qt": ("vorpc_qt/src",), "src": ("src",),
    "wrapper": ("wrapper/src",), "calls": ("calls/src",),
}
ERROR = re.compile(r"^(/[^:\n]+):(\d+):(\d+):.*(?:error:|required from here)", re.MULTILINE)


class Tree:
    def __init__(self, root, folder, modules=None):
        self.root = root
        self.modules = modules or MODULES
        self.folder = folder
        self.copy = os.path.join(folder, "tree")
        self.build = os.path.join(folder, "build")
        self.plain = {}
        self.switch = read(os.path.join(os.path.dirname(os.path.realpath(__file__)), "switch.h"))

    def refresh(self):
        """Brings the copy up to date, but for the files that carry mutants. What has not changed keeps
        its date, and is not compiled."""
        names = subprocess.run(["git", "ls-files", "-co", "--exclude-standard", "-z"], cwd=self.root,
                               check=True, capture_output=True, text=True).stdout.split("\0")
        names = [one for one in names if one and os.path.isfile(os.path.join(self.root, one))]
        self.plain = {name: read(os.path.join(self.root, name)) for name in names}
        with_mutants = {name for module in self.modules for name in self.sources(module)}
        for name in set(names) - with_mutants:
            self.write(name, self.plain[name])
            shutil.copymode(os.path.join(self.root, name), os.path.join(self.copy, name))
        for name in with_mutants:
            if not os.path.exists(os.path.join(self.copy, name)):
                self.write(name, self.plain[name])

    def write(self, name, content):
        """Returns the file's path. A file that has this content already keeps its date."""
        path = os.path.normpath(os.path.join(self.copy, name))
        os.makedirs(os.path.dirname(path), exist_ok=True)
        if not os.path.exists(path) or read(path) != content:
            with open(path, "wb") as file:
                file.write(content)
        return path

    def configure(self):
        """Neither optimised nor with debug information nor with warnings: it compiles in half the time."""
        options = ["-DCMAKE_CXX_FLAGS=-w -Wno-narrowing", "-DCMAKE_BUILD_TYPE=Debug", "-DCMAKE_CXX_FLAGS_DEBUG=-O0", "-DCMAKE_C_FLAGS_DEBUG=-O0",
                   "-DCMAKE_LINK_DEPENDS_NO_SHARED=ON", "-DCMAKE_EXPORT_COMPILE_COMMANDS=ON",
                   "-DTARV_INSTALL=OFF"]
        if shutil.which("ld.lld"):
            options += [f"-DCMAKE_{kind}_LINKER_FLAGS=-fuse-ld=lld" for kind in ("EXE", "SHARED", "MODULE")]
        subprocess.run(["cmake", "-S", self.copy, "-B", self.build, "-G", "Ninja", *options], check=True,
                       stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)

    def make(self, targets, jobs):
        """What the compiler says when the targets do not build, else nothing."""
        done = subprocess.run(["ninja", "-C", self.build, f"-j{jobs}", "-k", "0", *targets],
                              capture_output=True, text=True, check=False)
        return "" if done.returncode == 0 else done.stdout + done.stderr

    def sources(self, module):
        """The module's files that hold code, by the names that they have in the repository."""
        folders = self.modules[module]
        return sorted(name for name in self.plain if os.path.dirname(name) in folders
                      and name.endswith((".cpp", ".h")))

    def compile_arguments(self):
        """By file, what tells the compiler's library how to read it as it stands in the repository."""
        with open(os.path.join(self.build, "compile_commands.json"), encoding="utf-8") as file:
            commands = json.load(file)
        found = {}
        for one in reversed(commands):
            name = os.path.relpath(one["file"], self.copy)
            words = reading(shlex.split(one["command"]))
            found[name] = [word.replace(self.copy, self.root, 1) for word in words]
        return found

    def places_of_errors(self, output):
        """File, line and column of each error that lies in the copy."""
        found = []
        for path, line, column in ERROR.findall(output):
            if path.startswith(self.copy + "/"):
                found.append((os.path.relpath(path, self.copy), int(line), int(column)))
        return sorted(set(found))


def read(path):
    with open(path, "rb") as file:
        return file.read()


def reading(command):
    taken = []
    for position, word in enumerate(command):
        if word.startswith(("-I", "-D", "-std")):
            taken.append(word)
        elif word == "-isystem":
            taken += [word, command[position + 1]]
    return taken
