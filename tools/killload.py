#!/usr/bin/env python3
"""Kill-under-load check: 32 loopback clients send print requests to a headless
server, which is killed with SIGKILL at a random moment; after each kill every
job the server acknowledged ("BRIXA\\tOK\\t...") must be in tbJob.

    tools/killload.py [--rounds 100] [--clients 32] [--bin build/bin/quillbase]

Prints per-round and total figures; exit status 1 when an acknowledged job is missing."""
import argparse, os, random, selectors, signal, socket, sqlite3, subprocess, sys, tempfile, time

p = argparse.ArgumentParser()
p.add_argument("--rounds", type=int, default=100)
p.add_argument("--clients", type=int, default=32)
p.add_argument("--bin", default=os.path.join(os.path.dirname(__file__), "..", "build", "bin", "quillbase"))
args = p.parse_args()

home = tempfile.mkdtemp(prefix="quill-killload-")
env = dict(os.environ, XDG_CONFIG_HOME=os.path.join(home, "user"), XDG_CONFIG_DIRS=os.path.join(home, "machine"))
subprocess.run([args.bin, "--init", "--home", home], check=True, env=env, stdout=subprocess.DEVNULL)
s = socket.socket(); s.bind(("127.0.0.1", 0)); port = s.getsockname()[1]; s.close()
db = sqlite3.connect(os.path.join(home, "brixa.mdb"))
db.execute("UPDATE tbServer SET port = ?, AutoStartService = 1", (port,))
# Printer 1 on a network box nobody answers: jobs stay queued.
db.execute("INSERT INTO tbPrinter (Id, Name, PrinterTypeId, ConnectionUsed, Connection2, NetConnectOnly, Strobe, "
           "Speed, Passive, CutterInstalled, DispensingFeed, ReverseFeed, CurrentTemplateId) "
           "VALUES (1, 'P1', 1, 2, '127.0.0.1#9', 0, 4, 2, 0, 0, 0, 0, 0)")
db.commit(); db.close()

def whole(b):
    return b == b"BRIXA\tOK\t" or (len(b) > 13 and b[-4:].isdigit())

acked_total = lost_total = sent_total = 0
seq = 0
for rnd in range(1, args.rounds + 1):
    server = subprocess.Popen([args.bin, "--headless", "--home", home], env=env,
                              stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    sel = selectors.DefaultSelector()
    clients = []
    deadline = time.time() + 20
    while len(clients) < args.clients and time.time() < deadline:
        c = socket.socket()
        try:
            c.connect(("127.0.0.1", port))
        except OSError:
            c.close(); time.sleep(0.02); continue
        clients.append({"sock": c, "buf": b"", "out": None})
    acked = set()
    def send(cl):
        global seq, sent_total
        seq += 1; sent_total += 1
        cl["out"] = "r%d-%d" % (rnd, seq)
        cl["sock"].sendall(("BRIXA\t1.00\tP\t1\t1\t1\tWS\t0\t\t\t\t" + cl["out"]).encode())
    for cl in clients:
        cl["sock"].setblocking(False); sel.register(cl["sock"], selectors.EVENT_READ, cl); send(cl)
    kill_at = time.time() + random.uniform(0.3, 1.0)
    while time.time() < kill_at:
        for key, _ in sel.select(timeout=0.05):
            cl = key.data
            try:
                data = cl["sock"].recv(4096)
            except OSError:
                data = b""
            if not data:
                sel.unregister(cl["sock"]); continue
            cl["buf"] += data
            if whole(cl["buf"]):
                if cl["buf"].startswith(b"BRIXA\tOK\t"):
                    acked.add(cl["out"])
                cl["buf"] = b""
                send(cl)
    server.send_signal(signal.SIGKILL)
    server.wait()
    for cl in clients:
        cl["sock"].close()
    con = sqlite3.connect(os.path.join(home, "brixa.mdb"))
    stored = {row[0].split("\t")[11] for row in con.execute("SELECT Job FROM tbJob")}
    con.close()
    lost = acked - stored
    acked_total += len(acked); lost_total += len(lost)
    print("round %3d: %d clients, %4d acknowledged, %d of them missing" % (rnd, len(clients), len(acked), len(lost)))
con = sqlite3.connect(os.path.join(home, "brixa.mdb"))
stored_total = con.execute("SELECT COUNT(*) FROM tbJob").fetchone()[0]
con.close()
print("total: %d SIGKILLs, %d requests sent, %d acknowledged, %d rows in tbJob, %d acknowledged jobs missing"
      % (args.rounds, sent_total, acked_total, stored_total, lost_total))
subprocess.run(["rm", "-rf", home])
sys.exit(1 if lost_total else 0)
