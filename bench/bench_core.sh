#!/usr/bin/env bash
# The agent's own costs: its socket, its runner, its start.
set -euo pipefail
# shellcheck source=scripts/lib.sh
. "$(dirname "$0")/../scripts/lib.sh"

need dbus dbus-x11
bin=$root/build-bench/bin
eval "$(dbus-launch --sh-syntax)"
trap 'kill "$DBUS_SESSION_BUS_PID"' EXIT
export DBUS_SESSION_BUS_PID
"$bin/bench_socket" "$bin/corv-agent"
"$bin/bench_run"
"$bin/bench_start" "$bin/corv-agent" "$bin/bare_server"
