#!/usr/bin/python3
"""RTSP server whose pictures carry their own number, for latency figures.

Serves /stamped on 127.0.0.1: 1280x720 at 25 fps, H.264 (x264, zerolatency,
a key frame every 25 pictures). Every picture shows its number as 32 blocks
of 40x40 pixels along the top edge (bit 31 at the left; white = 1, black = 0)
on a grey background. The moment the first RTP packet of picture N leaves the
payloader is written to --send-log as "M N T" (M: the client's pipeline,
numbered from 1; T: CLOCK_MONOTONIC seconds).

  latency_server.py --port-file F --send-log L
"""
import argparse
import collections
import os
import sys
import threading
import time

import gi

gi.require_version("Gst", "1.0")
gi.require_version("GstRtspServer", "1.0")
from gi.repository import GLib, Gst, GstRtspServer  # noqa: E402

W, H, FPS, BLOCK = 1280, 720, 25, 40


def picture(n):
    y = bytearray([128]) * (W * H)
    for bit in range(32):
        value = 235 if (n >> (31 - bit)) & 1 else 16
        row = bytes([value]) * BLOCK
        for line in range(BLOCK):
            at = line * W + bit * BLOCK
            y[at:at + BLOCK] = row
    return bytes(y) + bytes([128]) * (W * H // 2)


class Stamper:
    def __init__(self, log):
        self.log = log
        self.lock = threading.Lock()
        self.media = 0

    def configure(self, _factory, media):
        pipeline = media.get_element()
        src = pipeline.get_by_name("src")
        pay = pipeline.get_by_name("pay0")
        with self.lock:
            self.media += 1
            media_id = self.media
        # Pictures in the order they were pushed; the encoder keeps that
        # order and shifts the timestamps, so each new timestamp at the
        # payloader is the next pushed picture.
        pushed = collections.deque()
        last = {"pts": None}
        # Pictures are made in real time and dropped while the pipeline
        # does not want them (before PLAY, or when it is paused).
        state = {"n": 0, "stop": False, "want": False, "started": False}

        def probe(_pad, info):
            # The payloader pushes buffer lists as well as single buffers.
            if info.type & Gst.PadProbeType.BUFFER:
                buf = info.get_buffer()
            else:
                blist = info.get_buffer_list()
                buf = blist.get(0) if blist is not None and blist.length() else None
            if buf is None or buf.pts == last["pts"] or not pushed:
                return Gst.PadProbeReturn.OK
            last["pts"] = buf.pts
            n = pushed.popleft()
            with self.lock:
                self.log.write("%d %d %.6f\n" % (media_id, n, time.monotonic()))
                self.log.flush()
            return Gst.PadProbeReturn.OK

        pay.get_static_pad("src").add_probe(Gst.PadProbeType.BUFFER | Gst.PadProbeType.BUFFER_LIST, probe)

        def feed():
            start = time.monotonic()
            while not state["stop"]:
                state["n"] += 1
                n = state["n"]
                clock = pipeline.get_clock()
                if state["want"] and clock is not None:
                    buf = Gst.Buffer.new_wrapped(picture(n))
                    # Stamped with the running time now, as a live source does.
                    buf.pts = clock.get_time() - pipeline.get_base_time()
                    buf.duration = Gst.SECOND // FPS
                    pushed.append(n)
                    if src.emit("push-buffer", buf) != Gst.FlowReturn.OK:
                        break
                delay = start + n / FPS - time.monotonic()
                if delay > 0:
                    time.sleep(delay)

        def unprepared(_media):
            state["stop"] = True

        def need(_src, _length):
            state["want"] = True
            if not state["started"]:
                state["started"] = True
                threading.Thread(target=feed, daemon=True).start()

        def enough(_src):
            state["want"] = False

        src.set_property("max-bytes", 3 * W * H * 3 // 2)
        src.connect("need-data", need)
        src.connect("enough-data", enough)
        media.connect("unprepared", unprepared)


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--port-file", required=True)
    parser.add_argument("--send-log", required=True)
    args = parser.parse_args()

    Gst.init(None)
    server = GstRtspServer.RTSPServer()
    server.set_address("127.0.0.1")
    server.set_service("0")
    factory = GstRtspServer.RTSPMediaFactory()
    factory.set_launch(
        "( appsrc name=src is-live=true format=time "
        "caps=video/x-raw,format=I420,width=%d,height=%d,framerate=%d/1 "
        "! x264enc tune=zerolatency speed-preset=ultrafast key-int-max=%d bitrate=2000 "
        "! rtph264pay name=pay0 pt=96 config-interval=-1 )" % (W, H, FPS, FPS))
    factory.set_shared(False)
    stamper = Stamper(open(args.send_log, "w"))
    factory.connect("media-configure", stamper.configure)
    server.get_mount_points().add_factory("/stamped", factory)
    if server.attach(None) == 0:
        print("latency_server: attach failed", file=sys.stderr)
        return 1
    tmp = args.port_file + ".tmp"
    with open(tmp, "w") as f:
        f.write("%d\n" % server.get_bound_port())
    os.rename(tmp, args.port_file)
    GLib.MainLoop().run()
    return 0


if __name__ == "__main__":
    sys.exit(main())
