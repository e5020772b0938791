"""Puts together what one run of scripts/bench has measured.

Reads bench.json (vond_bench), micro.json (vond_microbench) and peers.json (peers.py) from a folder, each if it is
there, prints the goals beside what was measured, and writes results.json. With --write-docs the tables and curves go
into docs/ as well.
"""

import argparse
import fnmatch
import json
import os
import pathlib
import platform
import subprocess

import curves

TOP = pathlib.Path(__file__).resolve().parent.parent
BEGIN, END = "<!-- written by scripts/bench: begin -->", "<!-- written by scripts/bench: end -->"


def read(path):
    return json.loads(path.read_text()) if path.exists() else None


def package_version(name):
    query = subprocess.run(["dpkg-query", "-W", "-f=${Version}", name], capture_output=True, text=True, check=False)
    return query.stdout if query.returncode == 0 else "none"


def machine(run, load):
    models = [line.split(":", 1)[1].strip() for line in open("/proc/cpuinfo") if line.startswith("model name")]
    return {
        "processor": f"{os.cpu_count()} x {models[0] if models else platform.machine()}",
        "kernel": f"{platform.system()} {platform.release()}",
        "load before": load,
        "libyara of the system": package_version("libyara9"),
        "protobuf": package_version("libprotobuf32"),
        **run,
    }


def number(value):
    return f"{value:,.0f}" if abs(value) >= 1000 else f"{value:.3g}" if abs(value) < 0.1 else f"{value:.2f}"


def spread(figure):
    return f"{number(figure['low'])} to {number(figure['high'])}" if figure["rounds"] > 1 else "one look"


def judge(goals, figures):
    """A row for each goal: what, goal, measured, spread, verdict. Of several figures the worst one counts."""
    rows = []
    for goal in goals:
        least = "at_least" in goal
        wanted = goal["at_least"] if least else goal["at_most"]
        found = [figures[name] for name in figures if any(fnmatch.fnmatchcase(name, p) for p in goal["figures"])]
        asked = f"at {'least' if least else 'most'} {wanted:.2f}"
        if not found:
            rows.append([goal["what"], asked, "-", "-", "not measured"])
            continue
        worst = (min if least else max)(found, key=lambda figure: figure["median"])
        reached = worst["median"] >= wanted if least else worst["median"] <= wanted
        rows.append([goal["what"], asked, number(worst["median"]), spread(worst), "reached" if reached else "NOT REACHED"])
    return rows


def figure_rows(figures, prefixes):
    return [[name, number(figure["median"]), spread(figure), figure["unit"]]
            for name, figure in figures.items() if name.startswith(tuple(prefixes))]


def micro_figures(document):
    """vond_microbench's medians in the form of the other figures."""
    figures = {}
    for entry in document["benchmarks"]:
        name, kind = entry["run_name"], entry.get("aggregate_name")
        if kind in ("median", "stddev"):
            time = "real_time" if name.endswith("/real_time") else "cpu_time"
            figures.setdefault(name, {"unit": entry["time_unit"]})[kind] = entry[time]
    return {f"part.{name}": {"unit": f["unit"], "median": f["median"], "low": f["median"] - f["stddev"],
                             "high": f["median"] + f["stddev"], "rounds": 2}
            for name, f in figures.items()}


def table(head, rows, markdown):
    if markdown:
        lines = ["| " + " | ".join(row) + " |" for row in [head, ["---"] * len(head), *rows]]
    else:
        widths = [max(len(row[i]) for row in [head, *rows]) for i in range(len(head))]
        lines = ["  ".join(cell.ljust(width) for cell, width in zip(row, widths)).rstrip() for row in [head, *rows]]
    return "\n".join(lines) + "\n"


def compose(results, goals, markdown):
    """The whole report as text: for the terminal, or for docs/performance.md."""
    def part(title, head, rows):
        if rows:
            texts.append((f"### {title}\n\n" if markdown else f"{title}\n") + table(head, rows, markdown))

    texts = []
    figures = results["figures"]
    part("Machine and run", ["What", "Value"], [[key, str(value)] for key, value in results["machine"].items()])
    part("Goals", ["What", "To reach", "Measured", "Least to most", "Verdict"], judge(goals, figures))
    head = ["Figure", "Median", "Least to most", "Unit"]
    if markdown:
        part("Scans beside raw libyara", head, figure_rows(figures, ["scan.", "debian.", "scaling.", "rate."]))
        part("Requests, matches, policies", head, figure_rows(figures, ["empty.", "matches.", "policy."]))
        part("Memory and idling", head, figure_rows(figures, ["memory.", "idle."]))
    part("Small parts (median, give or take the standard deviation)", head, figure_rows(figures, ["part."]))
    part("Growth, as the exponent of the curve", head[:2], [row[:2] for row in figure_rows(figures, ["curve."])])
    part("What a user would take instead: the daemon's speed as a multiple of theirs", head,
         figure_rows(figures, ["peer."]))
    return "\n".join(texts)


def write_docs(results, goals, command):
    docs = TOP / "docs"
    text = f"{BEGIN}\n\nWritten by\n\n    {command}\n\n" + compose(results, goals, markdown=True)
    for curve in results["curves"]:
        name = f"performance-{curve['id']}.svg"
        (docs / name).write_text(curves.draw(curve))
        text += f"\n![{curve['y']} by {curve['x']}]({name})\n"
    text += f"\n{END}\n"
    page = docs / "performance.md"
    before, after = "# Performance\n\n", ""
    if page.exists():
        old = page.read_text()
        before, found, rest = old.partition(BEGIN)
        after = rest.partition(END)[2].lstrip("\n") if found else ""
        before = before if found else before.rstrip("\n") + "\n\n"
    page.write_text(before + text + after)


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("folder", type=pathlib.Path)
    parser.add_argument("--write-docs", metavar="COMMAND", help="the command that made this, for the page")
    parser.add_argument("--load", default="unknown", help="the machine's load before the run")
    arguments = parser.parse_args()
    bench = read(arguments.folder / "bench.json") or {"run": {}, "figures": {}, "curves": []}
    micro = read(arguments.folder / "micro.json")
    peers = read(arguments.folder / "peers.json") or {"figures": {}, "versions": {}}
    results = {
        "machine": machine(bench["run"], arguments.load) | peers["versions"],
        "figures": bench["figures"] | (micro_figures(micro) if micro else {}) | peers["figures"],
        "curves": bench["curves"],
    }
    goals = read(TOP / "bench" / "goals.json")
    results["goals"] = [dict(zip(["what", "to_reach", "measured", "spread", "verdict"], row))
                        for row in judge(goals, results["figures"])]
    (arguments.folder / "results.json").write_text(json.dumps(results, indent=1) + "\n")
    print(compose(results, goals, markdown=False))
    if arguments.write_docs:
        write_docs(results, goals, arguments.write_docs)


if __name__ == "__main__":
    main()
