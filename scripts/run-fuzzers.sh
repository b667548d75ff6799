#!/usr/bin/env bash
# Runs every fuzz target in DIR for SECONDS each, with its seed corpus from fuzz/corpus/<name>
# when there is one. A finding stops the run with the crashing input kept in fuzz/findings/.
set -euo pipefail
dir=${1:?usage: run-fuzzers.sh BUILD/fuzz SECONDS}
secs=${2:-120}
root=$(cd "$(dirname "$0")/.." && pwd)
mkdir -p "$root/fuzz/findings"
for f in "$dir"/fuzz_*; do
  [ -x "$f" ] || continue
  name=$(basename "$f")
  work=$(mktemp -d)
  seeds="$root/fuzz/corpus/$name"
  echo "== $name: ${secs}s"
  args=("$work")
  [ -d "$seeds" ] && args+=("$seeds")
  "$f" -max_total_time="$secs" -print_final_stats=1 -artifact_prefix="$root/fuzz/findings/$name-" \
       "${args[@]}" 2>&1 | grep -E '^(#[0-9]+ +DONE|stat::number_of_executed_units|==[0-9]+==ERROR|SUMMARY)' || true
  rm -rf "$work"
  if ls "$root/fuzz/findings/$name-"* >/dev/null 2>&1; then
    echo "$name: finding kept in fuzz/findings/" >&2; exit 1
  fi
done
