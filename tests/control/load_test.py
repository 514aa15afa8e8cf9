# Load on the live-control server: 1280x720 frames as fast as the filter takes
# them while four clients post 1,000 single actions a second for 10 s.
# Usage: load_test.py LUMETS_PROGRAM SCENE (docs/examples/ticker.json)
import http.client, json, sys, threading, time
from control_test import Events, Filter, add, check, counts, jsonof, wait_until

CLIENTS, RATE, SECONDS, PEAK_MB = 4, 1000, 10, 400


def client(f, c, stop, log):
    """Adds and removes ids of its own in turn, ending on a remove; logs each reply as
    (k, status, reply, frames read when posted, seconds). Unanswered ones are not retried."""
    conn, k, due = None, 0, time.monotonic()
    while (not stop.is_set() or k % 2) and k < 2 * RATE * SECONDS:
        time.sleep(max(0.0, due - time.monotonic()))
        due = max(due + CLIENTS / RATE, time.monotonic() - 0.05)
        sid = f"c{c}-{k // 2}"
        act = add(sid, f"c{c}", (300 * c, 400)) if k % 2 == 0 else {"do": "remove", "id": sid}
        before, t0, r, reply = f.read, time.monotonic(), None, {}
        try:
            conn = conn or http.client.HTTPConnection("127.0.0.1", f.port, timeout=10)
            conn.request("POST", "/actions", json.dumps(act), {
                "Authorization": "Bearer " + f.token, "Content-Type": "application/json"})
            r = conn.getresponse()
            reply = jsonof(r.read())
        except (OSError, http.client.HTTPException):
            conn = conn.close()
        log.append((k, r and r.status, reply, before, time.monotonic() - t0))
        if r and r.status == 429:  # nothing was queued: the same action again, later
            time.sleep(min(float(r.getheader("Retry-After", "1")), 1.0))
        else:
            k += 1


def main(program, scene):
    f = Filter(program, scene, 1280, 720, pace=False, keep=1)
    stop, logs, events, peak = threading.Event(), [[] for _ in range(CLIENTS)], [], 1 << 20
    try:
        wait_until(lambda: f.read >= 1, 20)
        t0 = time.monotonic()
        wait_until(lambda: f.read >= 301, 30)
        idle_fps = 300 / (time.monotonic() - t0)
        ev = Events(f)
        threading.Thread(target=lambda: events.extend(ev.each(SECONDS + 5)), daemon=True).start()
        clients = [threading.Thread(target=client, args=(f, c, stop, logs[c]), daemon=True)
                   for c in range(CLIENTS)]
        n0, t0 = f.read, time.monotonic()
        [c.start() for c in clients]
        wait_until(stop.is_set, SECONDS)  # the load runs
        stop.set()
        [c.join(15) for c in clients]
        elapsed = time.monotonic() - t0
        load_fps, ids, peak = (f.read - n0) / elapsed, f.ids(), f.peak_mb()
        ev.c.close()
    finally:
        rc = f.close(20)
    check("every input frame is written out, exit 0", rc == 0 and f.read == f.written,
          (rc, f.read, f.written))
    replies = [(c, *e) for c, log in enumerate(logs) for e in log]
    adds = {(c, k) for c, k, st, *_ in replies if st == 200 and k % 2 == 0}
    bad = [e for e in replies if e[2] == 200 and (e[0], e[1] - e[1] % 2) in adds and
           e[3].get("results", [{}])[0].get("ok") is not True]
    check("each acknowledged add applied, and before its remove", not bad, bad[:3])
    check("nothing applied twice: no client's id plays at the end",
          not [i for i in ids if i[0] == "c"], ids)
    order = {c: [] for c in range(CLIENTS)}
    for e, d in events:
        a = d.get("action", {})
        if e == "action" and (a.get("id") or a.get("subtitle", {}).get("id", "")).startswith("c"):
            c, j = map(int, (a.get("id") or a["subtitle"]["id"])[1:].split("-"))
            order[c].append(2 * j + (a["do"] == "remove"))
    check("action events in order per client, none twice",
          all(o == sorted(set(o)) for o in order.values()), {c: o[:9] for c, o in order.items()})
    check(f"peak RSS under {PEAK_MB} MB", peak < PEAK_MB, peak)

    acked = [e for e in replies if e[2] in (200, 202)]
    frames = sorted(e[3]["frame"] - e[4] for e in acked if "frame" in e[3])
    ms = sorted(e[5] * 1000 for e in acked)
    at = lambda v, p: v[min(len(v) - 1, int(p * len(v)))] if v else float("nan")
    print(f"actions: {len(acked)} acknowledged in {elapsed:.1f} s ({len(acked) / elapsed:.0f} a "
          f"second of {RATE} asked), {sum(e[2] == 429 for e in replies)} x 429, "
          f"{sum(e[2] is None for e in replies)} unanswered; {len(events)} events read")
    print(f"POST to the first frame showing it: median {at(frames, .5):.0f}, p95 {at(frames, .95):.0f},"
          f" max {at(frames, 1):.0f} frames (at 30 fps: {at(frames, .5) * 100 / 3:.0f}, "
          f"{at(frames, .95) * 100 / 3:.0f}, {at(frames, 1) * 100 / 3:.0f} ms)")
    print(f"POST to reply: median {at(ms, .5):.1f}, p95 {at(ms, .95):.1f}, max {at(ms, 1):.1f} ms")
    print(f"frame loop at 1280x720: {idle_fps:.0f} frames a second without load, {load_fps:.0f} "
          f"under load; peak RSS {peak} MB")
    print(f"{counts[0]} passed, {counts[1]} failed")
    return 1 if counts[1] else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1], sys.argv[2]))
