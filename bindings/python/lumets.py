"""Lumets scenes from Python, through the scene library's C interface.

    with lumets.Scene.open("ticker.json") as scene:
        frame = bytearray(1280 * 720 * 4)
        scene.render(1500, frame, 1280, 720, "bgra")
        print(scene.state())

The library is LUMETS_LIBRARY (a path) when set, else liblumets_scene.so.1
as the dynamic loader finds it. Every failure of the library is a
LumetsError carrying its status and message.
"""

import ctypes
import ctypes.util
import json
import os
from typing import NamedTuple

__all__ = ["LumetsError", "Scene", "SceneInfo", "FORMATS"]

# Status values of lumets_status.
OK, ERROR_ARGUMENT, ERROR_FRAME, ERROR_SCENE = 0, 1, 2, 3
ERROR_ACTION, ERROR_GL, ERROR_MEMORY, ERROR_INTERNAL = 4, 5, 6, 7

# Name -> (lumets_format, bytes per pixel).
FORMATS = {"bgr24": (1, 3), "rgb24": (2, 3), "bgrx": (3, 4),
           "bgra": (4, 4), "rgbx": (5, 4), "rgba": (6, 4)}
FRAME_BOTTOM_UP = 1


class LumetsError(Exception):
    """A call into the library failed; .status is its lumets_status."""

    def __init__(self, status, message):
        super().__init__(f"{message} (status {status})" if message else f"status {status}")
        self.status = status
        self.message = message


class SceneInfo(NamedTuple):
    width: int
    height: int
    fps: float
    duration: float  # seconds


class _Info(ctypes.Structure):
    _fields_ = [("width", ctypes.c_int32), ("height", ctypes.c_int32),
                ("fps", ctypes.c_double), ("duration_s", ctypes.c_double)]


class _Frame(ctypes.Structure):
    _fields_ = [("data", ctypes.c_void_p), ("width", ctypes.c_int32),
                ("height", ctypes.c_int32), ("stride", ctypes.c_int64),
                ("format", ctypes.c_int32), ("flags", ctypes.c_uint32)]


def _load():
    path = os.environ.get("LUMETS_LIBRARY")
    try:
        lib = ctypes.CDLL(path or "liblumets_scene.so.1")
    except OSError:
        found = None if path else ctypes.util.find_library("lumets_scene")
        if not found:
            raise
        lib = ctypes.CDLL(found)
    P, S, I = ctypes.POINTER, ctypes.c_size_t, ctypes.c_int
    handle = ctypes.c_void_p
    for name, res, args in [
            ("lumets_last_error", ctypes.c_char_p, []),
            ("lumets_scene_open_file", I, [ctypes.c_char_p, P(handle)]),
            ("lumets_scene_open_string", I, [ctypes.c_char_p, S, ctypes.c_char_p,
                                             ctypes.c_char_p, P(handle)]),
            ("lumets_scene_close", None, [handle]),
            ("lumets_scene_get_info", I, [handle, P(_Info)]),
            ("lumets_scene_apply", I, [handle, ctypes.c_char_p, S]),
            ("lumets_scene_render", I, [handle, ctypes.c_int64, P(_Frame)]),
            ("lumets_scene_render_gl", I, [handle, ctypes.c_int64, ctypes.c_int32,
                                           ctypes.c_int32]),
            # A void pointer, not c_char_p: the text must reach lumets_free.
            ("lumets_scene_state", I, [handle, P(ctypes.c_void_p)]),
            ("lumets_free", None, [ctypes.c_void_p])]:
        function = getattr(lib, name)
        function.restype, function.argtypes = res, args
    return lib


_lib = _load()


def _check(status):
    # The message is thread-local in the library, and ctypes calls run on
    # the calling thread, so it is read before anything else calls in.
    if status != OK:
        raw = _lib.lumets_last_error() or b""
        raise LumetsError(status, raw.decode("utf-8", "replace"))


def _path(value):
    return None if value is None else os.fsencode(value)


class Scene:
    """One scene on a clock of its own. Close it, or use it in a with block."""

    def __init__(self, handle):
        self._handle = handle
        self._close = _lib.lumets_scene_close  # still reachable at interpreter exit

    @classmethod
    def open(cls, path):
        handle = ctypes.c_void_p()
        _check(_lib.lumets_scene_open_file(os.fsencode(path), ctypes.byref(handle)))
        return cls(handle)

    @classmethod
    def from_string(cls, text, name=None, base_dir=None):
        data = text.encode("utf-8") if isinstance(text, str) else bytes(text)
        handle = ctypes.c_void_p()
        _check(_lib.lumets_scene_open_string(data, len(data), _path(name), _path(base_dir),
                                             ctypes.byref(handle)))
        return cls(handle)

    def close(self):
        handle, self._handle = getattr(self, "_handle", None), None
        if handle:
            self._close(handle)

    __del__ = close

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.close()

    def _live(self):
        if not self._handle:
            raise ValueError("the scene is closed")
        return self._handle

    @property
    def info(self):
        info = _Info()
        _check(_lib.lumets_scene_get_info(self._live(), ctypes.byref(info)))
        return SceneInfo(info.width, info.height, info.fps, info.duration_s)

    def apply(self, action):
        """Applies one action now: a dict, or its JSON text."""
        data = (action if isinstance(action, str) else json.dumps(action)).encode("utf-8")
        _check(_lib.lumets_scene_apply(self._live(), data, len(data)))

    def render(self, time_ms, frame, width, height, format="bgra", stride=None, bottom_up=False):
        """Composites the scene at time_ms into frame, any writable buffer."""
        try:
            code, pixel = FORMATS[format]
        except KeyError:
            raise ValueError(f"unknown format {format!r}; one of {', '.join(FORMATS)}") from None
        if not (0 < width < 2**31 and 0 < height < 2**31):
            raise ValueError(f"the frame is {width}x{height}; both sides must be positive")
        stride = width * pixel if stride is None else stride
        if stride < width * pixel:
            raise ValueError(f"a stride of {stride} bytes cannot hold a row of "
                             f"{width * pixel} bytes")
        view = memoryview(frame).cast("B")
        need = (height - 1) * stride + width * pixel
        if view.readonly or view.nbytes < need:
            raise ValueError(f"the frame needs {need} writable bytes; the buffer has "
                             f"{view.nbytes}{' (read-only)' if view.readonly else ''}")
        # from_buffer pins the buffer (a bytearray cannot be resized) until
        # the view is released.
        pixels = (ctypes.c_char * view.nbytes).from_buffer(view)
        try:
            desc = _Frame(ctypes.addressof(pixels), width, height, stride, code,
                          FRAME_BOTTOM_UP if bottom_up else 0)
            _check(_lib.lumets_scene_render(self._live(), int(time_ms), ctypes.byref(desc)))
        finally:
            del pixels
            view.release()

    def state(self):
        """What plays now: {"time_ms": T, "subtitles": [{"id", "group", "rect"}]}."""
        text = ctypes.c_void_p()
        _check(_lib.lumets_scene_state(self._live(), ctypes.byref(text)))
        try:
            return json.loads(ctypes.string_at(text.value).decode("utf-8"))
        finally:
            _lib.lumets_free(text)
