#!/usr/bin/env bash
# Keeps the greeter running with the programs in BIN_DIR, in the environment's
# binder context, for the tavrin command to look at: the greeter service, its
# translator sub-service and a client calling both for ever. Shows `tavrin
# list` and a few lines of `tavrin monitor` once, then runs until interrupted,
# or for SECONDS. Whatever it started, a service manager started on demand
# included, is killed on exit.
set -euo pipefail
bin="${1:?usage: live_greeter.sh BIN_DIR [SECONDS]}"
seconds="${2:-}"
logs="$(mktemp -d)"
pids=()

# The context's service manager, unless this run started it: then it goes too.
manager_pid() {
  { "$bin/tavrin" list --json 2>/dev/null || true; } | tr -d '\n' |
    sed -n 's/.*"name":"manager","pid":\([0-9]*\).*/\1/p'
}
had_manager="$(manager_pid)"

cleanup() {
  local status=$?
  for p in "${pids[@]}"; do kill -KILL "$p" 2>/dev/null || true; done
  wait 2>/dev/null || true
  local manager
  manager="$(manager_pid)"
  if [ -n "$manager" ] && [ "$manager" != "$had_manager" ]; then kill "$manager" || true; fi
  rm -rf "$logs"
  exit "$status"
}
trap cleanup EXIT
trap 'exit 130' INT
trap 'exit 143' TERM

start() {
  local name=$1
  shift
  "$@" >"$logs/$name.log" 2>&1 &
  pids+=($!)
}

start greeter "$bin/greeter_service"
"$bin/tavrin" wait tavrin.demo.greeter --timeout 20
start translator "$bin/translator_subservice"
start client "$bin/greeter_client" live forever
for _ in $(seq 100); do
  grep -qF "the translator answers" "$logs/client.log" && break
  sleep 0.1
done

echo "\$ tavrin list"
"$bin/tavrin" list
echo
echo "\$ tavrin monitor --count 8"
"$bin/tavrin" monitor --count 8 --timeout 20 2>/dev/null
echo
echo "The greeter runs in context ${TAVRIN_BINDER_CONTEXT:-default}; try $bin/tavrin list,"
echo "$bin/tavrin status tavrin.demo.greeter and $bin/tavrin monitor in another terminal."
if [ -n "$seconds" ]; then
  sleep "$seconds"
else
  echo "Ctrl-C ends the demo."
  wait
fi
