"""What mutate.py builds: a copy of the tree in the cache folder whose programs hold all mutants that can be switched."""

import concurrent.futures
import hashlib
import json
import os
import shlex
import subprocess
import sys
import threading
from pathlib import Path

from mutants import TREE
from switches import HEADER, MARK, Switched

CACHE = Path(os.environ.get("CORV_CACHE", "/var/cache/corv-agent-dev"))
PATIENCE = 300
PAGE = 4096  # what the note of what is reached is mapped in

HEADERS = ("QCoreApplication", "QDateTime", "QDir", "QFile", "QJsonArray", "QJsonDocument", "QJsonObject", "QProcess",
           "QRegularExpression", "QString", "QStringList", "QTimer", "algorithm", "functional", "optional", "vector")
UNDER = []  # what every command is run by

# Sources with mutants are compiled without optimisation and with their header; all others as a build of the tree has them, from its cache.
FLAGS = """
set_source_files_properties({sources} PROPERTIES COMPILE_OPTIONS "-w;-Wno-error;-O0;-g0;-U_FORTIFY_SOURCE;-include;{header}")
"""
# Which have them: those of the agent all, of the client the ones that were drawn.
AGENTS_SOURCES = "${CORV_COMMON_SOURCES} ${CORV_AGENT_SOURCES} agent/main.cpp"


class TooLong(Exception):
    """A command did not end in time."""


def run(argv, log, patience=PATIENCE, **how):
    """Whether the command ends well."""
    with log.open("ab") as file:
        process = subprocess.Popen([*UNDER, *argv], stdin=subprocess.DEVNULL, stdout=file, stderr=file, start_new_session=True,
                                   **how)
        try:
            return process.wait(patience) == 0
        except subprocess.TimeoutExpired:
            raise TooLong from None
        finally:
            # What a mutant left behind must not disturb the next one.
            try:
                os.killpg(process.pid, 9)
            except ProcessLookupError:
                pass
            process.wait()


def place(client):
    """The folder of the cache for the build: that of the client's mutants is another one."""
    return CACHE / "mutate" / ("client" if client else "switched")


def numbered(everything, where):
    """The keyed mutants as (key, mutant), the first with number 1; nothing where one has gone. Each keeps its number from run to run:
    the programs hold it, and what has not changed is neither built nor learnt of anew."""
    path = where / "numbers.json"
    mine = dict(everything)
    kept = [tuple(key) for key in json.loads(path.read_text())] if path.exists() else []
    if len(kept) > 2 * len(mine):
        kept = []
    known = set(kept)
    kept += [key for key in mine if key not in known]
    where.mkdir(parents=True, exist_ok=True)
    path.write_text(json.dumps(kept))
    return [(key, mine[key]) if key in mine else None for key in kept]


def compiler_environment(tree):
    """As scripts/check has it, whose objects serve here."""
    return os.environ | {"CCACHE_DIR": str(CACHE / "ccache"), "CCACHE_BASEDIR": str(tree), "CCACHE_NOHASHDIR": "1", "LC_ALL": "C.UTF-8"}


