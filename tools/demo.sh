#!/usr/bin/env bash
# make run: a demo installation in demo/ with two emulated MP104C printers
# (1 Reception on a network box, 2 Proshop on a serial line through a pty),
# served by the server with its window when a display is there, headless
# otherwise. Ctrl-C (or the window's Exit) stops everything.
#   tools/demo.sh [BUILD_DIR]     DEMO_PORT=20001 sets the server's TCP port,
#                                 DEMO_HEADLESS=1 runs without the window
#   tools/demo.sh --setup-only [BUILD_DIR]   creates the installation and exits
# No step's output goes through a pipe: under pipefail a reader that quits
# early (head) would kill the writer with SIGPIPE and fail the step.
set -euo pipefail
setup_only=0
if [ "${1:-}" = --setup-only ]; then setup_only=1; shift; fi
root=$(cd "$(dirname "$0")/.." && pwd)
bin=$(cd "${1:-build}" && pwd)/bin
demo=$root/demo
port=${DEMO_PORT:-20001}
# Private settings scopes: the demo never touches the user's own settings.
export XDG_CONFIG_DIRS=$demo/config/machine XDG_CONFIG_HOME=$demo/config/user
pids=()

say() { printf '%s\n' "$*"; }
fail() { say "demo: $*" >&2; exit 1; }
listening() { (exec 3<>"/dev/tcp/127.0.0.1/$1") 2>/dev/null; }
# Waits up to 10 s for a line matching $1 in file $2.
wait_line() {
  for _ in $(seq 100); do grep -q "$1" "$2" 2>/dev/null && return 0; sleep 0.1; done
  fail "no '$1' in $2: $(cat "$2" 2>/dev/null)"
}

# One demo at a time: a second run would rewrite the first one's printers, empty
# its label folders and remove its serial link. The lock is held (by this script
# and the programs it starts) until the demo ends; checked before anything is touched.
mkdir -p "$demo"
exec 9>>"$demo/.demo.lock"
if ! flock -n 9; then
  printf 'demo: a demo is already running on %s (stop it with Ctrl-C in its terminal first)\n' "$demo" >&2
  exit 1
fi

