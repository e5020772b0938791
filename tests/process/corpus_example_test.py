#!/usr/bin/python3
"""corpus_example_test.py FOLDER VONDCTL: the example in FOLDER from its file list to the merged results, on its own
cluster of two nodes, of which one is killed in mid-scan: no file is lost, none counts twice, nothing stays behind."""
import collections, contextlib, glob, json, os, pathlib, shutil, signal, subprocess, sys, tempfile, time

SHARDS, PER_SHARD = 6, 40
RULES = """rule Alpha { meta: id = "a" action = "block" strings: $a = "alpha" condition: $a }"""
PATIENCE = 150  # seconds, for each thing that has to come about

os.environ["PATH"] += ":/usr/sbin"


def run(*command, status=0, **options):
    ran = subprocess.run(command, capture_output=True, timeout=PATIENCE, **options)
    assert ran.returncode == status, f"{command}: {ran.returncode}: {ran.stdout.decode()} {ran.stderr.decode()}"
    return ran.stdout


def wait_for(what, condition):
    until = time.monotonic() + PATIENCE
    while not (found := condition()):
        assert time.monotonic() < until, f"waited in vain: {what}"
        time.sleep(0.1)
    return found


def processes(variable, value):
    """The processes that have this in their environment, with their command lines."""
    found = {}
    for folder in pathlib.Path("/proc").glob("[0-9]*"):
        try:
            if f"{variable}={value}".encode() in (folder / "environ").read_bytes().split(b"\0"):
                found[int(folder.name)] = (folder / "cmdline").read_bytes().split(b"\0")
        except OSError:
            pass  # it has ended meanwhile
    return found


def parent_of(pid):
    return int(pathlib.Path(f"/proc/{pid}/stat").read_text().rsplit(") ", 1)[1].split()[1])


def inside(example, vondctl, folder):
    """What local-cluster runs."""
    vondctl, example, cluster = map(pathlib.Path, (vondctl, example, os.environ["CORPUS_CLUSTER"]))
    print(cluster, flush=True)
    # A scan of shard 2 waits for as long as the gate is shut, so that a node can be killed in its middle.
    gate = pathlib.Path("gate")
    gate.touch()
    scan = pathlib.Path(folder, "scan")
    scan.write_text(f"""#!/bin/sh
echo "$SLURMD_NODENAME $SLURM_RESTART_COUNT" >> ran.$SLURM_ARRAY_TASK_ID
while [ "$SLURM_ARRAY_TASK_ID" = 2 ] && [ -e gate ]; do sleep 0.1; done
exec '{vondctl}' scan --rules '{folder}/rules.yar' "$@"
""")
    scan.chmod(0o755)
    run("sbatch", f"--array=0-{SHARDS - 1}", example / "job.sh", "run", scan)
    node = wait_for("shard 2 to run", lambda: os.path.exists("ran.2") and pathlib.Path("ran.2").read_text()).split()[0]
    # The node goes with all that runs on it, all at once: what a job is told of the end of another would be news of it.
    of_jobs = list(processes("SLURMD_NODENAME", node))
    daemons = [pid for pid, command in processes("CORPUS_CLUSTER", str(cluster)).items()
               if b"slurmd" in command[0] and node.encode() in command]
    keepers = {parent for parent in map(parent_of, of_jobs)
               if pathlib.Path(f"/proc/{parent}/cmdline").read_bytes().startswith(b"slurmstepd")}
    assert of_jobs and daemons and keepers, (of_jobs, daemons, keepers)
    for number in (signal.SIGSTOP, signal.SIGKILL):
        for pid in [*daemons, *keepers, *of_jobs]:
            with contextlib.suppress(ProcessLookupError):  # a short one of the script's
                os.kill(pid, number)
    # Before shard 2 is back, merging does not pass for whole.
    early = subprocess.run([example / "merge", "run"], capture_output=True, timeout=PATIENCE)
    assert early.returncode == 1 and b"shard 000002" in early.stderr, early.stderr
    gate.unlink()
    wait_for("all shards", lambda: len(glob.glob("run/results/*.jsonl")) == SHARDS)
    wait_for("the queue to be empty", lambda: not run("squeue", "--noheader").strip())
    nodes = [line.split()[0] for line in pathlib.Path("ran.2").read_text().splitlines()]
    assert len(nodes) > 1 and nodes[-1] != node, f"shard 2 ran on {nodes}, {node} was killed"


