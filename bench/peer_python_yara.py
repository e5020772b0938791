"""python3-yara over the files that vond_bench has exported: a pass for each line of input. One thread: its lock keeps
more from being faster on small files."""

import pathlib
import sys
import time

import yara

folder = pathlib.Path(sys.argv[1])
rules = yara.compile(str(folder / "rules.yar"))
files = [str(path) for path in sorted((folder / "files").iterdir())]
for _ in sys.stdin:
    start = time.monotonic()
    matches = sum(len(rules.match(file)) for file in files)
    print(time.monotonic() - start, matches, flush=True)
