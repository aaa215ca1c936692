#!/usr/bin/python3
"""A 2 x 2 grid of four cameras' newest pictures, refreshed about 5 times a second.

    python3 grid.py URL1 URL2 URL3 URL4

Shown in an OpenCV window if cv2 is installed, else written to grid.ppm.
"""
import sys

import numpy as np

import camctl

try:
    import cv2
except ImportError:
    cv2 = None

CELL_W, CELL_H = 640, 360
urls = (sys.argv[1:] + ["rtsp://192.168.1.%d/stream1" % i for i in range(10, 14)])[:4]


def fit(image):
    """Nearest-neighbour scaling into one grid cell."""
    h, w = image.shape[:2]
    return image[(np.arange(CELL_H) * h // CELL_H)[:, None], np.arange(CELL_W) * w // CELL_W]


cams = [camctl.Camera(url, name="cam%d" % i) for i, url in enumerate(urls)]
for cam in cams:
    try:
        cam.open()
    except camctl.OpenError as e:
        print(e, file=sys.stderr)
grid = np.zeros((2 * CELL_H, 2 * CELL_W, 3), np.uint8)
try:
    while True:
        for i, cam in enumerate(cams):
            pic = None if cam.closed else cam.latest(timeout=0.2)  # never a stale picture
            if pic is not None:
                y, x = divmod(i, 2)
                grid[y * CELL_H:(y + 1) * CELL_H, x * CELL_W:(x + 1) * CELL_W] = fit(pic.image)
        if cv2:
            cv2.imshow("grid", grid)
            if cv2.waitKey(1) in (27, ord("q")):
                break
        else:
            with open("grid.ppm", "wb") as f:
                f.write(b"P6 %d %d 255\n" % (grid.shape[1], grid.shape[0]) + grid[:, :, ::-1].tobytes())
except KeyboardInterrupt:
    pass
finally:
    for cam in cams:
        cam.close()
