"""The camctl module against the camera simulator and an RTSP server."""
import gc
import glob
import os
import re
import signal
import subprocess
import sys
import threading
import time

import camctl
import numpy as np
import pytest

WAIT = 30  # seconds: generous deadline for any single event


@pytest.mark.parametrize("yuv", [False, True])
def test_card_shape_colours_audio(rtsp, tmp_path, yuv):
    rates = []
    audio = threading.Event()

    def on_audio(samples, rate):
        assert samples.dtype == np.int16 and samples.ndim == 1
        rates.append(rate)
        audio.set()

    with camctl.Camera(rtsp + "/card", save_dir=str(tmp_path), yuv=yuv) as cam:
        cam.on_audio(on_audio)
        pic = cam.latest(WAIT)
        assert (cam.codec, cam.size, pic.format) == ("H.264", (320, 240), "i420" if yuv else "bgr")
        # The upper two thirds: white, yellow, cyan, green, magenta, red, blue bars.
        bars = [(pic.planes[0] if yuv else pic.image)[60, int((i + 0.5) * 320 / 7)] for i in range(7)]
        if yuv:
            assert pic.image.shape == (360, 320) and pic.planes[1].shape == (120, 160)
            assert bars[0] > 150 and bars[6] < 60
        else:
            assert pic.image.shape == (240, 320, 3) and np.asarray(pic).dtype == np.uint8
            lit = [tuple(int(c > 128) for c in bgr) for bgr in bars]
            assert lit == [(1, 1, 1), (0, 1, 1), (1, 1, 0), (0, 1, 0), (1, 0, 1), (0, 0, 1), (1, 0, 0)]
        assert audio.wait(WAIT) and set(rates) == {8000} and cam.audio_rate == 8000


def test_latest_is_newest(camsim, tmp_path):
    seen = []
    ten_more = threading.Event()
    with camctl.Camera(camsim(), save_dir=str(tmp_path)) as cam:
        first = cam.latest(WAIT)
        cam.on_picture(lambda pic: (seen.append(pic.seq), len(seen) >= 10 and ten_more.set()))
        assert ten_more.wait(WAIT)
        newest = max(seen)
        pic = cam.latest(WAIT)
        assert pic.seq >= newest > first.seq
        assert [p.seq > pic.seq for p in (cam.latest(WAIT), cam.latest(WAIT))] == [True, True]


def test_sub_stream_decoded_instead(camsim, tmp_path):
    with camctl.Camera(camsim(), sub_url=camsim("--size", "320x240"), save_dir=str(tmp_path)) as cam:
        assert cam.latest(WAIT).width == 640
        cam.decode(sub=True)
        sizes = {(p.width, p.height) for p in (cam.latest(WAIT) for _ in range(10))}  # a few from before
        assert (320, 240) in sizes and cam.latest(WAIT).width == 320


def test_recording_and_snapshot_files(camsim, tmp_path):
    with camctl.Camera(camsim(), name="door", save_dir=str(tmp_path)) as cam:
        folder = cam.save_dir
        assert folder.startswith(str(tmp_path / "VMS" / "door+"))
        writing = cam.record()
        assert writing.startswith(folder + "/MS_Record/") and writing.endswith("_1.avi")
        for _ in range(30):
            assert cam.latest(WAIT)
        cam.snapshot()
        cam.latest(WAIT), cam.latest(WAIT)  # the second began after the request
        done = cam.stop_record()
    assert re.fullmatch(re.escape(writing[:-4]) + r"_\d+\.avi", done) and os.path.getsize(done) > 0
    jpegs = glob.glob(folder + "/IMAGE-MANUAL/*/door_*_1_*.jpg")
    assert len(jpegs) == 1 and open(jpegs[0], "rb").read(2) == b"\xff\xd8"


def test_motion_events(camsim, tmp_path):
    events = []
    moved = threading.Event()
    with camctl.Camera(camsim("--scene-switch", "10"), save_dir=str(tmp_path)) as cam:
        cam.on_motion(lambda e: (events.append(e), e.result == 1 and moved.set()))
        cam.motion(True, level=2)
        assert moved.wait(WAIT)
        e = next(e for e in events if e.result == 1)
        assert 0 <= e.cell[0] < 32 and 0 <= e.cell[1] < 24 and e.seq > 0


