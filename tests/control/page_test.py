# The control page of `lumets filter --control` in headless Chromium: the page
# adds a headline, drags it and removes it as a person would (?selftest=1),
# and the frames coming out of the filter must show it exactly meanwhile. Then
# a message and a banner put up through the API show in the page, and its
# banner form edits the banner and takes it down.
# Usage: page_test.py LUMETS_PROGRAM SCENE (docs/examples/ticker.json)
# Exits 77 without Chromium. LUMETS_UPDATE_SCREENSHOT=1 writes the screenshot
# of the page to docs/control-page.png.
import base64, json, os, select, shutil, signal, subprocess, sys, tempfile, time
from control_test import Filter, check, summary, wait_until

SHOT = os.path.join(os.path.dirname(os.path.abspath(__file__)), "../../docs/control-page.png")


# Headless Chromium over --remote-debugging-pipe (fds 3 and 4), so that the test waits in
# real time for what the page shows.
class Browser:
    def __init__(self, chromium, profile):
        (to_child, self.wr), (self.rd, from_child) = os.pipe(), os.pipe()
        self.proc = subprocess.Popen(
            ["bash", "-c", f'exec "$0" "$@" 3<&{to_child} 4>&{from_child}', chromium,
             "--headless=new", "--disable-gpu", "--no-sandbox", "--remote-debugging-pipe",
             "--hide-scrollbars", f"--user-data-dir={profile}"], pass_fds=(to_child, from_child),
            stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, start_new_session=True)
        os.close(to_child), os.close(from_child)
        self.buffer, self.next, self.session = b"", 0, {}

    def open(self, url):  # in a 1280x900 page
        target = self.call("Target.createTarget", url="about:blank")["targetId"]
        self.session = {"sessionId": self.call("Target.attachToTarget", targetId=target,
                                               flatten=True)["sessionId"]}
        self.call("Emulation.setDeviceMetricsOverride", width=1280, height=900,
                  deviceScaleFactor=1, mobile=False)
        self.call("Page.navigate", url=url)

    def call(self, method, **params):
        self.next += 1
        os.write(self.wr, json.dumps({"id": self.next, "method": method, "params": params,
                                      **self.session}).encode() + b"\0")
        while True:
            while b"\0" in self.buffer:
                text, self.buffer = self.buffer.split(b"\0", 1)
                if (reply := json.loads(text)).get("id") == self.next:
                    if "error" in reply:
                        raise RuntimeError(f"{method}: {reply['error']}")
                    return reply["result"]
            if not select.select([self.rd], [], [], 15)[0] or not (got := os.read(self.rd, 65536)):
                raise RuntimeError(f"{method}: no answer from Chromium")
            self.buffer += got

    def eval(self, js):
        return self.call("Runtime.evaluate", expression=js)["result"].get("value")  # a primitive


def run(f, browser):
    browser.open(f"http://{f.host}/?token={f.token}&selftest=1")
    result = json.loads(wait_until(lambda: browser.eval(
        "(e => e && !e.hidden ? e.textContent : '')(document.getElementById('selftest-result'))"),
        30) or "{}")
    before, after = result.get("rectBefore", [0] * 4), result.get("rectAfter", [0] * 4)
    check("the page added, dragged (by +60, +40) and removed the message", result.get("ok") is True
          and all(abs(a - b - d) <= 2 for a, b, d in zip(after, before, [60, 40, 60, 40])), result)
    if result.get("ok"):
        added, removed = result["addFrame"], result["removeFrame"]  # as the replies said
        wait_until(lambda: len(f.last) > removed + 5, 5)
        wrong = [i for i, drawn in enumerate(list(f.last)) if drawn != (added <= i < removed)]
        check("it shows in every frame from the add to the removal, in no other", not wrong,
              wrong[:9])

    # The page as a person sees it, with a message and a banner put up while it
    # is open, so that their events show in its log.
    browser.call("Page.navigate", url=f"http://{f.host}/?token={f.token}")
    wait_until(lambda: browser.eval("document.getElementById('status').className === 'live'"), 10)
    text = {"content": "Hello from the chat 👋 你好", "style": {"fontSize": 28, "outline": True,
            "outlineWidth": 2}, "at": [0, 0], "clip": [0, 0, 1100, 52]}
    ombrel = {"text": "MVP 🏆", "fontSize": 20, "caps": "../../data/demo/caps.png",
              "middle": "../../data/demo/middle.png", "rect": [520, 300, 760, 360]}
    reply = f.call("POST", "/actions", [{"do": "banners", "ombrel": ombrel}, {
        "do": "add", "subtitle": {"id": "hello", "group": "chat", "at": [60, 580], "items": [
            {"text": text, "plate": {"color": "#14202C", "opacity": 72}, "plays": 0}]}}])
    check("the page shows the preview, a message and a banner added through the API",
          reply.json.get("results") == [{"ok": True}] * 2 and wait_until(lambda: browser.eval(
              "['#nopreview[hidden]', '#subtitles li[data-id=hello]', '#banners textarea']"
              ".every(s => document.querySelector(s))"), 15), reply.body)
    time.sleep(1)  # a couple more frames and events in the log
    png = base64.b64decode(browser.call("Page.captureScreenshot", format="png")["data"])
    check("a 1280x900 screenshot of the page", png[12:24] == b"IHDR\0\0\5\0\0\0\3\x84", png[:24])
    if os.environ.get("LUMETS_UPDATE_SCREENSHOT") == "1":
        with open(SHOT, "wb") as out:
            print("wrote", os.path.normpath(SHOT), out.write(png), "bytes")
    # The banner's fields: a new text sent back with the rest of the banner, then down.
    state = lambda: f.call("GET", "/state").json["banners"]["ombrel"]  # noqa: E731
    browser.eval("(f => { f.querySelector('textarea').value = 'MVP 冠军'; f.querySelector("
                 "'button.primary').click(); })(document.querySelector('#banners fieldset'))")
    edited = wait_until(lambda: (state() or {}).get("text") == "MVP 冠军", 5)
    browser.eval("document.querySelector('#banners fieldset button.danger').click()")
    check("its form's Update sends the edited banner text; Take down takes it down",
          edited and wait_until(lambda: state() is None, 5), state())


if __name__ == "__main__":
    if not (chromium := shutil.which("chromium") or shutil.which("chromium-browser")):
        print("skipped: chromium is not installed (apt-get install chromium)")
        sys.exit(77)
    f = Filter(sys.argv[1], sys.argv[2], 1280, 720, keep=None,  # drawn in the top 240 rows?
               look=lambda frame: frame[:1280 * 3 * 240].count(b"\x80") != 1280 * 3 * 240)
    with tempfile.TemporaryDirectory(prefix="lumets-page-") as profile:
        browser = Browser(chromium, profile)
        try:
            run(f, browser)
        except RuntimeError as e:
            check("Chromium answers", False, e)
        finally:
            os.killpg(browser.proc.pid, signal.SIGKILL)
            browser.proc.wait(10)
    f.close(10)
    sys.exit(summary())
