#!/usr/bin/python3
"""install_test.py CMAKE BUILD SOURCE: what `cmake --install` puts into a prefix works from there, also after that folder
was moved: programs, completion, the library by CMake and by pkg-config, and the unit for systemd's sockets."""
import os, pathlib, shutil, socket, subprocess, sys, tempfile, time

CMAKE, BUILD, SOURCE = sys.argv[1:]
TIMEOUT = 200  # seconds, for all; generous, since the machine may be busy
RULES = 'rule Needle { meta: id = "n" action = "block" strings: $n = "needle" condition: $n }\n'

ALL_MAIN = """
int main() { return vond::agent::PackRuleSet("rule A { condition: true }").substr(0, 4) == "ENCY" ? 0 : 1; }
"""
ALL_CMAKE = """
cmake_minimum_required(VERSION 3.25)
project(all LANGUAGES CXX)
find_package(VondAgent 0.1 REQUIRED)
add_executable(packer all.cc)
target_link_libraries(packer PRIVATE vond::agent)
"""


def run(*command, status=0, **options):
    done = subprocess.run([str(c) for c in command], stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                          timeout=TIMEOUT, **options)
    if done.returncode != status:
        sys.exit(f"exit status {done.returncode}, not {status}, of {' '.join(map(str, command))}:\n{done.stdout}")
    return done.stdout


def wanted(condition, text):
    if not condition:
        sys.exit(text)


def one(folder, pattern):
    found = sorted(folder.rglob(pattern))
    wanted(len(found) == 1, f"{pattern} is there {len(found)} times: {found}")
    return found[0]


def check_vond_in(prefix, files):
    for name in ("completions/vondctl", "site-functions/_vondctl", "vondctl.fish"):
        wanted(one(prefix, name).stat().st_size > 1000, f"{name} holds nothing to speak of")
    if shutil.which("scdoc"):
        for page in ("vondctl.1", "vond.8", "vond-policy.5", "vond-rules.5"):
            one(prefix / "share" / "man", page)
    out = run(prefix / "bin" / "vondctl", "scan", "--rules", files / "rules.yar", files / "sample", status=1)
    wanted("Needle (block" in out, f"vondctl has not found the needle:\n{out}")
    policy = prefix / "share/vond/examples/policy.json"
    run(prefix / "bin" / "vondctl", "scan", "--policy", policy, files / "sample")


def check_example(program, prefix, files):
    out = run(program, prefix / "libexec/vond/vond", files / "rules.yar", files / "sample", status=1)
    wanted("sample: matches Needle (block)" in out, f"{program} has not found the needle:\n{out}")


def check_library_in(prefix, files, scratch):
    example = prefix / "share/vond/examples/cpp"
    run(CMAKE, "-S", example, "-B", scratch / "example", f"-DCMAKE_PREFIX_PATH={prefix}")
    run(CMAKE, "--build", scratch / "example")
    check_example(scratch / "example/vond_example", prefix, files)

    # What the example leaves out: every header, and the part that packs rules.
    include = prefix / "include/vond"
    headers = sorted(str(path.relative_to(include)) for path in include.rglob("*.h"))
    agents = [header for header in headers if header.startswith("agent/") and not header.endswith(".pb.h")]
    wanted(agents == sorted(f"agent/{path.name}" for path in pathlib.Path(SOURCE, "agent").glob("*.h")), f"only {agents}")
    (scratch / "all.cc").write_text("".join(f'#include "{header}"\n' for header in headers) + ALL_MAIN)
    (scratch / "CMakeLists.txt").write_text(ALL_CMAKE)
    run(CMAKE, "-S", scratch, "-B", scratch / "all", f"-DCMAKE_PREFIX_PATH={prefix}")
    run(CMAKE, "--build", scratch / "all")
    run(scratch / "all/packer")

    environment = dict(os.environ, PKG_CONFIG_PATH=str(one(prefix, "vond-agent.pc").parent))
    flags = run("pkg-config", "--cflags", "--libs", "vond-agent", env=environment).split()
    wanted(SOURCE not in " ".join(flags), f"the flags point into the source tree: {flags}")
    run(os.environ.get("CXX", "c++"), "-o", scratch / "by-pkg-config", scratch / "all.cc", *flags)
    run(scratch / "by-pkg-config")


# The daemon as systemd starts it for a connection: its arguments from the unit, its channel the accepted one.
def check_unit_in(prefix, files, scratch):
    unit = one(prefix, "vond@.service").read_text()
    path, *arguments = next(l for l in unit.splitlines() if l.startswith("ExecStart=")).removeprefix("ExecStart=").split()
    wanted(path.endswith("/libexec/vond/vond"), f"the unit starts {path}")
    activate = shutil.which("systemd-socket-activate")
    if not activate:
        print("systemd-socket-activate is not there: the unit's arguments are not tried")
        return
    place = str(scratch / "socket")
    listener = subprocess.Popen([activate, "--seqpacket", "--accept", "-l", place, prefix / "libexec/vond/vond", *arguments],
                                stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    try:
        deadline = time.monotonic() + 60
        channel = socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET)
        channel.settimeout(60)
        while channel.connect_ex(place) != 0:  # until it listens
            wanted(time.monotonic() < deadline and listener.poll() is None, "nobody listens on the socket")
            time.sleep(0.05)
        document = b'{"rule_sets":[{"rule_type":"Block","fd_index":0}]}'
        data = bytes([0x0a, len(document)]) + document
        config = bytes([0x30, 6, 0x3a, len(data)]) + data
        with open(files / "rules.yar", "rb") as rules, channel:
            socket.send_fds(channel, [bytes([0x0a, 2, 0x10, 1, 0x12, len(config)]) + config], [rules.fileno()])
            answer = channel.recv(1 << 16).hex()
        wanted(answer == "0a02100112020801", f"the policy's answer is {answer!r}")
    finally:
        listener.terminate()
        listener.wait(60)


with tempfile.TemporaryDirectory() as name:
    top = pathlib.Path(name)
    run(CMAKE, "--install", BUILD, "--prefix", top / "first")
    (top / "first").rename(top / "moved")
    (top / "rules.yar").write_text(RULES)
    (top / "sample").write_text("a needle\n")
    (top / "scratch").mkdir()
    check_vond_in(top / "moved", top)
    check_unit_in(top / "moved", top, top / "scratch")
    check_library_in(top / "moved", top, top / "scratch")
