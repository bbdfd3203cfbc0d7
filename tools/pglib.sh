# Sourced by pgtest.sh and pgcluster.sh.

# pg_virtualenv and an initdb it can use (Debian keeps initdb off PATH).
pg_installed() {
    command -v pg_virtualenv >/dev/null 2>&1 \
        && { command -v initdb >/dev/null 2>&1 || ls /usr/lib/postgresql/*/bin/initdb >/dev/null 2>&1; }
}

# A TCP port of localhost that nobody listens on now.
free_port() {
    python3 -c 'import socket; s = socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])'
}
