"""Servers for the Python module's tests: the camera simulator and GStreamer's RTSP server."""
import os
import pathlib
import subprocess
import sys
import time

import pytest

ROOT = pathlib.Path(__file__).resolve().parents[2]
BUILD = pathlib.Path(os.environ.get("CAMCTL_BINARY_DIR", ROOT / "build"))
# SMPTE bars, 320x240, and a G.711 tone at 8000 Hz.
CARD = ("( videotestsrc is-live=true pattern=smpte ! video/x-raw,width=320,height=240,framerate=25/1"
        " ! x264enc tune=zerolatency speed-preset=ultrafast key-int-max=25 ! rtph264pay name=pay0 pt=96"
        " config-interval=1 audiotestsrc is-live=true wave=sine ! audio/x-raw,rate=8000,channels=1"
        " ! mulawenc ! rtppcmupay name=pay1 )")


@pytest.fixture
def camsim():
    """start(*options) serves the generated picture and returns its URL."""
    procs = []

    def start(*options):
        p = subprocess.Popen([str(BUILD / "tools" / "camsim"), "--port", "0", *options],
                             stdout=subprocess.PIPE, text=True)
        procs.append(p)
        line = p.stdout.readline()  # printed once it listens
        assert line.startswith("camsim: serving "), line
        return line.split()[-1]

    yield start
    for p in procs:
        p.terminate()
        p.wait()


@pytest.fixture(scope="session")
def rtsp(tmp_path_factory):
    """rtsp://127.0.0.1:PORT serving /card, and /locked (basic, user "user", password "secret")."""
    port_file = tmp_path_factory.mktemp("rtsp") / "port"
    p = subprocess.Popen([sys.executable, str(ROOT / "tests" / "support" / "rtsp_server.py"),
                          "--port-file", str(port_file), "--mount", "/card", CARD, "--mount", "/locked", CARD,
                          "--auth", "/locked", "basic", "user", "secret"])
    for _ in range(600):  # until the server has written its port
        if port_file.exists() or p.poll() is not None:
            break
        time.sleep(0.05)
    assert port_file.exists(), "the RTSP server did not start"
    yield "rtsp://127.0.0.1:%d" % int(port_file.read_text())
    p.terminate()
    p.wait()
