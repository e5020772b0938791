#!/usr/bin/python3
"""python_example_test.py SCAN_PY VOND: the example, as a program of its own, gets a policy accepted and files scanned."""
import pathlib, subprocess, sys, tempfile

RULE = 'rule Needle { meta: id = "n" action = "block" strings: $n = "needle" condition: $n }'
CASES = [  # name, rules, content of the file (None: a folder), exit status, standard output after the file's path
    ("match", RULE, b"a needle in hay", 10, ": matches Needle\n"),
    ("no match", RULE, b"hay", 0, ": clean\n"),
    ("empty file", RULE, b"", 0, ": clean\n"),
    ("refused policy", "rule Needle { condition: true }", b"a needle", 1, None),
    ("not a file", RULE, None, 1, None),
]

failures = 0
for name, rules, content, status, output in CASES:
    with tempfile.TemporaryDirectory() as folder:
        rule_file, target = pathlib.Path(folder, "rules.yar"), pathlib.Path(folder, "target")
        rule_file.write_text(rules)
        target.mkdir() if content is None else target.write_bytes(content)
        ran = subprocess.run([sys.argv[1], sys.argv[2], rule_file, target], capture_output=True, text=True, timeout=60)
        expected = "" if output is None else f"{target}{output}"
        if (ran.returncode, ran.stdout) != (status, expected):
            print(f"{name}: exit status {ran.returncode}, wanted {status}; output {ran.stdout!r}, wanted {expected!r}")
            print(ran.stderr)
            failures += 1
sys.exit(1 if failures else 0)
