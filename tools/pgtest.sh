#!/bin/sh
# Runs one test program on PostgreSQL (QUILL_TEST_ENGINE=postgresql): in the
# run's shared cluster when QUILL_PG_ENV names the file pgcluster.sh wrote,
# otherwise in a throw-away cluster of its own. Without PostgreSQL the program
# runs as it is and skips, saying why.
. "$(dirname "$0")/pglib.sh"
export QUILL_TEST_ENGINE=postgresql
if [ -n "${QUILL_PG_ENV:-}" ] && [ -f "$QUILL_PG_ENV" ]; then
  . "$QUILL_PG_ENV"
  exec "$@"
fi
if ! pg_installed; then
  exec "$@"
fi
# Started as the run's cluster is, watching this process, which becomes the
# program: however the program ends (CTest kills it at its timeout), the
# cluster is dropped, and its folder removed.
dir=$(mktemp -d "${TMPDIR:-/tmp}/quill-pg.XXXXXX") || exit 1
QUILL_PG_TEMP=1 "$(dirname "$0")/pgcluster.sh" up "$dir" || { rm -rf "$dir"; exit 1; }
. "$dir/env"
exec "$@"
