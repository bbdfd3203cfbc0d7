#!/bin/sh
# One throw-away PostgreSQL cluster for a whole test run, so the programs that
# run on PostgreSQL do not each wait for a cluster of their own (3-4 s apiece).
# Each test program makes its own databases in it.
#
#   pgcluster.sh up DIR     starts it; DIR/env then holds the PG* variables
#   pgcluster.sh down DIR   lets it go
#
# pg_virtualenv makes and drops the cluster; it runs in the background until
# DIR/keep is removed, or the process that started this script (ctest) ends:
# a run stopped at its first failure, or by Ctrl-C, calls no down. With
# QUILL_PG_TEMP set, DIR goes with the cluster (pgtest.sh's own cluster).
# Without PostgreSQL both do nothing and the programs skip, saying why.
set -eu
. "$(dirname "$0")/pglib.sh"
what=$1
dir=$2

# Dropping a cluster waits for its shutdown checkpoint: down only tells the
# background pg_virtualenv to go, so the run does not wait for it.
if [ "$what" = down ]; then
    rm -f "$dir/keep" "$dir/env"
    exit 0
fi

[ "$what" = up ] || { echo "usage: $0 up|down DIR" >&2; exit 2; }
mkdir -p "$dir"
rm -f "$dir/env"
if ! pg_installed; then
    echo "PostgreSQL is not installed: the PostgreSQL variants will skip"
    exit 0
fi
# The cluster of an earlier run goes first (it still runs if that run was cut off).
if [ -f "$dir/pid" ]; then
    rm -f "$dir/keep"
    pid=$(cat "$dir/pid")
    tries=0
    while kill -0 "$pid" 2>/dev/null && [ $tries -lt 600 ]; do
        sleep 0.1
        tries=$((tries + 1))
    done
fi
touch "$dir/keep"
PGPORT=$(free_port)
QUILL_PG_DIR=$dir
QUILL_PG_OWNER=$PPID
export PGPORT QUILL_PG_DIR QUILL_PG_OWNER
# -t: the cluster in a temporary folder, also for root.
setsid pg_virtualenv -t sh -c '
    export -p | grep "^export PG" > "$QUILL_PG_DIR/env.new" && mv "$QUILL_PG_DIR/env.new" "$QUILL_PG_DIR/env"
    end=$(( $(date +%s) + 3600 ))
    while [ -e "$QUILL_PG_DIR/keep" ] && kill -0 "$QUILL_PG_OWNER" 2>/dev/null && [ "$(date +%s)" -lt "$end" ]; do
        sleep 0.2
    done
    [ -z "${QUILL_PG_TEMP:-}" ] || rm -rf "$QUILL_PG_DIR"
' > "$dir/log" 2>&1 < /dev/null &
echo $! > "$dir/pid"
tries=0
while [ ! -f "$dir/env" ]; do
    if ! kill -0 "$(cat "$dir/pid")" 2>/dev/null || [ $tries -ge 600 ]; then
        echo "the test cluster did not start:" >&2
        cat "$dir/log" >&2
        exit 1
    fi
    sleep 0.1
    tries=$((tries + 1))
done
echo "test cluster on port $PGPORT"
