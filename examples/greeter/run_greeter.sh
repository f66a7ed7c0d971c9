#!/usr/bin/env bash
# Tells the greeter story with the programs in BIN_DIR, in a binder context of
# its own: a service manager; the greeter service; its translator sub-service
# registering; three clients calling both and being notified; a client, the
# translator and finally the greeter killed, and who notices. Each step is
# checked against the programs' own lines (stdout, kept in a temporary
# directory) and printed as it happens. Every wait is bounded; whatever it
# started is killed and reaped on exit, and a failed step fails the run.
set -euo pipefail
bin="${1:?usage: run_greeter.sh BIN_DIR}"

export TAVRIN_BINDER_CONTEXT="greeter-example-$$"
logs="$(mktemp -d)"
declare -A pid=()  # program name -> process id, for everything started here

cleanup() {
  local status=$?
  for p in "${pid[@]}"; do kill -KILL "$p" 2>/dev/null || true; done
  wait 2>/dev/null || true
  if [ "$status" -ne 0 ]; then
    for f in "$logs"/*.out; do echo "--- $(basename "$f")"; cat "$f"; done
    for f in "$logs"/*.err; do echo "--- $(basename "$f") (last lines)"; tail -n 5 "$f"; done
  fi
  rm -rf "$logs"
  exit "$status"
}
trap cleanup EXIT
trap 'exit 130' INT
trap 'exit 143' TERM

fail() {
  echo "greeter example: FAILED: $*"
  exit 1
}

step() { echo "== $*"; }

# start NAME COMMAND...: runs COMMAND with its stdout in NAME.out, its stderr
# (the library's log) in NAME.err.
start() {
  local name=$1
  shift
  "$@" >"$logs/$name.out" 2>"$logs/$name.err" &
  pid[$name]=$!
}

running() {
  local stat
  stat="$(cat "/proc/$1/stat" 2>/dev/null)" || return 1
  [[ ${stat##*) } != Z* ]]
}

# expect NAME TEXT [N]: waits for the Nth line of NAME's output containing
# TEXT, and prints it.
expect() {
  local name=$1 text=$2 n=${3:-1}
  for _ in $(seq 200); do
    if [ "$(grep -cF -- "$text" "$logs/$name.out" || true)" -ge "$n" ]; then
      grep -F -- "$text" "$logs/$name.out" | sed -n "${n}s/^/    /p"
      return 0
    fi
    sleep 0.05
  done
  fail "$name never said \"$text\""
}

# ends NAME STATUS: waits for NAME's process to end with STATUS.
ends() {
  local name=$1 want=$2 got=0
  for _ in $(seq 300); do running "${pid[$name]}" || break; sleep 0.05; done
  running "${pid[$name]}" && fail "$name is still running"
  wait "${pid[$name]}" || got=$?
  unset "pid[$name]"
  [ "$got" -eq "$want" ] || fail "$name ended with status $got, expected $want"
  echo "    ($name ended with status $got)"
}

# killed NAME: kills NAME with SIGKILL and reaps it.
killed() {
  kill -KILL "${pid[$1]}"
  wait "${pid[$1]}" 2>/dev/null || true
  unset "pid[$1]"
}

listed() { "$bin/tavrin-servicemanager" --list 2>/dev/null | grep -qF -- "$1"; }

await_listed() {
  for _ in $(seq 200); do listed "$1" && return 0; sleep 0.05; done
  fail "\"$1\" never appeared in the service manager"
}

step "service manager of context $TAVRIN_BINDER_CONTEXT"
# Started first, or the greeter would start a daemon of its own.
start manager "$bin/tavrin-servicemanager" --foreground
await_listed manager

step "the greeter publishes its service"
start greeter "$bin/greeter_service"
await_listed tavrin.demo.greeter
expect greeter "publishing tavrin.demo.greeter"

step "the translator registers with the greeter and receives its configuration"
start translator "$bin/translator_subservice"
expect greeter "sub-service translator registered"
expect translator "configured by the greeter"

step "the greeter calls the translator, the translator calls the greeter"
expect greeter "translator status:"
expect translator "the greeter asks for my status"
expect greeter "sub-service translator says"
expect translator "the greeter answered 'welcome, translator'"

step "three clients call both and are notified, one-way and with an answer"
start c1 "$bin/greeter_client" c1 forever
start c2 "$bin/greeter_client" c2 forever
start c3 "$bin/greeter_client" c3 3
for c in c1 c2 c3; do
  expect "$c" "the greeter asks 'are you there, $c?'"
  expect "$c" "one-way notice from the greeter: 'ping for $c'"
  expect "$c" "the greeter answers 'pinged you, you said: $c is here'"
  expect "$c" "one-way notice from the translator"
  expect "$c" "the translator answers 'bonjour $c"
  expect greeter "greeting $c ("
  expect translator "first translation for $c ("
done
expect c3 "3 rounds done, all answered"
ends c3 0

step "c2 is killed (SIGKILL) and the greeter notices"
c2_pid=${pid[c2]}
killed c2
expect greeter "client pid $c2_pid died"

step "the translator is killed: the greeter notices, the clients' translator calls fail"
killed translator
expect greeter "sub-service translator removed"
expect c1 "calls to the translator fail"

step "the translator restarts and registers again; a new client calls it"
start translator2 "$bin/translator_subservice"
expect greeter "sub-service translator registered" 2
expect translator2 "configured by the greeter"
start c4 "$bin/greeter_client" c4 2
expect c4 "the translator answers 'bonjour c4"
expect translator2 "first translation for c4 ("
expect c4 "2 rounds done, all answered"
ends c4 0

step "the greeter is killed: c1's calls fail and the translator ends by itself"
killed greeter
expect c1 "calls to the greeter fail"
ends translator2 1
death="$(grep -F "controoler died!!!,sub service[translator]" "$logs/translator2.err")" ||
  fail "the translator did not log its master's death"
echo "    translator2, library log: $death"

echo "greeter example: the whole story happened"
