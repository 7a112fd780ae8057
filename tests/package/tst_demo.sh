#!/usr/bin/env bash
# scripts/demo: its own check with two agents, fixed to its room and hearing its test tone; the check failing, with the process named, when an
# agent leaves one behind; --agents from 1 to 110.   tst_demo.sh BUILD_DIR SOURCE_DIR
set -uo pipefail
build=$1 demo=$2/scripts/demo
export BRAVA_BUILD_DIR=$build BRAVA_TEST_NO_BUILD=1
work=$(mktemp -d /tmp/brava-demo-test.XXXXXX)
trap '[ -s "$work/stray" ] && kill "$(cat "$work/stray")" 2>/dev/null; rm -rf "$work"' EXIT
fails=0
check() { if "${@:2}"; then echo "PASS: $1"; else echo "FAIL: $1"; fails=$((fails + 1)); fi; }

# Without the test's sound server named, the demo starts its own (unless this computer runs one).
mkdir -m 700 "$work/run"
env -u PULSE_SERVER -u PULSE_RUNTIME_PATH XDG_RUNTIME_DIR="$work/run" "$demo" --check --agents 2 >"$work/out" 2>&1; code=$?
sed 's/^/  /' "$work/out"
check "two agents record, upload and stop" test $code -eq 0
# Each runs as a build fixed to the demo's room, and where the demo plays its test tone into a
# private sound server, each one's microphone track carries it.
check "both agents offer the sale" test "$(grep -c '^demo: agent [12] is fixed to this room' "$work/out")" -eq 2
if grep -q '^demo: playing a quiet test tone' "$work/out"; then
  check "both microphone tracks carry the tone" test "$(grep -c "^demo: agent [12]'s microphone heard the test tone" "$work/out")" -eq 2
fi
# An agent that starts a child of its own and leaves it running.
printf '#!/bin/sh\nsleep 300 &\necho $! >"%s"\nexec "%s" "$@"\n' "$work/stray" "$build/brava-recorder" >"$work/agent"
chmod +x "$work/agent"
"$demo" --check --agent "$work/agent" 2>"$work/err"; failed=$?
sed 's/^/  stderr: /' "$work/err"
check "a process left running fails the check and is named" \
  test $failed -ne 0 -a "$(sed -n 's/^demo: left running: //p' "$work/err")" = "$(cat "$work/stray")"
# Ctrl-C in the middle of a take, as a terminal sends it (to the demo's whole process group): the
# take ends, reaches the room and stays; nothing else does.
set -m
mkfifo "$work/in"
env -u PULSE_SERVER -u PULSE_RUNTIME_PATH XDG_RUNTIME_DIR="$work/run" "$demo" <"$work/in" >"$work/live" 2>&1 &
demo_pid=$!
exec 5>"$work/in"
for _ in $(seq 1 300); do grep -q '^demo: operator page' "$work/live" && break; sleep 0.2; done
printf 'cameras on\nstart s1\n' >&5
# The agents' status lines go to the room's log only, not to the terminal.
room_log=$(sed -n 's/^demo: uploads arrive in \(.*\)\/uploads; .*/\1/p' "$work/live")/room.log
for _ in $(seq 1 150); do grep -q '"recording":true' "$room_log" && break; sleep 0.2; done
check "the terminal leaves the agents' status lines to room.log" test "$(grep -c '^[0-9:]* *agent #[0-9]* status ' "$work/live")" -eq 0
kill -INT -- -"$demo_pid"
wait "$demo_pid"
exec 5>&-
set +m
folder=$(sed -n 's/^demo: the uploads stay in \(.*\)\/uploads .*/\1/p' "$work/live")
check "Ctrl-C keeps the take, uploaded whole, and only it" \
  test -n "$folder" -a "$(cd "$folder" 2>/dev/null && find . -name '*_final.*' | wc -l)" -ge 3 -a "$(ls "$folder" 2>/dev/null | tr '\n' ' ')" = "room.log uploads "
[ -n "$folder" ] && rm -rf "$folder"
for case in "110 1" "111 2" "0 2"; do # 1: past the arguments, stopped by the missing build; 2: refused
  read -r n code <<<"$case"
  BRAVA_BUILD_DIR=$work/none "$demo" --agents "$n" 2>/dev/null
  check "--agents $n ends with $code" test $? -eq "$code"
done
"$demo" --agents 2>/dev/null
check "--agents without a number ends with 2" test $? -eq 2
echo "$fails check(s) failed"
[ "$fails" -eq 0 ]