def outside(example, vondctl):
    for program in ("munged", "slurmctld", "slurmd", "sbatch"):
        if not shutil.which(program):
            print(f"skipped: {program} is not installed (slurmctld, slurmd, slurm-client, munge)")
            return 77
    with tempfile.TemporaryDirectory() as folder:
        os.chmod(folder, 0o755)
        os.chdir(folder)
        os.mkdir("files")
        expected = collections.Counter()
        names = []
        for i in range(SHARDS * PER_SHARD - 1):
            name = os.fsencode(f"{folder}/files/{i} with\nnewline") + (b"\xff" if i % 7 == 0 else b"")
            pathlib.Path(os.fsdecode(name)).write_text("alpha" if i % 3 == 0 else "beta")
            names.append(name)
            expected["match" if i % 3 == 0 else "clean"] += 1
        names.append(os.fsencode(f"{folder}/files/none"))
        expected["error"] += 1
        pathlib.Path("rules.yar").write_text(RULES)
        pathlib.Path("list").write_bytes(b"\0".join([*names, names[3]]) + b"\0")  # one of them twice
        said = run(f"{example}/split", "list", "run", str(PER_SHARD))
        assert f"{SHARDS * PER_SHARD} files in {SHARDS} shards".encode() in said, said

        cluster = subprocess.run([f"{example}/local-cluster", sys.executable, "-B", __file__, "inside", example, vondctl,
                                  folder], stdout=subprocess.PIPE, timeout=500)
        assert cluster.returncode == 0, "see above"
        cluster_folder = cluster.stdout.split()[0].decode()
        assert not os.path.exists(cluster_folder)
        assert not processes("CORPUS_CLUSTER", cluster_folder), processes("CORPUS_CLUSTER", cluster_folder)

        lines = [json.loads(line) for line in run(f"{example}/merge", "run").splitlines()]
        counted = collections.Counter(line["outcome"] for line in lines[:-1])
        assert counted == collections.Counter(match=expected["match"], error=1), counted
        total = lines[-1]
        assert total["type"] == "corpus" and total["shards"] == SHARDS and total["files"] == len(names), total
        assert all(total[outcome] == expected[outcome] for outcome in ("match", "clean", "error", "skipped")), total

        # What is not whole does not pass: a file too few, one too many, a summary that says something else.
        result = pathlib.Path("run/results/000001.jsonl")
        whole = result.read_text().splitlines(keepends=True)
        damages = {"1 files are missing": whole[:1] + whole[2:], "1 too many": whole[:2] + whole[1:],
                   "the summary does not": whole[:-1]}
        for says, damaged in damages.items():
            result.write_text("".join(damaged))
            ran = subprocess.run([f"{example}/merge", "run"], capture_output=True, timeout=PATIENCE)
            assert ran.returncode == 1 and says.encode() in ran.stderr and b"--array=1" in ran.stderr, (says, ran)
    print(f"{len(names)} files in {SHARDS} shards")
    return 0


if sys.argv[1] == "inside":
    try:
        inside(*sys.argv[2:])
    except BaseException:
        subprocess.run("squeue; sinfo -N; tail -n 60 \"$CORPUS_CLUSTER\"/slurmctld.log; tail -n +1 ran.* run/results/*.log",
                       shell=True, stdout=sys.stderr)
        raise
else:
    sys.exit(outside(*map(os.path.abspath, sys.argv[1:3])))