cleanup() {
  # A second Ctrl-C (or a signal to the whole group) must not cut the clean-up short.
  trap - EXIT
  trap "" INT TERM
  if [ -n "${server:-}" ] && kill -TERM "$server" 2>/dev/null; then wait "$server" 2>/dev/null || true; fi
  for p in "${pids[@]}"; do kill "$p" 2>/dev/null || true; done
  wait 2>/dev/null || true
  rm -f "$demo/run/com1"
  [ ${#pids[@]} -eq 0 ] || say "Demo stopped."
}
trap cleanup EXIT
trap 'exit 130' INT TERM

command -v sqlite3 >/dev/null || fail "sqlite3 is missing (make deps installs it)"
[ -x "$bin/quillbase" ] && [ -x "$bin/mp104c-emulator" ] || fail "build first: make build"

# The installation counts as set up only once every set-up step has worked
# (.setup-done); anything a failed set-up left is removed and made again.
# A demo made before that marker existed and complete is kept as it is.
if [ ! -f "$demo/.setup-done" ] && [ -f "$demo/brixa.mdb" ] && [ -f "$XDG_CONFIG_HOME/Norvu/Brixa.conf" ] &&
   grep -q '^dwUseTrafficLog=' "$XDG_CONFIG_HOME/Norvu/Brixa.conf"; then
  touch "$demo/.setup-done"
fi
if [ ! -f "$demo/.setup-done" ]; then
  find "$demo" -mindepth 1 -maxdepth 1 ! -name .demo.lock -exec rm -rf {} +
  mkdir -p "$demo/run" "$XDG_CONFIG_HOME/Norvu"
  if ! "$bin/quillbase" --init --home "$demo" > "$demo/run/init.out" 2>&1; then
    out=$(cat "$demo/run/init.out")
    find "$demo" -mindepth 1 -maxdepth 1 ! -name .demo.lock -exec rm -rf {} +
    fail "could not create the installation: $out"
  fi
  say "$(sed -n 1p "$demo/run/init.out")"
  # Event and traffic log on, so the log below shows what happens.
  printf '[Quillbase]\ndwUseLog=dword:00000001\ndwUseTrafficLog=dword:00000001\n' \
    > "$XDG_CONFIG_HOME/Norvu/Brixa.conf"
  touch "$demo/.setup-done"
fi
[ "$setup_only" = 1 ] && exit 0
listening "$port" && fail "port $port is in use (another server running?); try DEMO_PORT=20002 make run"
# The emulators number their labels from 1 again: each run starts with empty folders.
rm -rf "$demo/labels"
mkdir -p "$demo/run" "$demo/labels/reception" "$demo/labels/proshop"

emulator() { # name, emulator arguments...
  local name=$1; shift
  "$bin/mp104c-emulator" --name "$name" --out "$demo/labels/$name" "$@" > "$demo/run/$name.out" 2>&1 &
  pids+=($!)
  wait_line '^ready' "$demo/run/$name.out"
}
emulator reception --listen 127.0.0.1:0
emulator proshop --pty "$demo/run/com1" --baud 9600
netport=$(sed -n 's/^listening //p' "$demo/run/reception.out")

# COM1 of this machine is the emulator's pty; the server listens on loopback
# only and lets in this machine only.
machine=$XDG_CONFIG_DIRS/Norvu/Brixa.conf
sed -i "s|^COM1=.*|COM1=\"$demo/run/com1\"|" "$machine"
grep -q '^tBindAddress=' "$machine" || sed -i 's|^\[Quillbase\]$|&\ntBindAddress=127.0.0.1|' "$machine"
grep -q '^tAllowedClients=' "$machine" || sed -i 's|^\[Quillbase\]$|&\ntAllowedClients="127.0.0.0/8, ::1"|' "$machine"
# The printer rows as the printer dialog saves them; the network box port changes every run.
sqlite3 "$demo/brixa.mdb" <<SQL
INSERT OR REPLACE INTO tbPrinter (Id, Name, PrinterTypeId, ConnectionUsed, Connection1, Connection2,
  NetConnectOnly, Strobe, Speed, Passive, CutterInstalled, DispensingFeed, ReverseFeed)
VALUES (1, 'Reception', 1, 2, 'COM1:#9600', '127.0.0.1#$netport', 1, 4, 2, 0, 0, 60, 0),
       (2, 'Proshop', 1, 1, 'COM1:#9600', NULL, 0, 4, 2, 0, 0, 60, 0);
UPDATE tbServer SET port = $port, AutoStartService = 1;
SQL

# The event log and the printer driver's outcome lines (its own weekly file).
week=$((10#$(date +%V)))
logs=("$demo/Quillbase$week.log" "$demo/Quillmotor$week.log")
touch "${logs[@]}"
tail -q -n 0 -F "${logs[@]}" 2>/dev/null &
pids+=($!)
# The log file below has the traffic entries too; the server's own stderr copy
# of the event lines goes to run/server.err.
mode=(--headless)
if [ "${DEMO_HEADLESS:-0}" != 1 ] && [ -n "${DISPLAY:-}${WAYLAND_DISPLAY:-}" ]; then
  mode=()
fi
"$bin/quillbase" "${mode[@]}" --home "$demo" --status-interval 10000 2> "$demo/run/server.err" &
server=$!
for _ in $(seq 100); do listening "$port" && break; kill -0 "$server" 2>/dev/null || break; sleep 0.1; done
listening "$port" || fail "the server did not start listening on port $port: $(cat "$demo/run/server.err")"

cat <<EOF

Quillbase demo is running: server on port $port, printer 1 Reception (network box 127.0.0.1#$netport),
printer 2 Proshop (serial COM1 -> $demo/run/com1). Installation and log: $demo

Send a print request from another terminal (field 4 is the printer, 1 or 2):

  python3 -c 'import socket; s = socket.create_connection(("127.0.0.1", $port)); s.sendall("\t".join(["BRIXA", "1.00", "P", "1", "1", "1", "KASSA1", "0", "7312345678", "", "Anna", "Greenfee", "", "Åsa Öberg", "18 hål, gul tee", "Start 10:40", "450 kr"]).encode("cp1252")); print(s.recv(4096).decode("cp1252"))'

The reply is "BRIXA<TAB>OK<TAB>"; the printed label appears as PNG + JSON in
  $demo/labels/reception/  (printer 1)    $demo/labels/proshop/  (printer 2)

Operate it from the shell: $bin/quillbase-ctl --home $demo status
  (also history, preview ID -o FILE, move, cancel, reprint; --help lists every command)

Ctrl-C stops the server and both printers. Event log follows:
EOF
if [ ${#mode[@]} -eq 0 ]; then say "(The server's window is open: File - Exit there ends the demo too.)"; fi
wait "$server"
