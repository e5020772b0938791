#!/usr/bin/python3
"""examples_test.py EXAMPLE VOND: an example agent, as a program of its own, with the real vond and with daemons that
misbehave, comes to the right end for each file."""
import concurrent.futures, os, pathlib, subprocess, sys, tempfile, time

EXAMPLE, VOND = sys.argv[1:]
RULE = 'rule Needle { meta: id = "n" action = "block" strings: $n = "needle" condition: $n }\n'
TWO_RULES = RULE + 'rule Hay { meta: id = "h" action = "inform" strings: $n = "hay" condition: $n }\n'
# Beside these there are "folder" and "pipe", and nothing is "missing".
FILES = {"needle": b"a needle in hay", "hay": b"hay", "empty": b""}

# Name, rules (a path, or text), names of files, exit status, lines of standard output without the folder, sorted.
REAL_CASES = [
    ("match", RULE, ["needle"], 1, ["needle: matches Needle (block)"]),
    ("two rules match", TWO_RULES, ["needle"], 1, ["needle: matches Needle (block), Hay (inform)"]),
    ("no match", RULE, ["hay"], 0, ["hay: clean"]),
    ("several", RULE, ["hay", "needle", "empty"], 1,
     ["empty: clean", "hay: clean", "needle: matches Needle (block)"]),
    ("an unscanned file outweighs a match", RULE, ["needle", "folder", "hay"], 2,
     ["hay: clean", "needle: matches Needle (block)"]),
    ("missing file", RULE, ["missing"], 2, []),
    ("pipe without a writer", RULE, ["pipe"], 2, []),
    ("refused policy", "rule Needle { condition: true }", ["needle"], 3, []),
    ("rules that are a folder", pathlib.Path("folder"), ["needle"], 3, []),
    ("no rules file", pathlib.Path("missing"), ["needle"], 3, []),
]

# What stands in for vond: answers each request with the next of ANSWERS, and at their end does LAST.
FAKE_VOND = """#!/usr/bin/python3
import os, socket, sys, time
channel = socket.socket(fileno=int(sys.argv[sys.argv.index("-c") + 1].split(":")[0]))
for answer in {answers}:
    if not channel.recv(1 << 20):
        sys.exit()
    channel.send(bytes.fromhex(answer))
channel.recv(1 << 20)
{last}
"""
ACCEPTED = "0a021001 12020801"  # id 1, config_result success
REFUSED = "0a021001 1200"
DIE = "sys.exit(7)"
HANG = "time.sleep(300)"
FAKE_CASES = [  # name, answers, what then, exit status (None: 2 or 4), a part of standard error
    ("refused", [REFUSED], DIE, 3, "refused"),
    ("dies before its first answer", [], DIE, 4, "vond"),
    ("dies in a scan", [ACCEPTED], DIE, 4, "needle: not scanned: "),
    ("hangs in a scan", [ACCEPTED], HANG, 4, "in time"),
    ("answer is no message", [ACCEPTED, "ff"], HANG, None, "needle: not scanned: "),
    ("answer to another request", [ACCEPTED, "0a021063"], HANG, 4, "needle: not scanned: "),
    ("answer without a result", [ACCEPTED, "0a021002"], DIE, 2, "needle: not scanned: "),
    ("response status 1", [ACCEPTED, "0a021002 3204 0a02 0801"], DIE, 2, "response status 1"),
    ("another rule type's entry only", [ACCEPTED, "0a021002 320a 0a08 1206 0801 1202 1200"], DIE, 2,
     "response status 0"),
    ("scan status 2", [ACCEPTED, "0a021002 320a 0a08 1206 0800 1202 0802"], DIE, 2, "scan status 2"),
    ("time-out, engine error 26", [ACCEPTED, "0a021002 320c 0a0a 1208 0800 1204 1202 081a"], DIE, 2,
     "scan status 0, engine error 26"),
]
USAGE_CASES = [[], [VOND, "rules"], ["-t", "0", VOND, "rules", "file"], ["-x", VOND, "rules", "file"]]



def run(*arguments):
    return subprocess.run([EXAMPLE, *arguments], capture_output=True, text=True, timeout=100)


def check(name, ran, status, output, error_part):
    """Whether a run came out as it should; says it if not."""
    fine = ran.returncode == status or (status is None and ran.returncode in (2, 4))
    if fine and sorted(ran.stdout.splitlines()) == output and error_part in ran.stderr:
        return True
    print(f"{name}: exit status {ran.returncode}, wanted {status}; output {ran.stdout!r}, wanted {output!r}; "
          f"standard error, which must hold {error_part!r}:\n{ran.stderr}")
    return False


def check_real(folder, name, rules, files, status, output):
    rule_file = folder / (rules if isinstance(rules, pathlib.Path) else f"{name}.yar")
    unscanned = [file for file in files if file not in FILES]
    return check(name, run(VOND, rule_file, *(folder / file for file in files)), status,
                 [f"{folder}/{line}" for line in output],
                 f"{folder}/{unscanned[0]}: not scanned: " if unscanned else "")


def check_fake(folder, name, _answers, _last, status, error_part):
    start = time.monotonic()
    ran = run("-t", "1", folder / f"{name}.vond", folder / "rules.yar", folder / "needle")
    good = check(name, ran, status, [], error_part)
    if time.monotonic() - start > 30:
        print(f"{name}: took {time.monotonic() - start:.0f} s")
        good = False
    return good


def check_no_vond(folder):
    return check("no vond", run(folder / "missing", folder / "needle", folder / "needle"), 4, [], "cannot start")


def check_usage(arguments):
    return check(f"usage {arguments}", run(*arguments), 64, [], "usage: ")


def write_files(folder):
    """Everything before the first run: a program that is being written can't be started."""
    for name, content in FILES.items():
        (folder / name).write_bytes(content)
    (folder / "folder").mkdir()
    os.mkfifo(folder / "pipe")
    (folder / "rules.yar").write_text(RULE)
    for name, rules, *_ in REAL_CASES:
        if isinstance(rules, str):
            (folder / f"{name}.yar").write_text(rules)
    for name, answers, last, *_ in FAKE_CASES:
        fake = folder / f"{name}.vond"
        fake.write_text(FAKE_VOND.format(answers=answers, last=last))
        fake.chmod(0o755)


with tempfile.TemporaryDirectory() as name, concurrent.futures.ThreadPoolExecutor(4) as pool:
    folder = pathlib.Path(name)
    write_files(folder)
    checks = [pool.submit(check_real, folder, *case) for case in REAL_CASES]
    checks += [pool.submit(check_fake, folder, *case) for case in FAKE_CASES]
    checks += [pool.submit(check_usage, case) for case in USAGE_CASES]
    checks.append(pool.submit(check_no_vond, folder))
    results = [check.result() for check in checks]
print(f"{len(results)} cases, {results.count(False)} failures")
sys.exit(0 if all(results) else 1)
