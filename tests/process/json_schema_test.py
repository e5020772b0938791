#!/usr/bin/python3
"""json_schema_test.py SCHEMA VONDCTL: what vondctl really prints is as the schema says, and the schema says something."""
import copy, json, os, pathlib, subprocess, sys, tempfile

try:
    import jsonschema
except ImportError:
    print("skipped: python3-jsonschema is not installed")
    sys.exit(77)

RULES = rb"""
rule Alpha : x y { meta: id = "a" action = "block" n = 5 n = 6 seen = true raw = "\xff" strings: $a = "alpha" condition: $a }
private rule Hidden { meta: id = 7 action = "inform" strings: $a = "beta" condition: $a }
rule Slow { meta: id = "s" action = "block" strings: $a = "slow" condition: $a and for all i in (0..1099511627776) : (i >= 0) }
"""
GOOD = "rule Good { meta: id = \"g\" action = \"allow\" condition: filesize == 5 }"
FILES = {b"1": b"alpha", b"2": b"beta", b"raw\xff": b"alpha", b"new\nline": b"x", b"slow": b"slow"}
BAD_RULE = "rule Bad { condition: true }"
COMMANDS = [  # arguments, exit status, types of the lines in their order, or one that must be among them
    ("scan -r r.yar --allow-rules g.yar --all --private --timeout 1 t none /dev/null", 2, ["policy"] + 7 * ["file"] + ["summary"]),
    ("scan -r r.yar --max-size 2 t", 2, ["policy"] + 4 * ["file"] + ["summary"]),
    ("scan -p p.json --file-type 3 --all t/1", 1, ["policy", "file", "summary"]),
    ("scan -r r.yar -c t/1", 1, ["summary"]),
    ("scan -r r.yar --max-errors 1 none t", 2, ["policy", "file", "summary"]),
    ("scan -r b.yar t", 3, "problem"),
    ("check b.yar r.yar", 3, "problem"),
    ("check g.yar", 0, ["check"]),
    ("explain bom slow-string", 0, ["code", "code"]),
    ("policy check p.json", 1, ["problem", "check"]),
    ("policy show o.json", 0, ["policy_document", "check"]),
]
# A valid line, what is done to it, and it is valid no more.
DAMAGES = [
    ("file", lambda o: o.pop("path")),
    ("file", lambda o: o.update(size="5")),
    ("file", lambda o: o.update(outcome="unknown")),
    ("file", lambda o: o.update(outcome="clean", matches=[], error="x")),
    ("file", lambda o: o.update(another=1)),
    ("file", lambda o: o.update(path_b64="?")),
    ("policy", lambda o: o["rule_sets"][0].update(rules=1.5)),
    ("summary", lambda o: o.pop("exit")),
    ("summary", lambda o: o.update(end="somehow")),
    ("summary", lambda o: o.update(files=-1)),
    ("watch", lambda o: o["watch"].pop("lost")),
    ("watch", lambda o: o["watch"].update(watcher="dnotify")),
    ("problem", lambda o: o.pop("code")),
    ("problem", lambda o: o.update(severity="fatal")),
    ("problem", lambda o: o.update(line=0)),
    ("check", lambda o: o.update(accepted="yes")),
    ("code", lambda o: o.pop("explanation")),
    ("policy_document", lambda o: o["overrides"][0].update(value=[5])),
    ("status", lambda o: o.pop("restarts")),
    ("status", lambda o: o["policy"].update(sha256="?")),
    ("status", lambda o: o["scans"].update(clean=-1)),
    ("status", lambda o: o["rules"][0].update(hits=0)),
]

schema_path, vondctl = map(os.path.abspath, sys.argv[1:])
schema = json.loads(pathlib.Path(schema_path).read_text())
jsonschema.Draft202012Validator.check_schema(schema)
validator = jsonschema.Draft202012Validator(schema)
failures = []


def check(condition, text):
    if not condition:
        failures.append(text)


def check_valid(line):
    for error in validator.iter_errors(line):
        failures.append(f"{json.dumps(line)}: {error.message}")


