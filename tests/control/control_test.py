# The live-control server of `lumets filter --control`, driven from 127.0.0.1
# while grey frames flow through the filter at 30 a second.
# Usage: control_test.py LUMETS_PROGRAM SCENE (docs/examples/ticker.json)
import collections, contextlib, http.client, json, re, select, socket, subprocess, sys, threading
import time

PAGE = re.compile(r"control page: (http://[^/\s]+)/\?token=([0-9A-Za-z_-]+)")
GREY = b"\x80\x80\x80"
Reply = collections.namedtuple("Reply", "status headers body json")
counts = [0, 0]


def check(name, ok, detail=""):
    counts[not ok] += 1
    print(("ok    " if ok else "FAIL  ") + name + ("" if ok else f": {str(detail)[:300]}"), flush=True)


def wait_until(cond, seconds):  # a bounded poll
    end = time.monotonic() + seconds
    while not cond() and time.monotonic() < end:
        time.sleep(0.02)
    return cond()


def jsonof(data):
    with contextlib.suppress(ValueError):
        return json.loads(data)
    return {}


class Filter:
    """The filter, a thread feeding it grey frames (30 a second, or as fast as it takes
    them; for at most 150 s) and one reading them back."""

    def __init__(self, program, scene, w, h, pace=True, keep=4):
        self.w, self.frame, self.pace, self.done, self.paused = w, GREY * (w * h), pace, False, False
        self.proc = subprocess.Popen(
            [program, "filter", scene, "--size", f"{w}x{h}", "--fps", "30", "--control"],
            stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        self.feeding, self.found, self.written, self.read = threading.Event(), threading.Event(), 0, 0
        self.last, self.stderr = collections.deque(maxlen=keep), []
        self.feeding.set()
        self.threads = [threading.Thread(target=t, daemon=True)
                        for t in (self.errors, self.feed, self.drain)]
        [t.start() for t in self.threads]
        if not self.found.wait(20):
            self.close()
            sys.exit("no control page line on standard error:\n" + "".join(self.stderr))

    def errors(self):
        for line in self.proc.stderr:
            self.stderr.append(line.decode(errors="replace"))
            if m := PAGE.search(self.stderr[-1]):
                self.host, self.token = m[1][len("http://"):], m[2]
                self.port = int(self.host.rsplit(":", 1)[1])
                self.found.set()

    def feed(self):
        due, end = time.monotonic(), time.monotonic() + 150
        with contextlib.suppress(OSError):
            while not self.done and time.monotonic() < end:
                if not self.feeding.wait(0.1):
                    due, self.paused = time.monotonic(), True
                    continue
                self.paused = False
                self.proc.stdin.write(self.frame)
                self.proc.stdin.flush()
                self.written, due = self.written + 1, due + 1 / 30
                time.sleep(max(0.0, due - time.monotonic()) if self.pace else 0)
        with contextlib.suppress(OSError):
            self.proc.stdin.close()

    def drain(self):
        while len(data := self.proc.stdout.read(len(self.frame))) == len(self.frame):
            self.last.append(data)
            self.read += 1

    def call(self, method, path, body=None, headers=(), auth=True, timeout=10):
        h = {"Authorization": "Bearer " + self.token} if auth else {}
        h.update({"Content-Type": "application/json"} if method == "POST" else {}, **dict(headers))
        c = http.client.HTTPConnection("127.0.0.1", self.port, timeout=timeout)
        try:
            c.request(method, path, body if body is None or isinstance(body, bytes) else
                      json.dumps(body).encode(), h)
            r = c.getresponse()
            data = r.read()
            return Reply(r.status, r.headers, data, jsonof(data))
        except (OSError, http.client.HTTPException) as e:
            return Reply(None, {}, str(e).encode(), {})
        finally:
            c.close()

    def ids(self):
        return [s["id"] for s in self.call("GET", "/state").json.get("subtitles", [])]

    def peak_mb(self):
        with open(f"/proc/{self.proc.pid}/status") as status:
            return int(next(s for s in status if s.startswith("VmHWM")).split()[1]) >> 10

    def close(self, seconds=0):
        """Closes the input; the exit status, killing the program after `seconds`."""
        self.done = True
        self.threads[1].join(seconds)
        with contextlib.suppress(subprocess.TimeoutExpired):
            self.proc.wait(seconds)
        self.proc.kill()  # a no-op once it has ended
        self.threads[2].join(5)
        return self.proc.wait()


class Events:
    """An /events stream, read as (event, data) pairs."""

    def __init__(self, f):
        self.c = http.client.HTTPConnection("127.0.0.1", f.port, timeout=10)
        self.c.request("GET", "/events", headers={"Authorization": "Bearer " + f.token})
        self.r = self.c.getresponse()

    def each(self, seconds):
        event, end = None, time.monotonic() + seconds
        with contextlib.suppress(OSError, ValueError, AttributeError, http.client.HTTPException):
            while time.monotonic() < end and (line := self.r.readline()):
                key, _, value = line.decode().rstrip("\r\n").partition(":")
                if key == "event":
                    event = value.strip()
                elif key == "data":
                    yield event, jsonof(value)


def add(sid, group="t", at=(100, 100)):  # a red plate over a 400x60 clip, scene pixels
    text = {"content": sid, "style": {"fontSize": 28}, "at": [0, 0], "clip": [0, 0, 400, 60]}
    plate = {"color": "#FF0000", "opacity": 100, "spanClip": True}
    return {"do": "add", "subtitle": {"id": sid, "group": group, "at": list(at),
                                      "items": [{"text": text, "plate": plate, "plays": 0}]}}


def raw(f, data, seconds=7):
    """Sends bytes; the reply's status, 0 when closed without one, None when neither."""
    with socket.create_connection(("127.0.0.1", f.port), timeout=seconds) as s:
        with contextlib.suppress(ConnectionError):  # refused early: its reply may be there
            s.sendall(data)
        try:
            got = s.recv(4096)
        except ConnectionError:
            return 0
        except socket.timeout:
            return None
        return int(got.split(b" ")[1]) if got.startswith(b"HTTP/1.1 ") else -1 if got else 0


def run(f):
    wait_until(lambda: f.read > 0, 10)
    r = f.call("GET", "/", auth=False)
    check("GET / is the page, without a token", "text/html" in r.headers.get("Content-Type", ""))
    j = f.call("GET", "/state").json
    check("GET /state", j.get("frame_size") == [640, 360] and j.get("scene_size") == [1280, 720]
          and j.get("scale") == 0.5 and j.get("frame", 0) > 0 and "time_ms" in j and "ticker" in
          f.ids() and set(j.get("banners", {})) == {"tavrin", "quellin", "ombrel"}, j)
    c, times = http.client.HTTPConnection("127.0.0.1", f.port, timeout=5), []
    for _ in range(4):  # on one connection, as a browser's requests go
        t0 = time.monotonic()
        c.request("GET", "/state", headers={"Authorization": "Bearer " + f.token})
        c.getresponse().read()
        times.append(time.monotonic() - t0)
    c.close()
    check("a kept-alive connection answers at once", sorted(times)[2] < 0.02, times)

    # An action's effect: its event, its rect in frame pixels, drawn there, then gone.
    ev = Events(f)
    r = f.call("POST", "/actions", add("probe"))
    check("POST /actions: add", r.status == 200 and r.json.get("applied") is True and
          r.json.get("results") == [{"ok": True}] and r.json.get("frame", 0) > 0, r.body)
    d = next((d for e, d in ev.each(10) if e == "action" and d.get("action") == add("probe")), {})
    check("GET /events: the action", d.get("ok") is True and d["frame"] == r.json.get("frame"), d)
    ev.c.close()
    rect = next((s["rect"] for s in f.call("GET", "/state").json.get("subtitles", [])
                 if s["id"] == "probe"), [0] * 4)
    check("/state: the rect in frame pixels", rect[0] <= 150 <= rect[2] and
          rect[1] <= 65 <= rect[3] < 100, rect)
    at = ((rect[1] + rect[3]) // 2 * 640 + (rect[0] + rect[2]) // 2) * 3
    wait_until(lambda: f.read > r.json.get("frame", 0) + 1, 5)
    check("the plate is drawn inside the rect", f.last[-1][at:at + 3] != GREY)
    png = f.call("GET", "/frame.png").body
    check("GET /frame.png", png[:8] == b"\x89PNG\r\n\x1a\n" and
          png[16:24] == (640).to_bytes(4, "big") + (360).to_bytes(4, "big"), png[:32])
    r = f.call("POST", "/actions", {"do": "remove", "id": "probe"})
    wait_until(lambda: f.read > r.json.get("frame", 0) + 1, 5)
    check("remove: gone from the state and the frames", r.json.get("results") == [{"ok": True}]
          and "probe" not in f.ids() and f.last[-1][at:at + 3] == GREY, r.body)

    # Errors: located, all or nothing; an unknown id is a result, not an error.
    for name, body in [("one bad action of two", f'[{json.dumps(add("never"))}, {{"do": "x"}}]'),
                       ("not JSON", '{"do": ')]:
        r = f.call("POST", "/actions", body.encode())
        check(f"400, located, for {name}", r.status == 400 and r.json.get("applied") is False
              and "request:1:" in r.body.decode(), r.body)
    r = f.call("POST", "/actions", {"do": "remove", "id": "nobody"})
    res = (r.json.get("results") or [{}])[0]
    check("an unknown id: ok false with the reason", r.status == 200 and res.get("ok") is False
          and "nobody" in res.get("error", ""), r.body)

    # Who may call. Refused adds must change nothing.
    evil = {"Origin": "http://evil.example"}
    for name, method, headers, auth, want in [
            ("no token", "GET", {}, False, 401), ("no token", "POST", {}, False, 401),
            ("a wrong token", "GET", {"Authorization": "Bearer " + "0" * 32}, False, 401),
            ("the cookie", "GET", {"Cookie": f"lumets_token={f.token}"}, False, 200),
            ("a foreign Origin", "GET", evil, True, 403), ("a foreign Origin", "POST", evil, True, 403),
            ("its own Origin", "GET", {"Origin": "http://" + f.host}, True, 200),
            ("a cross-site fetch", "POST", {"Sec-Fetch-Site": "cross-site"}, True, 403),
            ("a foreign Host", "GET", {"Host": "evil.example"}, True, 403),
            ("a foreign Host", "POST", {"Host": f"evil.example:{f.port}"}, True, 403),
            ("localhost", "GET", {"Host": f"localhost:{f.port}"}, True, 200),
            ("no JSON type", "POST", {"Content-Type": "text/plain"}, True, 415)]:
        get = method == "GET"
        r = f.call(method, "/state" if get else "/actions", None if get else add("no"), headers, auth)
        check(f"{method} with {name}: {want}", r.status == want and (want != 401 or "error" in r.json),
              r[:3])
    n = f.read
    wait_until(lambda: f.read > n + 3, 2)
    check("refused requests changed nothing", "no" not in f.ids())

    # Bounds.
    check("413 for a body over 1 MiB", raw(f, post(f, b"[" + b" " * (1 << 20) + b"]")) == 413)
    for n, want in [(64, 200), (65, 413)]:
        r = f.call("POST", "/actions", [{"do": "remove", "id": f"n{i}"} for i in range(n)])
        check(f"{n} actions: {want}", r.status == want and (n > 64 or len(r.json.get("results", [])) == n))
    queue_full(f)
    hostile(f)
    rc = f.close(10)
    check("end of input: exit 0, every frame written", rc == 0 and f.read == f.written,
          (rc, f.read, f.written, f.stderr[-3:]))
    with socket.socket() as s:
        check("the port is closed afterwards", s.connect_ex(("127.0.0.1", f.port)) != 0)


def post(f, body, framing=b"Content-Length: %d\r\n"):  # a raw POST /actions
    return (b"POST /actions HTTP/1.1\r\nHost: %s\r\nAuthorization: Bearer %s\r\nContent-Type: "
            b"application/json\r\n%s\r\n%s" % (f.host.encode(), f.token.encode(),
                                               framing.replace(b"%d", b"%d" % len(body)), body))


def queue_full(f):
    """With no frame coming, 256 queued actions fill the queue; after, each is applied once."""
    f.feeding.clear()
    wait_until(lambda: f.paused and f.read == f.written, 5)
    ev, replies = Events(f), []
    batches = [[add(f"q{64 * i + k}", "q", (20 * k, 300)) for k in range(64)] for i in range(3)]
    batches.append([{"do": "remove", "id": f"gone{k}"} for k in range(64)])
    posts = [threading.Thread(target=lambda b=b: replies.append(f.call("POST", "/actions", b)))
             for b in batches]
    [p.start() for p in posts]
    time.sleep(1)  # a bounded wait: the four reach the queue
    r = f.call("POST", "/actions", add("q-over", "q"))
    check("429 when the queue is full", r.status == 429 and r.headers.get("Retry-After") == "1", r[:3])
    f.feeding.set()
    [p.join(15) for p in posts]
    check("the queued requests answered", len(replies) == 4 and all(r.status in (200, 202) for r in
                                                                     replies), replies)
    seen, dropped = collections.Counter(), 0
    for e, d in ev.each(2.5):
        a = d.get("action", {})
        seen[a.get("id") or a.get("subtitle", {}).get("id")] += e == "action"
        dropped += d.get("count", 0) if e == "dropped" else 0
    ev.c.close()
    ids = f.ids()
    check("each queued action applied once, the refused one not", "q-over" not in ids and
          sorted(i for i in ids if i[0] == "q") == sorted(f"q{i}" for i in range(192)) and
          max(seen.values()) == 1, (ids, seen.most_common(2)))
    check("events past 200 a second dropped, and told", dropped > 0 and sum(seen.values()) <= 200,
          (dropped, sum(seen.values())))
    f.call("POST", "/actions", {"do": "trim", "group": "q", "keep": 0})


def hostile(f):
    """Clients that stall, flood or send garbage: the frames go on and the server answers."""
    def closed(s):
        try:
            return not s.recv(1)
        except ConnectionError:
            return True
        except socket.timeout:
            return False

    def idle():
        socks = [socket.create_connection(("127.0.0.1", f.port), timeout=9) for _ in range(3)]
        answered = f.call("GET", "/state", timeout=2).status == 200
        dropped = [closed(s) for s in socks]  # after 5 s
        [s.close() for s in socks]
        return None if answered and all(dropped) else ("answered", answered, "dropped", dropped)

    def never_reads():
        with socket.socket() as s:
            s.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 1024)
            s.connect(("127.0.0.1", f.port))
            s.sendall(get.replace(b"/state", b"/events") + b"\r\n")
            slow, end = [], time.monotonic() + 3
            while time.monotonic() < end:
                t0 = time.monotonic()
                r = f.call("POST", "/actions", [{"do": "remove", "id": f"x{i}"} for i in range(64)])
                if r.status != 200 or time.monotonic() - t0 > 1:
                    slow.append((r.status, time.monotonic() - t0))
            return slow

    def gigabyte(framing, chunk):
        peak = f.peak_mb()
        with socket.create_connection(("127.0.0.1", f.port), timeout=5) as s:
            s.sendall(post(f, b"", framing))
            sent, end = 0, time.monotonic() + 10
            try:
                while sent < 64 << 20 and time.monotonic() < end:
                    if select.select([s], [], [], 0)[0]:  # an answer, or the end
                        got = s.recv(64)
                        return None if not got or got.startswith(b"HTTP/1.1 4") else got
                    s.sendall(chunk)
                    sent += len(chunk)
            except ConnectionError:
                return None  # closed on us
            except socket.timeout:
                return "neither read nor refused"
            return f"took {sent >> 20} MiB of it; peak RSS {peak} -> {f.peak_mb()} MB"

    get = b"GET /state HTTP/1.1\r\nHost: %s\r\nAuthorization: Bearer %s\r\n" % (
        f.host.encode(), f.token.encode())
    for name, act in [
            ("a client that sends nothing", idle), ("an /events client that never reads", never_reads),
            ("a 1 GB body", lambda: gigabyte(b"Content-Length: 1073741824\r\n", b" " * 65536)),
            ("a 1 GB chunked body", lambda: gigabyte(b"Transfer-Encoding: chunked\r\n",
                                                     b"10000\r\n" + b" " * 65536 + b"\r\n"))]:
        n0, t0 = f.read, time.monotonic()
        detail = act()
        check(f"{name}: handled", not detail, detail)
        check(f"{name}: frames kept flowing", f.read - n0 >= 15 * (time.monotonic() - t0) - 2,
              (f.read - n0, time.monotonic() - t0))
    for name, data in [
            ("an unknown method", get.replace(b"GET", b"BREW") + b"\r\n"),
            ("a bad request line", b"GET\r\n\r\n"), ("a TLS hello", b"\x16\x03\x01\x00\xa5\x01" * 20),
            ("a huge header", get + b"X-Big: " + b"a" * 200000 + b"\r\n\r\n"),
            ("a header without colon", get + b"NoColonHere\r\n\r\n"),
            ("a bad Content-Length", post(f, b"{}", b"Content-Length: 2x\r\n")),
            ("a negative Content-Length", post(f, b"{}", b"Content-Length: -2\r\n")),
            ("a garbage chunked body", post(f, b"zz\r\nhi\r\n", b"Transfer-Encoding: chunked\r\n")),
            ("non-UTF-8 JSON", post(f, b'{"do": "remove", "id": "\xff\xfe"}')),
            ("JSON nested 10,000 deep", post(f, b"[" * 10000 + b"]" * 10000)),
            ("NUL bytes in JSON", post(f, b'{"do": "remove",\0 "id": "a\0b"}')),
            ("a NUL in the path", get.replace(b"/state", b"/st\0ate") + b"\r\n")]:
        st = raw(f, data)
        check(f"{name}: 4xx or closed", st == 0 or 400 <= (st or 0) < 500, st)
    check("alive after all of them", f.proc.poll() is None and f.call("GET", "/state").status == 200)


if __name__ == "__main__":
    flt = Filter(sys.argv[1], sys.argv[2], 640, 360)
    try:
        run(flt)
    finally:
        flt.close()
    print(f"{counts[0]} passed, {counts[1]} failed")
    sys.exit(1 if counts[1] else 0)
