# The control page of `lumets filter --control` in headless Chromium: the page
# adds a headline, drags it and removes it as a person would (?selftest=1),
# and the frames coming out of the filter must show it exactly meanwhile.
# Usage: page_test.py LUMETS_PROGRAM SCENE (docs/examples/ticker.json)
# Exits 77 without Chromium. LUMETS_UPDATE_SCREENSHOT=1 copies the screenshot
# of the page to docs/control-page.png.
import base64, json, os, re, select, shutil, signal, subprocess, sys, tempfile, threading, time
import urllib.request

W, H, BAND = 1280, 720, 240  # the headline preset draws in the top rows
PAGE = re.compile(r"control page: (http://[^/\s]+)/\?token=([0-9A-Za-z_-]+)")
GREY = b"\x80" * (W * H * 3)
DOCS = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "docs")


class Filter:
    """The filter fed grey frames at 30 a second for at most 40 s; for each
    frame out it keeps whether anything was drawn in the top band."""

    def __init__(self, program, scene):
        self.proc = subprocess.Popen([program, "filter", scene, "--size", f"{W}x{H}", "--fps", "30",
                                      "--control"], stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                     stderr=subprocess.PIPE)
        self.stop, found, self.drawn, self.stderr = threading.Event(), threading.Event(), [], []

        def errors():
            for line in self.proc.stderr:
                self.stderr.append(line.decode(errors="replace"))
                if m := PAGE.search(self.stderr[-1]):
                    self.base, self.token = m.groups()
                    found.set()
        threading.Thread(target=errors, daemon=True).start()
        if not found.wait(20):
            self.proc.kill()
            raise RuntimeError("no control page line on standard error:\n" + "".join(self.stderr))
        threading.Thread(target=self.feed, daemon=True).start()
        self.reader = threading.Thread(target=self.drain, daemon=True)
        self.reader.start()

    def feed(self):
        due = start = time.monotonic()
        try:
            while not self.stop.is_set() and time.monotonic() < start + 40:
                self.proc.stdin.write(GREY)
                self.proc.stdin.flush()
                due += 1 / 30
                time.sleep(max(0.0, due - time.monotonic()))
        except OSError:
            pass
        finally:
            self.proc.stdin.close()

    def drain(self):
        band = GREY[:W * 3 * BAND]
        while len(data := self.proc.stdout.read(len(GREY))) == len(GREY):
            self.drawn.append(data[:len(band)] != band)

    def state(self):
        request = urllib.request.Request(self.base + "/state",
                                         headers={"Authorization": "Bearer " + self.token})
        with urllib.request.urlopen(request, timeout=10) as reply:
            return json.load(reply)

    def post(self, actions):
        request = urllib.request.Request(self.base + "/actions", json.dumps(actions).encode(), {
            "Authorization": "Bearer " + self.token, "Content-Type": "application/json"})
        with urllib.request.urlopen(request, timeout=10) as reply:
            return json.load(reply)


class Browser:
    """Headless Chromium driven over --remote-debugging-pipe (fds 3 and 4),
    so the test waits in real time for what the page shows."""

    def __init__(self, chromium, url, profile):
        to_child, self.out = os.pipe()
        self.inp, from_child = os.pipe()
        self.proc = subprocess.Popen(
            ["bash", "-c", f'exec "$0" "$@" 3<&{to_child} 4>&{from_child}', chromium, "--headless=new",
             "--disable-gpu", "--no-sandbox", "--remote-debugging-pipe", "--window-size=1280,900",
             "--hide-scrollbars", f"--user-data-dir={profile}", url],
            pass_fds=(to_child, from_child), stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
            start_new_session=True)
        os.close(to_child), os.close(from_child)
        self.buffer, self.next = b"", 0
        pages = lambda: [t for t in self.call("Target.getTargets")["targetInfos"]
                         if t["type"] == "page"]
        target = wait_for(pages, 10)[0]["targetId"]
        self.session = self.call("Target.attachToTarget", targetId=target, flatten=True)["sessionId"]

    def call(self, method, session=None, **params):
        self.next += 1
        message = {"id": self.next, "method": method, "params": params}
        if session or getattr(self, "session", None):
            message["sessionId"] = session or self.session
        os.write(self.out, json.dumps(message).encode() + b"\0")
        deadline = time.monotonic() + 15
        while True:
            while b"\0" in self.buffer:
                text, self.buffer = self.buffer.split(b"\0", 1)
                reply = json.loads(text)
                if reply.get("id") == self.next:
                    if "error" in reply:
                        raise RuntimeError(f"{method}: {reply['error']}")
                    return reply["result"]
            if not select.select([self.inp], [], [], max(0, deadline - time.monotonic()))[0]:
                raise RuntimeError(f"{method}: no answer from Chromium")
            chunk = os.read(self.inp, 1 << 20)
            if not chunk:
                raise RuntimeError("Chromium went away")
            self.buffer += chunk

    def eval(self, expression):
        reply = self.call("Runtime.evaluate", expression=expression, returnByValue=True)
        return reply["result"].get("value")

    def close(self):
        try:
            os.killpg(self.proc.pid, signal.SIGKILL)
        except ProcessLookupError:
            pass
        self.proc.wait(10)
        os.close(self.out), os.close(self.inp)


def wait_for(probe, seconds):
    deadline = time.monotonic() + seconds
    while not (value := probe()) and time.monotonic() < deadline:
        time.sleep(0.1)
    return value


