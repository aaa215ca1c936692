#!/usr/bin/python3
"""Records a camera while it sees motion, printing every motion event.

    python3 record_on_motion.py rtsp://192.168.1.10/stream1 ./recordings

The camera's detector records about 5 s per motion event (reason 2) below
./recordings/VMS/<name>+<id>/MS_Record/; Ctrl-C ends it, finishing the file.
"""
import datetime
import sys
import threading

import camctl

url = sys.argv[1] if len(sys.argv) > 1 else "rtsp://192.168.1.10/stream1"
out = sys.argv[2] if len(sys.argv) > 2 else "."


def on_motion(event):
    when = datetime.datetime.fromtimestamp(event.time).strftime("%H:%M:%S.%f")[:-3]
    print(when, "motion" if event.result == 1 else "motion again", "in cell", event.cell, flush=True)


with camctl.Camera(url, name="yard", save_dir=out) as cam:
    cam.on_motion(on_motion)
    cam.motion(True, level=1)  # a map (24 x 32, rows x columns) can limit the cells watched
    print("recording on motion below", cam.save_dir, "(Ctrl-C ends)")
    try:
        threading.Event().wait()
    except KeyboardInterrupt:
        pass
