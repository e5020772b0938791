"""Scans the same files with the same rules by the daemon and by what a user would take instead, in turns.

Writes peers.json: for each peer the daemon's speed as a multiple of the peer's. A peer that is not installed, or that
does not take the rules, is left out with a line saying so. All that is started here is ended here. clamd tells only
one match of a file, and one process per file is tried on the first files only, so their numbers of matches are lower.
"""

import argparse
import json
import os
import pathlib
import re
import shutil
import socket
import statistics
import subprocess
import tempfile
import threading
import time

HERE = pathlib.Path(__file__).resolve().parent
THREADS = 2
START_SECONDS = 180  # for a program to load its rules
PASS_SECONDS = 600
FILES_OF_PROCESSES = 100  # one process per file is measured on fewer of them


class Unavailable(Exception):
    pass


class LineProgram:
    """A program that scans all files once for each line of input and prints "seconds matches"."""

    def __init__(self, command):
        if shutil.which(command[0]) is None:
            raise Unavailable(f"there is no {command[0]}")
        self.process = subprocess.Popen(command, stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)

    def run(self, files):
        timer = threading.Timer(PASS_SECONDS, self.process.kill)
        timer.start()
        try:
            self.process.stdin.write("\n")
            self.process.stdin.flush()
            seconds, matches = self.process.stdout.readline().split()
        except (ValueError, OSError) as error:
            raise Unavailable("it ended without an answer") from error
        finally:
            timer.cancel()
        return float(seconds), len(files), int(matches)

    def stop(self):
        self.process.stdin.close()
        try:
            self.process.wait(timeout=10)
        except subprocess.TimeoutExpired:
            self.process.kill()
            self.process.wait()
        self.process.stdout.close()


class Yara:
    """Debian's yara with rules compiled before."""

    def __init__(self, folder, process_per_file):
        if shutil.which("yara") is None:
            raise Unavailable("there is no yara")
        self.rules = folder / "rules.yarc"
        self.process_per_file = process_per_file
        subprocess.run(["yarac", "-w", folder / "rules.yar", self.rules], check=True)

    def run(self, files):
        if self.process_per_file:
            files = files[:FILES_OF_PROCESSES]
            commands = [["yara", "-w", "-C", self.rules, file] for file in files]
        else:
            commands = [["yara", "-w", "-C", "-r", "-p", str(THREADS), self.rules, files[0].parent]]
        start = time.monotonic()
        matches = sum(subprocess.run(command, capture_output=True, timeout=PASS_SECONDS, check=True).stdout.count(b"\n")
                      for command in commands)
        return time.monotonic() - start, len(files), matches

    def stop(self):
        self.rules.unlink()


class Clamd:
    """clamd with nothing but these rules; it remembers no clean files, and so scans each one anew."""

    def __init__(self, folder):
        if shutil.which("clamd") is None or shutil.which("clamdscan") is None:
            raise Unavailable("there is no clamd or no clamdscan")
        self.scratch = tempfile.TemporaryDirectory(prefix="vond_bench.")
        scratch = pathlib.Path(self.scratch.name)
        database = scratch / "database"
        database.mkdir()
        shutil.copy(folder / "rules.yar", database)
        self.socket = scratch / "socket"
        self.configuration = scratch / "clamd.conf"
        self.configuration.write_text(f"LocalSocket {self.socket}\nDatabaseDirectory {database}\nForeground yes\n"
                                      f"MaxThreads {THREADS}\nDisableCache yes\nSelfCheck 0\n")
        log = scratch / "log"
        with log.open("wb") as output:
            self.process = subprocess.Popen(["clamd", "-c", self.configuration], stdin=subprocess.DEVNULL,
                                            stdout=output, stderr=subprocess.STDOUT)
        deadline = time.monotonic() + START_SECONDS
        while not self.socket.exists():
            if self.process.poll() is not None or time.monotonic() > deadline:
                last = log.read_text(errors="replace").strip().rsplit("\n", 1)[-1]
                self.stop()
                raise Unavailable(f"clamd does not start: {last}")
            time.sleep(0.1)
        self.refused = len(set(re.findall(r"yyerror\(\):.* line \d+", log.read_text(errors="replace"))))

    def stop(self):
        self.process.terminate()
        try:
            self.process.wait(timeout=20)
        except subprocess.TimeoutExpired:
            self.process.kill()
            self.process.wait()
        self.scratch.cleanup()


class ClamdFdpass(Clamd):
    """As clamdscan uses it, on as many threads as it has."""

    def run(self, files):
        command = ["clamdscan", "-c", self.configuration, "--fdpass", "--multiscan", "--no-summary", "--infected",
                   files[0].parent]
        start = time.monotonic()
        found = subprocess.run(command, capture_output=True, timeout=PASS_SECONDS, check=False).stdout
        return time.monotonic() - start, len(files), found.count(b" FOUND")


class ClamdSocket(Clamd):
    """Paths over its socket, one connection per thread."""

    def scan(self, files, found):
        with socket.socket(socket.AF_UNIX) as connection:
            connection.settimeout(PASS_SECONDS)
            connection.connect(str(self.socket))
            with connection.makefile("rwb") as stream:
                stream.write(b"zIDSESSION\0")
                for file in files:
                    stream.write(b"zSCAN " + os.fsencode(file) + b"\0")
                    stream.flush()
                    answer = b""
                    while not answer.endswith(b"\0"):
                        byte = stream.read(1)
                        if not byte:
                            return
                        answer += byte
                    found.append(answer.endswith(b"FOUND\0"))
                stream.write(b"zEND\0")

    def run(self, files):
        found = []
        threads = [threading.Thread(target=self.scan, args=(files[i::THREADS], found)) for i in range(THREADS)]
        start = time.monotonic()
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join()
        seconds = time.monotonic() - start
        if len(found) != len(files):
            raise Unavailable("clamd has left files without an answer")
        return seconds, len(files), sum(found)


