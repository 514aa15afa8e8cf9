"""One frame of a scene into a bytearray: what the overlay drew, and what plays."""
import os
import sys

import lumets

path = sys.argv[1] if len(sys.argv) > 1 else os.path.join(
    os.path.dirname(__file__), "..", "..", "docs", "examples", "ticker.json")
with lumets.Scene.open(path) as scene:
    width, height = scene.info.width, scene.info.height
    frame = bytearray(width * height * 4)  # BGRA, all black: the picture beneath
    scene.render(1500, frame, width, height, "bgra")
    changed = sum(1 for i in range(0, len(frame), 4) if any(frame[i:i + 3]))
    print(f"at 1.5 s the overlay changed {changed} of {width * height} pixels")
    for subtitle in scene.state()["subtitles"]:
        print(f"playing {subtitle['id']!r} at {subtitle['rect']}")
