# Load on the live-control server: 1280x720 frames as fast as the filter takes
# them while four clients post 1,000 single actions a second for 10 s.
# Usage: load_test.py LUMETS_PROGRAM SCENE (docs/examples/ticker.json)
import collections, concurrent.futures, http.client, re, statistics, sys, threading, time
from control_test import Events, Filter, add, check, summary, wait_until

CLIENTS, RATE, SECONDS, PEAK_MB = 4, 1000, 10, 400


# Adds and removes ids of its own in turn, on one connection, ending on a remove. Its log:
# (c, k, status, reply, frames read when posted, seconds). A 429 is sent again, nothing else.
def client(f, c, stop):
    conn, k, due, log = http.client.HTTPConnection("127.0.0.1", f.port, timeout=10), 0, 0, []
    while (not stop.is_set() or k % 2) and k < 2 * RATE * SECONDS:
        time.sleep(max(0.0, due - time.monotonic()))
        due = max(due + CLIENTS / RATE, time.monotonic() - 0.05)
        sid, before, t0 = f"c{c}-{k // 2}", f.read, time.monotonic()
        r = f.call("POST", "/actions", add(sid, f"c{c}", (300 * c, 400)) if k % 2 == 0 else
                   {"do": "remove", "id": sid}, conn=conn)
        log.append((c, k, r.status, r.json, before, time.monotonic() - t0))
        k += r.status != 429  # a 429 queued nothing: the same action again, after Retry-After
        time.sleep(min(float(r.headers.get("Retry-After", 1)), 1.0) if r.status == 429 else 0)
    return log


if __name__ == "__main__":
    f, stop = Filter(sys.argv[1], sys.argv[2], 1280, 720, pace=0, keep=1), threading.Event()
    t0 = wait_until(lambda: f.read >= 1 and time.monotonic(), 20)  # the first frame out
    wait_until(lambda: f.read >= 301, 30)
    idle_fps, ev, n0, t0 = 300 / (time.monotonic() - t0), Events(f), f.read, time.monotonic()
    events = concurrent.futures.ThreadPoolExecutor(1).submit(lambda: list(ev.each(SECONDS + 5)))
    with concurrent.futures.ThreadPoolExecutor(CLIENTS) as pool:
        logs = [pool.submit(client, f, c, stop) for c in range(CLIENTS)]
        time.sleep(SECONDS)  # the load runs
        stop.set()
        replies = [e for log in logs for e in log.result()]
        elapsed, n1, ids = time.monotonic() - t0, f.read, f.ids()
    peak = int(re.search(r"VmHWM:\s*(\d+)", open(f"/proc/{f.proc.pid}/status").read())[1]) >> 10
    check("every input frame is written out, exit 0", f.close(20) == 0 and f.read == f.written,
          (f.read, f.written))
    adds = {(c, k) for c, k, st, *_ in replies if st == 200 and k % 2 == 0}
    bad = [e for e in replies if e[2] == 200 and (e[0], e[1] - e[1] % 2) in adds and
           e[3].get("results") != [{"ok": True}]]
    check("each acknowledged add applied, and before its remove", adds and not bad, bad[:3])
    check("none applied twice: no client's id plays at the end", all(i[0] != "c" for i in ids), ids)
    order = collections.defaultdict(list)  # each client's actions told, as k
    for a in (d["action"] for e, d in events.result() if e == "action"):
        c, j = map(int, re.findall(r"\d+", a.get("id") or a["subtitle"]["id"]))
        order[c].append(2 * j + (a["do"] == "remove"))
    check("action events in order per client, none twice",
          all(o == sorted(set(o)) for o in order.values()), {c: o[:9] for c, o in order.items()})
    check(f"peak RSS under {PEAK_MB} MB", peak < PEAK_MB, peak)

    acked = [e for e in replies if e[2] in (200, 202)]
    at = lambda v, k=1: "median {:.1f}, p95 {:.1f}, max {:.1f}".format(*(  # noqa: E731
        x * k for x in (statistics.median(v), statistics.quantiles(v, n=20)[18], max(v))))
    frames = [e[3]["frame"] - e[4] for e in acked if "frame" in e[3]]
    print(f"actions: {len(acked)} acknowledged in {elapsed:.1f} s ({len(acked) / elapsed:.0f} a "
          f"second of {RATE} asked), {sum(e[2] == 429 for e in replies)} x 429, "
          f"{sum(e[2] is None for e in replies)} unanswered; {len(events.result())} events read")
    print(f"POST to the first frame showing it: {at(frames)} frames ({at(frames, 100 / 3)} ms at "
          f"30 fps); to its reply: {at([e[5] for e in acked], 1000)} ms")
    print(f"frame loop at 1280x720: {idle_fps:.0f} frames a second without load, "
          f"{(n1 - n0) / elapsed:.0f} under load; peak RSS {peak} MB")
    sys.exit(summary())
