# The Python module over the scene library, used as an embedder would.
import os
import subprocess
import sys
import unittest

ROOT = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..")
sys.path.insert(0, os.path.join(ROOT, "bindings", "python"))
import lumets  # noqa: E402

TICKER = os.path.join(ROOT, "docs", "examples", "ticker.json")


class BindingTest(unittest.TestCase):
    def test_example_runs(self):
        run = subprocess.run([sys.executable, os.path.join(ROOT, "bindings/python/example.py")],
                             capture_output=True, text=True, timeout=120)
        self.assertEqual(run.returncode, 0, run.stderr)
        self.assertIn("playing 'ticker'", run.stdout)

    def test_formats_agree_and_alpha_is_kept(self):
        w, h = 640, 360  # half the layout width: drawn scaled
        bgra, bgr = bytearray(b"\x5a" * (w * h * 4)), bytearray(b"\x5a" * (w * h * 3))
        with lumets.Scene.open(TICKER) as scene:
            scene.render(1500, bgra, w, h, "bgra")
            scene.render(1500, memoryview(bgr), w, h, "bgr24")
        self.assertEqual([bgra[c::4] for c in range(3)], [bgr[c::3] for c in range(3)])
        self.assertEqual(bgra[3::4], b"\x5a" * (w * h))
        self.assertNotEqual(bgr, b"\x5a" * len(bgr))  # something was drawn

    def test_bottom_up_with_padded_rows(self):
        w, h, stride = 320, 180, 320 * 3 + 7
        top, up = bytearray(stride * h), bytearray(stride * h)
        with lumets.Scene.open(TICKER) as scene:
            scene.render(2000, top, w, h, "rgb24", stride=stride)
            scene.render(2000, up, w, h, "rgb24", stride=stride, bottom_up=True)
        rows = [top[r * stride:(r + 1) * stride] for r in range(h)]
        self.assertEqual(b"".join(reversed(rows)), up)
        self.assertTrue(all(row[w * 3:] == b"\0" * 7 for row in rows))

    def test_errors_carry_status_and_message(self):
        with self.assertRaises(lumets.LumetsError) as caught:
            lumets.Scene.from_string('{"size": [1280, 720],\n "fps": }', name="bad.json")
        self.assertEqual(caught.exception.status, lumets.ERROR_SCENE)
        self.assertRegex(str(caught.exception), r"bad\.json:2:\d+")
        with lumets.Scene.from_string('{"size": [320, 180]}') as scene:
            with self.assertRaises(lumets.LumetsError) as caught:
                scene.apply({"do": "remove", "id": "nobody"})
            self.assertEqual(caught.exception.status, lumets.ERROR_ACTION)
            self.assertRaises(ValueError, scene.render, 0, bytearray(320 * 180 * 4 - 1), 320, 180)


if __name__ == "__main__":
    unittest.main()
