#!/usr/bin/env bash
# Runs every fuzz target in DIR for SECONDS each, with its seed corpus from fuzz/corpus/<name>
# when there is one, and prints one line per target with its executions and minutes. A finding
# (crash, leak, time-out, out-of-memory) or a fuzzer that does not run stops the campaign with
# the input kept in fuzz/findings/. FUZZ_TARGETS="fuzz_a fuzz_b" restricts the run to those.
# What a target finds is kept in DIR/../corpus/<name>, so a later run goes on from there; the
# CPU minutes are printed beside the wall minutes because a run may share the machine.
set -euo pipefail
dir=${1:?usage: run-fuzzers.sh BUILD/fuzz SECONDS}
secs=${2:-120}
root=$(cd "$(dirname "$0")/.." && pwd)
mkdir -p "$root/fuzz/findings"
summary=()
ran=0
for f in "$dir"/fuzz_*; do
  [ -x "$f" ] || continue
  name=$(basename "$f")
  if [ -n "${FUZZ_TARGETS:-}" ] && [[ " $FUZZ_TARGETS " != *" $name "* ]]; then continue; fi
  work="$dir/../corpus/$name"
  mkdir -p "$work"
  log=$(mktemp)
  seeds="$root/fuzz/corpus/$name"
  echo "== $name: ${secs}s"
  args=("$work")
  [ -d "$seeds" ] && args+=("$seeds")
  start=$(date +%s)
  rc=0
  cpu0=$(awk '{ print $16 + $17 }' "/proc/$$/stat")
  "$f" -max_total_time="$secs" -print_final_stats=1 -artifact_prefix="$root/fuzz/findings/$name-" \
       "${args[@]}" >"$log" 2>&1 || rc=$?
  elapsed=$(( $(date +%s) - start ))
  cpu=$(( $(awk '{ print $16 + $17 }' "/proc/$$/stat") - cpu0 ))
  grep -E '^(#[0-9]+ +DONE|stat::number_of_executed_units|==[0-9]+==ERROR|SUMMARY)' "$log" || true
  execs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -1)
  line=$(printf '%-20s %12s executions %6.1f min %6.1f CPU min' "$name" "${execs:-?}" \
    "$(awk -v s="$elapsed" 'BEGIN { print s / 60 }')" "$(awk -v t="$cpu" -v hz="$(getconf CLK_TCK)" 'BEGIN { print t / hz / 60 }')")
  summary+=("$line")
  ran=$((ran + 1))
  # Slow units are noted, not findings: a run on a busy machine has them without any fault.
  slow=$(find "$root/fuzz/findings" -name "$name-slow-unit-*" | wc -l)
  [ "$slow" -eq 0 ] || echo "$name: $slow slow units kept in fuzz/findings/ (not a finding)"
  found=0
  for kind in crash leak timeout oom; do
    if compgen -G "$root/fuzz/findings/$name-$kind-*" >/dev/null; then found=1; fi
  done
  if [ "$rc" -ne 0 ] || [ "$found" -ne 0 ]; then
    tail -n 40 "$log" >&2
    rm -f "$log"
    echo "$name: exit status $rc; finding kept in fuzz/findings/" >&2
    exit 1
  fi
  rm -f "$log"
done
if [ "$ran" -eq 0 ]; then echo "run-fuzzers: no fuzz target in $dir" >&2; exit 1; fi
echo "== fuzz summary (${secs}s per target)"
printf '%s\n' "${summary[@]}"
