#!/bin/sh
# on_every_host.sh - runs a command on every simulated host of a directory: on_every_host.sh DIRECTORY COMMAND...
# The output of a command that fails is shown. Ends with 1 if it failed on a host.
set -u
directory=$1
shift
log=$(mktemp)
trap 'rm -f "$log"' EXIT
status=0
for host in "$directory"/*.json; do
    if trelm-hostsim run "$host" -- "$@" >"$log" 2>&1; then
        echo "passed: $(basename "$host")"
    else
        echo "failed with $?: $(basename "$host")"
        cat "$log"
        status=1
    fi
done
exit $status
