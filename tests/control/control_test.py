# The live-control server of `lumets filter --control`, driven from 127.0.0.1
# while grey frames flow through the filter at 30 a second.
# Usage: control_test.py LUMETS_PROGRAM SCENE (docs/examples/ticker.json)
# load_test.py and page_test.py take the filter and the helpers from here.
import collections, concurrent.futures, contextlib, http.client, json, os, re, select, socket
import subprocess, sys, tempfile, threading, time

PAGE = re.compile(r"control page: (http://[^/\s]+)/\?token=([0-9A-Za-z_-]+)\n")  # a whole line
GREY, NO_TOKEN = b"\x80\x80\x80", {"Authorization": None}
Reply = collections.namedtuple("Reply", "status headers body json")
counts = [0, 0]


def check(name, ok, detail=""):
    counts[not ok] += 1
    print("ok    " + name if ok else f"FAIL  {name}: {str(detail)[:300]}", flush=True)


def summary():
    print(f"{counts[0]} passed, {counts[1]} failed")
    return 1 if counts[1] else 0


def wait_until(cond, seconds):  # a bounded poll; the last value of cond
    end = time.monotonic() + seconds
    while not (value := cond()) and time.monotonic() < end:
        time.sleep(0.02)
    return value


def jsonof(data):
    with contextlib.suppress(ValueError):
        return json.loads(data)
    return {}


# The filter, fed grey frames, one every `pace` s while `feeding` is set, from when it has
# printed where it listens: so those lines come before it reads a frame. Each frame out goes
# through `look` into `last`; stderr() is what it has printed.
class Filter:
    def __init__(self, program, scene, w=640, h=360, pace=1 / 30, keep=4, look=None):
        self.frame, self.pace, self.look, self.done, self.written, self.read, self.last = (
            GREY * (w * h), pace, look, False, 0, 0, collections.deque(maxlen=keep))
        self.err, self.feeding = tempfile.TemporaryFile(), threading.Event()
        self.proc = subprocess.Popen(
            [program, "filter", scene, "--size", f"{w}x{h}", "--fps", "30", "--control"],
            stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=self.err)
        if not (m := wait_until(lambda: PAGE.search(self.stderr()), 20)):
            sys.exit(check("the control page's line on standard error", False, self.stderr())
                     or summary())
        self.host, self.token, self.port = m[1][7:], m[2], int(m[1].rsplit(":", 1)[1])
        self.threads = [threading.Thread(target=t, daemon=True) for t in (self.feed, self.drain)]
        self.feeding.set()
        [t.start() for t in self.threads]

    def stderr(self):
        return os.pread(self.err.fileno(), 1 << 20, 0).decode(errors="replace")

    def feed(self):
        with contextlib.suppress(OSError):
            while not self.done:
                if self.feeding.wait(0.1):
                    os.write(self.proc.stdin.fileno(), self.frame)  # all of it: a blocking pipe
                    self.written += 1
                    time.sleep(self.pace)
            self.proc.stdin.close()

    def drain(self):
        while len(data := self.proc.stdout.read(len(self.frame))) == len(self.frame):
            self.last.append(self.look(data) if self.look else data)
            self.read += 1

    # One request, with the token unless the headers say None; on `conn` if given (kept open).
    def call(self, method, path, body=None, headers=(), conn=None):
        h = {"Authorization": "Bearer " + self.token, "Content-Type": "application/json",
             **dict(headers)}
        c = conn or http.client.HTTPConnection("127.0.0.1", self.port, timeout=10)
        try:
            c.request(method, path, body if body is None or isinstance(body, bytes) else
                      json.dumps(body).encode(), {k: v for k, v in h.items() if v is not None})
            data = (r := c.getresponse()).read()
            return Reply(r.status, r.headers, data, jsonof(data))
        except (OSError, http.client.HTTPException) as e:
            c.close()  # a kept connection opens again on its next request
            return Reply(None, {}, str(e).encode(), {})
        finally:
            conn or c.close()

    def ids(self):
        return [s["id"] for s in self.call("GET", "/state").json.get("subtitles", [])]

    def close(self, seconds=0):  # closes the input; the exit status, killed after `seconds`
        self.done = True
        with contextlib.suppress(subprocess.TimeoutExpired):
            self.proc.wait(seconds)
        self.proc.kill()  # a no-op once it has ended
        self.threads[1].join(5)
        return self.proc.wait()