def yara_x(folder, modules):
    if not (modules / "@litko" / "yara-x").is_dir():
        raise Unavailable("npm's @litko/yara-x is not installed")
    return LineProgram(["node", str(HERE / "peer_yara_x.js"), str(modules), str(folder)])


def take_turns(daemon, peer, files, rounds):
    """The daemon's speed as a multiple of the peer's, round by round, and both numbers of matches."""
    ratios, matches = [], set()
    for number in range(rounds + 1):
        daemon_seconds, daemon_files, daemon_matches = daemon.run(files)
        seconds, scanned, found = peer.run(files)
        if number > 0:  # the first round warms up
            ratios.append((seconds / scanned) / (daemon_seconds / daemon_files))
        matches.add((daemon_matches, found))
    return ratios, matches


def compare(vond_bench, folder, modules, rounds, only):
    """Yields name, ratios, pairs of both numbers of matches, and how many rules were refused, of each that is there."""
    files = sorted((folder / "files").iterdir())
    daemons = {threads: LineProgram([vond_bench, "passes", folder, "--workers", str(threads)])
               for threads in (1, THREADS)}
    peers = [
        ("yara_process_per_file", 1, lambda: Yara(folder, True)),
        (f"yara_r_p{THREADS}", THREADS, lambda: Yara(folder, False)),
        ("clamd_fdpass", THREADS, lambda: ClamdFdpass(folder)),
        ("clamd_socket", THREADS, lambda: ClamdSocket(folder)),
        ("python3_yara", 1, lambda: LineProgram(["/usr/bin/python3", "-B", HERE / "peer_python_yara.py", folder])),
        ("yara_x", 1, lambda: yara_x(folder, modules)),
    ]
    try:
        for name, threads, make in peers:
            if not name.startswith(only):
                continue
            try:
                peer = make()
                try:
                    ratios, matches = take_turns(daemons[threads], peer, files, rounds)
                finally:
                    peer.stop()
            except (Unavailable, OSError, subprocess.SubprocessError) as error:
                print(f"{name}: left out: {error}", flush=True)
                continue
            yield name, ratios, matches, getattr(peer, "refused", 0)
    finally:
        for daemon in daemons.values():
            daemon.stop()


def versions():
    found = {}
    for package in ("yara", "clamav-daemon", "python3-yara"):
        query = subprocess.run(["dpkg-query", "-W", "-f=${Version}", package], capture_output=True, text=True,
                               check=False)
        found[package] = query.stdout if query.returncode == 0 else "none"
    return found


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("vond_bench", type=pathlib.Path)
    parser.add_argument("out", type=pathlib.Path)
    parser.add_argument("--modules", type=pathlib.Path, required=True, help="folder of node's packages")
    parser.add_argument("--full", action="store_true")
    parser.add_argument("--rounds", type=int)
    parser.add_argument("--kinds", help="CLASS:RULES,... in place of the usual ones; other figures there are kept")
    parser.add_argument("--only", help="peers, by what their names begin with")
    parser.add_argument("--inputs", nargs=argparse.REMAINDER, default=[],
                        help="options of vond_bench that say which rules and files; the last option here")
    arguments = parser.parse_args()
    rounds = arguments.rounds or (5 if arguments.full else 3)
    kinds = [("k16", 10), ("k16", 300), ("k16", 5000), ("64k-512k", 300)]
    if arguments.full:
        kinds += [("4k-64k", 300), ("over-1m", 300), ("over-1m", 5000)]
    if "--rules" in arguments.inputs:
        kinds = [(file_class, 0) for file_class in dict.fromkeys(c for c, _ in kinds)]
    figures = {}
    if arguments.kinds:
        kinds = [(kind.split(":")[0], int(kind.split(":")[1])) for kind in arguments.kinds.split(",")]
        old = arguments.out / "peers.json"
        figures = json.loads(old.read_text())["figures"] if old.exists() else {}
    only = tuple(arguments.only.split(",")) if arguments.only else ("",)
    for file_class, rules in kinds:
        with tempfile.TemporaryDirectory(prefix="vond_bench.") as scratch:
            folder = pathlib.Path(scratch)
            subprocess.run([arguments.vond_bench, *arguments.inputs, "export", folder, "--class", file_class,
                            "--count", str(rules)], check=True)
            for name, ratios, matches, refused in compare(arguments.vond_bench, folder, arguments.modules, rounds, only):
                notes = "; ".join([f"matches {ours} and {theirs}" for ours, theirs in sorted(matches)] +
                                  ([f"{refused} rules refused"] if refused else []))
                figures[f"peer.{file_class}.{rules or 'real'}.{name}"] = {
                    "unit": f"times as fast ({notes})", "median": statistics.median(ratios), "low": min(ratios),
                    "high": max(ratios), "rounds": rounds}
                print(f"{file_class} {rules or 'real'} rules: {statistics.median(ratios):.2f} times as fast as {name} "
                      f"({notes})", flush=True)
                write(arguments, figures)  # so that a run cut short is not lost


def write(arguments, figures):
    package = arguments.modules / "@litko" / "yara-x" / "package.json"
    found = versions() | {"@litko/yara-x": json.loads(package.read_text())["version"] if package.exists() else "none"}
    (arguments.out / "peers.json").write_text(json.dumps({"figures": figures, "versions": found}, indent=1) + "\n")


if __name__ == "__main__":
    main()
