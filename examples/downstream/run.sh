#!/usr/bin/env bash
# Runs the hello service and client built in BIN_DIR: the client binds, calls,
# is notified and exits 0; the service is killed afterwards. The service
# manager is started on demand by the installed library, from wherever it
# was installed; the environment's context is used as it is.
set -euo pipefail
bin="${1:?usage: run.sh BIN_DIR}"
"$bin/hello_service" &
service=$!
trap 'kill -KILL "$service" 2>/dev/null || true; wait 2>/dev/null || true' EXIT
timeout 60 "$bin/hello_client"
echo "downstream example: the client was answered and notified"