class Events:  # an /events stream, read as (event, data) pairs; comments as (":", text)
    def __init__(self, f):
        self.c = http.client.HTTPConnection("127.0.0.1", f.port, timeout=10)
        self.c.request("GET", "/events", headers={"Authorization": "Bearer " + f.token})
        self.r = self.c.getresponse()

    def each(self, seconds):
        event, end = None, time.monotonic() + seconds
        with contextlib.suppress(OSError, ValueError, AttributeError, http.client.HTTPException):
            while time.monotonic() < end and (line := self.r.readline()):
                key, _, value = line.decode().partition(":")
                event = value.strip() if key == "event" else event
                if key == "data" or not key and value:
                    yield (event, jsonof(value)) if key else (":", value.strip())


def add(sid, group="t", at=(100, 100)):  # a red plate over a 400x60 clip, scene pixels
    text = {"content": sid, "style": {"fontSize": 28}, "at": [0, 0], "clip": [0, 0, 400, 60]}
    return {"do": "add", "subtitle": {"id": sid, "group": group, "at": list(at), "items": [{
        "text": text, "plate": {"color": "#FF0000", "spanClip": True}, "plays": 0}]}}


def head(f, line=b"GET /state"):  # the start of a raw request, with the token
    return b"%s HTTP/1.1\r\nHost: %s\r\nAuthorization: Bearer %s\r\n" % (
        line, f.host.encode(), f.token.encode())


def post(f, body, framing=b"Content-Length: %d\r\n"):  # a raw POST /actions
    return head(f, b"POST /actions") + b"Content-Type: application/json\r\n%s\r\n%s" % (
        framing.replace(b"%d", b"%d" % len(body)), body)


# Sends bytes, then `more` every 50 ms (for 7 s at most) until an answer comes. The reply's
# status (0: closed without one; None: neither within 7 s), whether the connection ends after
# it (looked at only with `more`), and the seconds taken.
def raw(f, data, more=b""):
    t0, status = time.monotonic(), None
    with socket.create_connection(("127.0.0.1", f.port), timeout=7) as s:
        with contextlib.suppress(ConnectionError, socket.timeout):  # refused early: a reply?
            s.sendall(data)
            while more and not select.select([s], [], [], 0.05)[0] and time.monotonic() < t0 + 7:
                s.sendall(more)
        try:
            got = s.recv(4096)
            status = int(got.split(b" ")[1]) if got.startswith(b"HTTP/1.1 ") else -1 if got else 0
            while more and got:  # the rest of the reply, then the end
                got = s.recv(65536)
        except (ConnectionError, socket.timeout) as e:  # reset: closed; timeout: neither
            got, status = (b"?", status) if isinstance(e, socket.timeout) else (b"", status or 0)
    return status, not got, round(time.monotonic() - t0, 2)