class Build:
    """The copy of the tree, what is built of it, and the log. `alone` are the numbers of the mutants that are in no program."""

    def __init__(self, mutants, where, client=False):
        """`mutants` is a list of (source, line's number, line, changed line), or nothing; the first has number 1."""
        self.mutants = mutants
        self.where = where
        self.tree, self.build, self.log = where / "tree", where / "tree/build", where / "log"
        self.header = where / "switches.h"
        self.env = compiler_environment(self.tree)
        # Whole pages: a few more of them change no program.
        self.size = (len(mutants) // PAGE + 1) * PAGE
        self.sources = sorted({mutant[0] for mutant in mutants if mutant})
        self._flagged = " ".join(self.sources) if client else AGENTS_SOURCES
        where.mkdir(parents=True, exist_ok=True)
        self.log.write_bytes(b"")
        self._copy_tree()
        text = "".join(f"#include <{name}>\n" for name in HEADERS) + HEADER.replace("%SIZE%", str(self.size))
        if not self.header.exists() or self.header.read_text() != text:
            self.header.write_text(text)
            Path(f"{self.header}.gch").unlink(missing_ok=True)
        configure = ["cmake", "-S", self.tree, "-B", self.build, "-G", "Ninja", "-DCMAKE_BUILD_TYPE=RelWithDebInfo", "-DCORV_WERROR=ON",
                     "-DCMAKE_CXX_COMPILER_LAUNCHER=ccache"]
        if not run(configure, self.log, env=self.env):
            sys.exit(f"the tree cannot be configured, see {self.log}")
        self.command, self.flags = self._command()
        if not Path(f"{self.header}.gch").exists():
            argv = [self.command, *self.flags, "-x", "c++-header", self.header, "-o", f"{self.header}.gch"]
            if not run(argv, self.log):
                sys.exit(f"Qt's headers cannot be compiled, see {self.log}")
        self._switch()

    def _copy_tree(self):
        """Makes the copy the same as the tree, but for the sources with mutants; what is the same already keeps its time."""
        names = subprocess.run(["git", "ls-files", "-z"], cwd=TREE, check=True, capture_output=True).stdout.decode().split("\0")
        names = {name for name in names if name and (TREE / name).is_file()}
        for path in [path for path in self.tree.rglob("*") if path.is_file() and not path.is_relative_to(self.build)]:
            if str(path.relative_to(self.tree)) not in names:
                path.unlink()
        for name in names - {f"src/{source}" for source in self.sources}:
            data = (TREE / name).read_bytes()
            if name == "src/CMakeLists.txt":
                data += FLAGS.format(sources=self._flagged, header=self.header).encode()
            if name == "tests/unit/CMakeLists.txt":
                data += FLAGS.format(sources="${PROJECT_SOURCE_DIR}/src/common/Run.cpp test_files.cpp", header=self.header).encode()
            self._put(self.tree / name, data, (TREE / name).stat().st_mode)
        for source in self.sources:
            if not (self.tree / "src" / source).exists():
                self._put(self.tree / "src" / source, (TREE / "src" / source).read_bytes(), 0o644)

    @staticmethod
    def _put(path, data, mode=0o644):
        if not path.exists() or path.read_bytes() != data:
            path.parent.mkdir(parents=True, exist_ok=True)
            path.write_bytes(data)
            path.chmod(mode & 0o777)

    def _command(self):
        commands = json.loads((self.build / "compile_commands.json").read_text())
        words = next(shlex.split(entry["command"]) for entry in commands if entry["file"].endswith("/agent/Agent.cpp"))
        words = [word for word in words if not word.endswith("ccache")]
        flags = words[1 : words.index("-o")]
        at = flags.index("-include")
        return words[0], [*flags[:at], *flags[at + 2 :]]

    def _compile(self, path):
        """What the compiler says against a source; nothing where it takes it."""
        argv = [*UNDER, self.command, *self.flags, "-fsyntax-only", "-include", str(self.header), str(path)]
        done = subprocess.run(argv, capture_output=True, text=True, env=self.env, errors="replace")
        return done.stderr if done.returncode != 0 else ""

    def _switch(self):
        """Writes the sources with their mutants."""
        kept_path = self.where / "switched.json"
        kept = json.loads(kept_path.read_text()) if kept_path.exists() else {}
        includes = [flag for flag in self.flags if flag.startswith(("-I", "-D"))]
        includes += [word for at, flag in enumerate(self.flags) if flag == "-isystem" for word in (flag, self.flags[at + 1])]
        lock = threading.Lock()
        maker = Path(__file__).with_name("switches.py").read_bytes()

        def switch(source):
            mine = [(number, *mutant[1:]) for number, mutant in enumerate(self.mutants, 1) if mutant and mutant[0] == source]
            original = TREE / "src" / source
            digest = hashlib.sha256(maker + original.read_bytes() + json.dumps(mine).encode()).hexdigest()
            if kept.get(source, {}).get("digest") != digest:
                entry = {"digest": digest, **self._switch_one(original, ["-std=c++20", *includes], mine)}
                with lock:
                    kept[source] = entry
                    kept_path.write_text(json.dumps(kept))
            self._put(self.tree / "src" / source, kept[source]["text"].encode())

        with concurrent.futures.ThreadPoolExecutor(os.cpu_count()) as pool:
            list(pool.map(switch, self.sources))
        self.switched = {source: kept[source]["text"] for source in self.sources}
        self.alone = {number for source in self.sources for number in kept[source]["alone"]}

    def _switch_one(self, original, flags, mine):
        trial = self.where / str(original.relative_to(TREE)).replace("/", "-")
        switched = Switched(original, flags, mine)
        for _ in range(20):
            trial.write_bytes(switched.write())
            told = self._compile(trial)
            if not told:
                break
            if not switched.refused(told, str(trial)):
                print(f"no mutant of {original} can be switched: {told[:600]}", flush=True)
                switched.alone.update(number for number, *_ in mine)
        else:
            sys.exit(f"the compiler goes on to refuse {original} with switches: {told[:600]}")
        trial.unlink()
        print(f"{original.relative_to(TREE)}: {len(mine)} mutants, {len(switched.alone)} of them not switched", flush=True)
        return {"text": switched.write().decode(), "alone": sorted(switched.alone)}

    def compiles(self, number):
        """Whether the source with that one mutant does."""
        trial = self.where / f"{number}.cpp"
        trial.write_bytes(self.changed(number))
        told = self._compile(trial)
        trial.unlink()
        return not told

    def changed(self, number):
        """The original source with one mutant."""
        source, at, line, other = self.mutants[number - 1]
        lines = (TREE / "src" / source).read_text().splitlines()
        assert lines[at] == line
        lines[at] = other
        return ("\n".join(lines) + "\n").encode()

    def make(self, targets=(), patience=7200, jobs=1):
        """Whether the programs can be built."""
        argv = ["cmake", "--build", self.build, "-j", str(jobs)]
        return run([*argv, "--target", *targets] if targets else argv, self.log, patience, env=self.env)

    def programs(self):
        """The built programs that hold the mutants."""
        return [path for path in (self.build / "bin").iterdir() if path.is_file() and MARK in path.read_bytes()]

    def replace(self, number):
        """Puts the source with that one mutant in place of the one with switches; with 0 puts all back."""
        if number:
            self._put(self.tree / "src" / self.mutants[number - 1][0], self.changed(number))
            return
        for source, text in self.switched.items():
            self._put(self.tree / "src" / source, text.encode())