def run(program, scene, chromium, temp):
    failures = []

    def check(name, ok, detail=""):
        print(("ok    " if ok else "FAIL  ") + name + ("" if ok else f": {detail}"), flush=True)
        ok or failures.append(name)

    filt = Filter(program, scene)
    browser = None
    try:
        browser = Browser(chromium, f"{filt.base}/?token={filt.token}&selftest=1", temp + "/profile")
        text = wait_for(lambda: browser.eval("(e => e && !e.hidden ? e.textContent : '')"
                                             "(document.getElementById('selftest-result'))"), 30)
        result = json.loads(text or "{}")
        print("selftest:", json.dumps(result))
        check("the page added, dragged and removed the message", result.get("ok") is True, result)
        if result.get("ok"):
            before, after = result["rectBefore"], result["rectAfter"]
            check("the drag moved the rectangle by (+60, +40)",
                  all(abs(a - b - d) <= 2 for a, b, d in zip(after, before, [60, 40, 60, 40])),
                  f"{before} -> {after}")
            added, removed = result["addFrame"], result["removeFrame"]
            check("the frames numbered by the replies follow the page's view",
                  added <= result["addedAtFrame"] and removed <= result["removedAtFrame"], result)
            wait_for(lambda: len(filt.drawn) > removed + 5, 5)
            drawn = list(filt.drawn)
            early = [i for i in range(added) if drawn[i]]
            check("no frame before the add shows it", not early, early[:10])
            missing = [i for i in range(added, removed) if not drawn[i]]
            check("every frame from the add to the removal shows it", not missing, missing[:10])
            later = [i for i in range(removed, len(drawn)) if drawn[i]]
            check("no frame after the removal shows it", not later, later[:10])

        # The page as a person sees it, with a message and a banner put up
        # while it is open, so that their events show in its log.
        browser.call("Emulation.setDeviceMetricsOverride", width=1280, height=900, deviceScaleFactor=1,
                     mobile=False)
        browser.call("Page.navigate", url=f"{filt.base}/?token={filt.token}")
        wait_for(lambda: browser.eval("document.getElementById('status').className === 'live'"), 10)
        reply = filt.post([{"do": "add", "subtitle": {"id": "hello", "group": "chat", "at": [60, 580],
                            "items": [{"text": {"content": "Hello from the chat 👋 你好", "style": {
                                "fontSize": 28, "outline": True, "outlineWidth": 2},
                                "at": [0, 0], "clip": [0, 0, 1100, 52]},
                                "plate": {"color": "#14202C", "opacity": 72}, "plays": 0}]}},
                           {"do": "banners", "ombrel": {"text": "MVP 🏆", "fontSize": 20,
                            "caps": "../../data/demo/caps.png", "middle": "../../data/demo/middle.png",
                            "rect": [520, 300, 760, 360]}}])
        check("a message and a banner added through the API",
              all(r["ok"] for r in reply["results"]), reply)
        shown = wait_for(lambda: browser.eval(
            "document.getElementById('nopreview').hidden && !!document.querySelector('#subtitles "
            "li[data-id=\"hello\"]') && !!document.querySelector('#banners textarea')"), 15)
        check("the page shows the preview, the message and the banner", shown)
        time.sleep(1)  # a couple more frames and events in the log
        png = base64.b64decode(browser.call("Page.captureScreenshot", format="png")["data"])
        check("a screenshot of the page", png.startswith(b"\x89PNG") and len(png) > 10000)
        with open(temp + "/control-page.png", "wb") as f:
            f.write(png)
        # The banner's fields: a new text sent back with the rest of the banner, then down.
        browser.eval("(f => { f.querySelector('textarea').value = 'MVP 冠军'; f.querySelector("
                     "'button.primary').click(); })(document.querySelector('#banners fieldset'))")
        banner = wait_for(lambda: filt.state()["banners"]["ombrel"]["text"] == "MVP 冠军", 5)
        check("Update sends the edited banner text", banner, filt.state()["banners"]["ombrel"])
        browser.eval("document.querySelector('#banners fieldset button.danger').click()")
        down = wait_for(lambda: filt.state()["banners"]["ombrel"] is None, 5)
        check("Take down takes the banner down", down)
        if os.environ.get("LUMETS_UPDATE_SCREENSHOT") == "1":
            shutil.copyfile(temp + "/control-page.png", os.path.join(DOCS, "control-page.png"))
            print("wrote", os.path.normpath(os.path.join(DOCS, "control-page.png")))
    finally:
        if browser:
            browser.close()
        filt.stop.set()
        try:
            filt.proc.wait(10)
        except subprocess.TimeoutExpired:
            filt.proc.kill()
            filt.proc.wait()
        filt.reader.join(5)
    check("the filter ends with 0 at the end of its input", filt.proc.returncode == 0,
          f"{filt.proc.returncode}: {''.join(filt.stderr)[-800:]}")
    return 1 if failures else 0


def main():
    chromium = shutil.which("chromium") or shutil.which("chromium-browser")
    if not chromium:
        print("skipped: chromium is not installed (apt-get install chromium)")
        return 77
    with tempfile.TemporaryDirectory(prefix="lumets-page-") as temp:
        started = time.monotonic()
        rc = run(sys.argv[1], sys.argv[2], chromium, temp)
        print(f"{'passed' if rc == 0 else 'failed'} in {time.monotonic() - started:.1f} s")
        return rc


if __name__ == "__main__":
    sys.exit(main())