def run(f):
    wait_until(lambda: f.read > 0, 10)
    j = f.call("GET", "/state").json
    check("GET /state", (j.get("frame_size"), j.get("scene_size"), j.get("scale")) == ([640, 360],
          [1280, 720], 0.5) and j.get("frame", 0) > 0 and "time_ms" in j and set(j["banners"]) ==
          {"tavrin", "quellin", "ombrel"} and "ticker" in [s["id"] for s in j["subtitles"]], j)
    c, t0 = http.client.HTTPConnection("127.0.0.1", f.port, timeout=5), time.monotonic()
    [f.call("GET", "/state", conn=c) for _ in range(4)]  # on one connection, as a browser does
    check("a kept-alive connection answers at once", time.monotonic() - t0 < 0.1)

    # An action's effect: its event, its rect in frame pixels, drawn there, then gone.
    ev, r = Events(f), f.call("POST", "/actions", add("probe"))
    n, d = r.json.get("frame", 0), next((d for e, d in ev.each(10) if e == "action"), {})
    check("POST /actions: add; its event at N, the first frame drawn with it", (
        r.status, r.json.get("applied"), r.json.get("results"), d) == (200, True, [{"ok": True}], {
            "frame": n, "ok": True, "action": add("probe")}) and n > 0, (r.body, d))
    rect = wait_until(lambda: next((s["rect"] for s in f.call("GET", "/state").json["subtitles"]
                                    if s["id"] == "probe"), None), 5) or [0] * 4
    at = ((rect[1] + rect[3]) // 2 * 640 + (rect[0] + rect[2]) // 2) * 3
    wait_until(lambda: f.read > n + 1, 5)
    png = f.call("GET", "/frame.png").body
    check("/state: its rect in frame pixels, the plate drawn there; /frame.png an RGB PNG",
          rect[0] <= 150 <= rect[2] and rect[1] <= 65 <= rect[3] < 100 and f.last[-1][at:at + 3]
          != GREY and png[:26] == b"\x89PNG\r\n\x1a\n\0\0\0\rIHDR\0\0\2\x80\0\0\1h\x08\x02", rect)
    r = f.call("POST", "/actions", {"do": "remove", "id": "probe"})
    wait_until(lambda: f.read > r.json.get("frame", 0) + 1, 5)
    check("remove: gone from the state and the frames", r.json.get("results") == [{"ok": True}]
          and "probe" not in f.ids() and f.last[-1][at:at + 3] == GREY, r.body)

    # Who may call; errors located, all or nothing; an unknown id a result, not an error.
    # Rows: what, the request, its headers, the status wanted; then the body, what the reply holds.
    P, S, x = "POST /actions", "GET /state", {"do": "remove", "id": "x"}
    for name, req, headers, want, *rest in [
            ("the printed URL", f"GET /?token={f.token}&selftest=1", NO_TOKEN, 303, None,
             "Location: /?selftest=1\n", f"Set-Cookie: lumets_token={f.token}; Path=/; HttpOnly;"
             " SameSite=Strict\n"), ("no token", "GET /", NO_TOKEN, 200, None, "text/html"),
            ("no token", P, NO_TOKEN, 401, None, "error"),
            ("not JSON", P, {}, 400, b'{"do": ', "request:1:"),
            ("a wrong token", "GET /events", {"Authorization": "Bearer " + "0" * 32}, 401),
            ("the cookie", S, {**NO_TOKEN, "Cookie": f"lumets_token={f.token}"}, 200),
            ("a foreign Origin", P, {"Origin": "http://evil.example"}, 403),
            ("its own Origin", S, {"Origin": "http://" + f.host}, 200),
            ("a cross-site fetch", P, {"Sec-Fetch-Site": "cross-site"}, 403),
            ("a foreign Host", P, {"Host": f"evil.example:{f.port}"}, 403),
            ("localhost", S, {"Host": f"localhost:{f.port}"}, 200),
            ("no JSON type", P, {"Content-Type": "text/plain"}, 415),
            ("65 actions", P, {}, 413, [x] * 65), ("64 actions", P, {}, 200, [x] * 64),
            ("one bad of two", P, {}, 400, [add("no"), {"do": "x"}], "request:1:"),
            ("an unknown id", P, {}, 200, {"do": "remove", "id": "nobody"}, "nobody")]:
        body, *why = rest or [None]
        r = f.call(*req.split(), body or (add("no") if req[0] == "P" else None), headers)
        check(f"{req} with {name}: {want}", r.status == want and all(
            w in r.body.decode() + str(r.headers) for w in why) and
            r.json.get("applied", want == 200) is (want == 200), r[:3])
    queue_full(f)
    hostile(f)
    check("end of input: exit 0, every frame written; the port closed", f.close(10) == 0 and
          f.read == f.written and socket.socket().connect_ex(("127.0.0.1", f.port)),
          (f.proc.returncode, f.read, f.written, f.stderr()[-300:]))


def queue_full(f):  # with no frame coming, 256 actions fill the queue; then each applies once
    f.feeding.clear()
    time.sleep(0.2)
    wait_until(lambda: f.read == f.written, 5)
    ev, t0 = Events(f), time.monotonic()
    batches = [[add(f"q{64 * i + k}", "q", (20 * k, 300)) for k in range(64)] for i in range(3)]
    with concurrent.futures.ThreadPoolExecutor(4) as pool:
        replies = [pool.submit(f.call, "POST", "/actions", b) for b in batches + [
            [{"do": "remove", "id": f"gone{k}"} for k in range(64)]]]
        time.sleep(1)  # a bounded wait: the four reach the queue
        r = f.call("POST", "/actions", add("q-over", "q"))
    check("429 when the queue is full; the four queued: 202 when no frame comes in 5 s",
          (r.status, r.headers["Retry-After"]) == (429, "1") and [
              (x.result().status, x.result().json) for x in replies] ==
          [(202, {"applied": False, "queued": True})] * 4, r[:3])
    time.sleep(max(0.0, t0 + 6 - time.monotonic()))  # the stream quiet for 6 s
    f.feeding.set()
    told = collections.Counter(d if e == ":" else e for e, d in ev.each(2.5))
    ev.c.close()
    check("then the queued actions applied, none of a refused request; events: keep-alive "
          "comments when quiet, past 200 a second dropped, and told", sorted(i for i in f.ids() if
          i[0] in "qn") == sorted(f"q{i}" for i in range(192)) and told["keep-alive"] and
          told["dropped"] and told["action"] <= 200, (told, f.ids()))


# Clients that stall, send garbage or 1 GB, four at a time, while an /events client never
# reads: the frames go on, and the server answers meanwhile and after.
def hostile(f):
    rows = {"a client that sends nothing": b"", "a bad request line": b"GET\r\n\r\n",
            "a TLS hello": b"\x16\x03\x01\x00\xa5\x01" * 20, "an unknown method": head(f, b"BREW /")
            + b"\r\n", "a NUL in the path": head(f, b"GET /st\0ate") + b"\r\n",
            "a huge header": head(f) + b"X-Big: " + b"a" * 200000 + b"\r\n\r\n",
            "a bad Content-Length": post(f, b"{}", b"Content-Length: 2x\r\n"),
            "non-UTF-8 JSON": post(f, b'{"do": "remove", "id": "\xff\xfe"}'),
            "JSON nested 10,000 deep": post(f, b"[" * 10000 + b"]" * 10000),
            "a header line without a colon (any answer)": head(f) + b"NoColon\r\n\r\n",
            "1 GB (at once)": (post(f, b"", b"Content-Length: 1073741824\r\n"), b" " * 65536),
            "1 GB chunked (at once)": (post(f, b"", b"Transfer-Encoding: chunked\r\n"),
                                       b"10000\r\n" + b" " * 65536 + b"\r\n")}
    n0, t0, slow = f.read, time.monotonic(), []
    with concurrent.futures.ThreadPoolExecutor(4) as pool, socket.socket() as s:
        results = pool.map(lambda r: raw(f, *r) if type(r) is tuple else raw(f, r), rows.values())
        s.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 1024)
        s.connect(("127.0.0.1", f.port))
        s.sendall(head(f, b"GET /events") + b"\r\n")
        while time.monotonic() < t0 + 3:  # actions, each told to the client that never reads
            t1, r = time.monotonic(), f.call("POST", "/actions", [{"do": "remove", "id": "x"}] * 64)
            slow += [(r.status, t)] if r.status != 200 or (t := time.monotonic() - t1) > 1 else []
    for name, (st, closed, t) in zip(rows, results):
        check(f"{name}: 4xx or closed", (st == 0 or 400 <= (st or 0) < 500 or "any" in name
              and st is not None) and ("at once" not in name or closed and t < 2), (st, closed, t))
    check("meanwhile actions answered at once and the frames kept flowing; alive after", not slow
          and f.read - n0 >= 15 * (time.monotonic() - t0) - 2 and f.proc.poll() is None and
          f.call("GET", "/state").status == 200, (slow, f.read - n0, time.monotonic() - t0))


if __name__ == "__main__":
    flt = Filter(sys.argv[1], sys.argv[2])
    try:
        run(flt)
    finally:
        flt.close()
    sys.exit(summary())