seen = {}
with tempfile.TemporaryDirectory() as folder:
    os.chdir(folder)
    os.mkdir("t")
    os.mkdir("w")
    for name, content in FILES.items():
        pathlib.Path(os.fsdecode(b"t/" + name)).write_bytes(content)
    pathlib.Path("r.yar").write_bytes(RULES)
    pathlib.Path("g.yar").write_text(GOOD)
    pathlib.Path("b.yar").write_text(BAD_RULE)
    pathlib.Path("p.json").write_text('{"rule_sets":[{"path":"g.yar","file_type":3,"rule_type":"Allow"}]}')
    pathlib.Path("o.json").write_text(
        '{"yara_timeout_in_seconds":1,"rule_sets":[{"path":"g.yar"}],"rule_overrides":[{"rule_id":"g","item":'
        '{"key":"score","value":{"int_value":5}}}]}')
    relay = subprocess.Popen([vondctl, "start", "-q", "--listen", "s", "--rules", "r.yar"], stderr=subprocess.DEVNULL)
    try:
        ran = subprocess.run([vondctl, "status", "--connect", "s", "--wait", "60"], capture_output=True, timeout=100)
        check(ran.returncode == 0, f"start: {ran.stderr.decode()}")
        subprocess.run([vondctl, "scan", "-q", "--connect", "s", "t/1"], stdout=subprocess.DEVNULL, timeout=100)
        ran = subprocess.run([vondctl, "status", "--connect", "s", "--json"], capture_output=True, timeout=100)
        check(ran.returncode == 0, f"status: {ran.stderr.decode()}")
        seen["status"] = json.loads(ran.stdout)
        check_valid(seen["status"])
        check(seen["status"]["rules"] != [], f"status: {ran.stdout.decode()}")
    finally:
        relay.terminate()
        check(relay.wait(60) == 0, "start: exit status")
    for arguments, status, types in COMMANDS:
        command = [vondctl, *arguments.split(), "--format", "jsonl"]
        ran = subprocess.run(command, capture_output=True, timeout=100)
        lines = [json.loads(line) for line in ran.stdout.splitlines()]
        check(ran.returncode == status, f"{arguments}: exit status {ran.returncode}: {ran.stderr.decode()}")
        found = [line["type"] for line in lines]
        check(found == types or types in found, f"{arguments}: lines are {ran.stdout.decode()}")
        check(ran.stdout.count(b'{"type":"') == len(lines), f"{arguments}: the type is not first")
        for line in lines:
            check_valid(line)
            if line["type"] == "summary" and "clean" in line:
                outcomes = ["match", "clean", "timeout", "skipped", "error", "changed"]
                check(sum(line[outcome] for outcome in outcomes) == line["files"], f"{arguments}: {line}")
            # Which of the files ends first is for the workers to say: of files, one is taken that matches Alpha.
            if line["type"] != "file" or any(match["rule"] == "Alpha" for match in line.get("matches", [])):
                seen.setdefault(line["type"], line)

    watch = subprocess.Popen([vondctl, *"watch -r r.yar --all --format jsonl --on-match true w".split()],
                             stdout=subprocess.PIPE, stderr=subprocess.PIPE)
    for line in watch.stderr:  # until it is about to see what is written
        if b"watching w" in line:
            break
    pathlib.Path("w/file").write_bytes(b"alpha")
    first = [json.loads(watch.stdout.readline()) for _ in range(2)]
    watch.terminate()
    lines = first + [json.loads(line) for line in watch.communicate(timeout=100)[0].splitlines()]
    check(watch.returncode == 1, f"watch: exit status {watch.returncode}")
    check([line["type"] for line in lines] == ["policy", "file", "summary"], f"watch: lines are {lines}")
    for line in lines:
        check_valid(line)
    seen["watch"] = lines[-1]

    alpha = next(match for match in seen["file"]["matches"] if match["rule"] == "Alpha")
    meta = [(item["key"], item["value"]) for item in alpha["meta"]]
    check(meta == [("n", 5), ("n", 6), ("seen", True), ("raw", "\ufffd")] and meta[0][1] is not True, f"metadata: {meta}")

for kind, damage in DAMAGES:
    line = copy.deepcopy(seen[kind])
    damage(line)
    check(not validator.is_valid(line), f"passes although damaged: {json.dumps(line)}")
check(validator.is_valid({"type": "something", "new": 1}) and not validator.is_valid({"new": 1}), "types of other verbs")

print("\n".join(failures) or f"{len(COMMANDS)} commands, {len(DAMAGES)} damaged lines")
sys.exit(1 if failures else 0)
