#!/usr/bin/env bash
#SBATCH --job-name=corpus --requeue --open-mode=append --output=/dev/null
# sbatch --array=0-N job.sh RUN COMMAND...: scans the shard of this task with COMMAND, such as
# `vondctl scan --rules rules/`. The result is there whole or not at all, so that a task may be run again at any time,
# even while it still runs elsewhere: the last whole one stands in the place of any before.

set -euo pipefail

run=$1
shift
name=$(printf '%06d' "$SLURM_ARRAY_TASK_ID")
list=$run/lists/$name.list
result=$run/results/$name.jsonl
attempt=${SLURM_RESTART_COUNT:-0}
temporary=$result.$SLURM_JOB_ID.$attempt.tmp
readonly max_attempts=3

[[ ! -e $result ]] || exit 0
status=0
"$@" --files-from - -0 --all --format jsonl <"$list" >"$temporary" 2>"$run/results/$name.$attempt.log" || status=$?
# Whole if the summary is there and has counted each file of the list. A file that could not be scanned has its line
# too, and is none to try the shard again for.
expected=$(tr -cd '\0' <"$list" | wc -c)
files=$(tail -n 1 "$temporary" | sed -n 's/^{"type":"summary","files":\([0-9]*\),.*"end":"complete".*/\1/p')
if [[ $files == "$expected" ]]; then
  sync "$temporary"
  mv "$temporary" "$result"
  exit 0
fi
rm -f "$temporary"
# 3 and 64: the rules or the command line are wrong, and stay so.
if ((status != 3 && status != 64 && attempt < max_attempts)); then
  scontrol requeue "$SLURM_JOB_ID"
  sleep 60 # until that ends this script
fi
exit "$((status == 0 ? 1 : status))"