def test_close_from_callback_and_other_thread(camsim, tmp_path):
    cam = camctl.Camera(camsim(), save_dir=str(tmp_path))
    closed = threading.Event()
    cam.on_picture(lambda pic: (cam.close(), closed.set()))
    cam.open()
    assert closed.wait(WAIT) and cam.closed and cam.latest(WAIT) is None
    busy = threading.Event()
    cam.on_picture(lambda pic: (sum(range(1000)), busy.set()))
    cam.open()  # waits for the close the callback started
    assert busy.wait(WAIT)
    closer = threading.Thread(target=cam.close)
    closer.start()
    closer.join(WAIT)
    assert not closer.is_alive() and cam.closed


def test_ctrl_c_during_pictures(camsim, tmp_path):
    code = ("import camctl\ncam = camctl.Camera(%r, save_dir=%r)\ntry:\n"
            "    with cam:\n        for pic in cam.pictures():\n            print(pic.seq, flush=True)\n"
            "except KeyboardInterrupt:\n    print('interrupted', cam.closed, flush=True)\n") % (camsim(), str(tmp_path))
    p = subprocess.Popen([sys.executable, "-c", code], stdout=subprocess.PIPE, text=True)
    assert p.stdout.readline().strip().isdigit()
    p.send_signal(signal.SIGINT)
    out, _ = p.communicate(timeout=WAIT)
    assert p.returncode == 0 and out.splitlines()[-1] == "interrupted True"


def test_no_leaks_over_1000_pictures(camsim, tmp_path):
    def rss_kib():
        return int(open("/proc/self/statm").read().split()[1]) * os.sysconf("SC_PAGESIZE") // 1024

    def on_picture(pic):
        pic.image[0, 0]

    live = camctl._live_pictures()
    with camctl.Camera(camsim("--speed", "0"), save_dir=str(tmp_path)) as cam:
        cam.on_picture(on_picture)
        for i, pic in enumerate(cam.pictures(timeout=WAIT)):
            pic.image.sum()
            if i == 100:
                refs, rss = sys.getrefcount(on_picture), rss_kib()
            if i == 1000:
                break
        assert i == 1000 and sys.getrefcount(on_picture) == refs
        assert rss_kib() - rss < 16 * 1024
        del pic
    del cam
    # A picture the decoding thread was handing over while the camera closed
    # is released when its last Python reference goes; a leak never is.
    deadline = time.monotonic() + WAIT
    while camctl._live_pictures() != live and time.monotonic() < deadline:
        gc.collect()
        time.sleep(0.05)
    assert camctl._live_pictures() == live


def test_player(tmp_path):
    clip = str(tmp_path / "clip.avi")
    subprocess.run(["ffmpeg", "-v", "error", "-f", "lavfi", "-i", "testsrc=size=320x240:rate=25", "-t", "2",
                    "-c:v", "libx264", "-pix_fmt", "yuv420p", clip], check=True)
    with camctl.Player(clip) as player:
        assert player.play(3.0) == 4.0  # the nearest speed level
        pics = list(player.pictures(timeout=WAIT))
        assert pics and pics[-1].image.shape == (240, 320, 3) and player.finished
    assert player.closed
    with pytest.raises(camctl.NotFoundError):
        camctl.Player(str(tmp_path / "missing.avi")).play()


@pytest.mark.parametrize("source,error", [
    ("rtsp://127.0.0.1:1/none", camctl.UnreachableError),
    ("nosuch://127.0.0.1/x", camctl.BadUrlError),
    ("/nonexistent/clip.avi", camctl.NotFoundError),
    ("{rtsp}/missing", camctl.NotFoundError),
    ("{rtsp}/locked", camctl.CredentialsError),
    ("rtsp://user:wrong@{host}/locked", camctl.CredentialsError),
])
def test_open_errors(rtsp, tmp_path, source, error):
    source = source.format(rtsp=rtsp, host=rtsp[len("rtsp://"):])
    with pytest.raises(error) as e:
        camctl.Camera(source, save_dir=str(tmp_path)).open()
    assert e.value.reason_name in str(e.value) and e.value.url in str(e.value)
    assert "wrong" not in str(e.value) + e.value.detail
