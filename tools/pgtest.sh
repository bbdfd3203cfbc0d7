#!/bin/sh
# Runs one test program on PostgreSQL (QUILL_TEST_ENGINE=postgresql): in the
# run's shared cluster when QUILL_PG_ENV names the file pgcluster.sh wrote,
# otherwise in a throw-away cluster of its own (pg_virtualenv, on a free port
# of localhost). Without PostgreSQL the program runs as it is and skips, saying why.
. "$(dirname "$0")/pglib.sh"
export QUILL_TEST_ENGINE=postgresql
if [ -n "${QUILL_PG_ENV:-}" ] && [ -f "$QUILL_PG_ENV" ]; then
  . "$QUILL_PG_ENV"
  exec "$@"
fi
if ! pg_installed; then
  exec "$@"
fi
PGPORT=$(free_port)
export PGPORT
# -t: the cluster in a temporary folder, also for root, so test programs may run side by side.
exec pg_virtualenv -t "$@"
