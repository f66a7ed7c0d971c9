#!/usr/bin/env bash
# Runs the echo example from the programs in BIN_DIR: a service manager, the
# echo service and three clients, in a binder context of their own. Stops what
# it started; fails when a client fails.
set -euo pipefail
bin="${1:?usage: run_echo.sh BIN_DIR}"

export TAVRIN_BINDER_CONTEXT="echo-example-$$"
started=()
cleanup() { kill "${started[@]}" 2>/dev/null || true; wait 2>/dev/null || true; }
trap cleanup EXIT

"$bin/tavrin-servicemanager" --foreground & started+=($!)
# Let it claim the context first, or the service would start a daemon of its own.
for _ in $(seq 200); do
  "$bin/tavrin-servicemanager" --list >/dev/null 2>&1 && break
  sleep 0.05
done
"$bin/echo_service" & started+=($!)

clients=()
for _ in 1 2 3; do
  timeout 60 "$bin/echo_client" 3 & clients+=($!)
done
status=0
for c in "${clients[@]}"; do wait "$c" || status=1; done
if [ "$status" -eq 0 ]; then echo "echo example: service and clients talked"; else echo "echo example: FAILED"; fi
exit "$status"
