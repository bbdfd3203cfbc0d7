#!/bin/sh
# Runs one test program against a throw-away PostgreSQL cluster of its own
# (pg_virtualenv, on a free port of localhost), with QUILL_TEST_ENGINE=postgresql.
# Without PostgreSQL the program runs as it is and skips, saying why.
export QUILL_TEST_ENGINE=postgresql
if ! command -v pg_virtualenv >/dev/null 2>&1 || ! command -v initdb >/dev/null 2>&1 \
   && ! ls /usr/lib/postgresql/*/bin/initdb >/dev/null 2>&1; then
  exec "$@"
fi
PGPORT=$(python3 -c 'import socket; s = socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])')
export PGPORT
# -t: the cluster in a temporary folder, also for root, so test programs may run side by side.
exec pg_virtualenv -t "$@"
