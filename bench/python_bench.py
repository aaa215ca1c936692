#!/usr/bin/python3
"""The Python module against a C++ host, on the same 1080p camera.

  python_bench.py BUILD OUTDIR [SECONDS] [ROUNDS]

Serves a 1080p H.264 clip (25 fps, real time) with the simulator and runs,
one after the other, for SECONDS each (default 10), ROUNDS times (default 3,
alternating C++ and Python so that load changes hit both), measured in the
host process from its first picture:
  callback  pictures to a C++ callback (build/bench/camctl_callback_host)
            vs to a Python callback (camctl.Camera.on_picture);
  latest    a C++ host thread taking the newest picture from a one-picture
            slot vs Python's `for pic in cam.pictures()` (latest()).
Writes OUTDIR/python_bench.json (benchmark-style rows, medians over the
rounds: cpu_ms_per_picture, pictures_per_s, age_ms; ratio: the median of
the rounds' Python/C++ ratios) and prints a summary.
"""
import json
import os
import statistics
import subprocess
import sys

PY_HOST = r'''
import resource, sys, time
import camctl
url, seconds, mode = sys.argv[1], float(sys.argv[2]), sys.argv[3]
def cpu():
    r = resource.getrusage(resource.RUSAGE_SELF)
    return r.ru_utime + r.ru_stime
count = [0]
def on_picture(pic):
    pic.image
    count[0] += 1
with camctl.Camera(url, name="bench") as cam:
    if mode == "callback":
        cam.on_picture(on_picture)
    cam.latest(30)
    n0, c0, t0 = count[0], cpu(), time.monotonic()
    ages = []
    if mode == "callback":
        time.sleep(seconds)
        n = count[0] - n0
    else:
        for pic in cam.pictures(timeout=5):
            pic.image
            ages.append((time.time() - pic.time) * 1000)
            if time.monotonic() - t0 >= seconds:
                break
        n = len(ages)
    print("pictures %d cpu %.3f wall %.3f age_ms %.2f age_max_ms %.2f" % (
        n, cpu() - c0, time.monotonic() - t0, sum(ages) / len(ages) if ages else 0, max(ages or [0])))
'''


def run(cmd, env=None):
    out = subprocess.run(cmd, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True, env=env,
                         timeout=300).stdout.split()
    v = dict(zip(out[0::2], map(float, out[1::2])))
    v["cpu_ms_per_picture"] = 1000 * v["cpu"] / max(v["pictures"], 1)
    v["pictures_per_s"] = v["pictures"] / v["wall"]
    v["cpu_pct"] = 100 * v["cpu"] / v["wall"]
    return v


def main(argv):
    build, outdir = argv[1], argv[2]
    seconds = argv[3] if len(argv) > 3 else "10"
    rounds = int(argv[4]) if len(argv) > 4 else 3
    os.makedirs(outdir, exist_ok=True)
    clip = os.path.join(outdir, "python_1080p.mp4")
    if not os.path.exists(clip):
        subprocess.run(["ffmpeg", "-v", "error", "-y", "-f", "lavfi", "-i", "testsrc2=size=1920x1080:rate=25",
                        "-t", "10", "-c:v", "libx264", "-preset", "veryfast", "-g", "25", "-pix_fmt", "yuv420p",
                        clip], check=True)
    sim = subprocess.Popen([os.path.join(build, "tools", "camsim"), "--port", "0", "--file", clip],
                           stdout=subprocess.PIPE, text=True)
    url = sim.stdout.readline().split()[-1]
    env = dict(os.environ, PYTHONPATH=os.path.join(build, "python"))
    rows = []
    try:
        for mode in ("callback", "latest"):
            runs = [(run([os.path.join(build, "bench", "camctl_callback_host"), url, seconds, mode]),
                     run([sys.executable, "-c", PY_HOST, url, seconds, mode], env)) for _ in range(rounds)]
            med = [{k: statistics.median(r[i][k] for r in runs) for k in runs[0][i]} for i in (0, 1)]
            # Callbacks see every picture: CPU per picture. latest() skips what
            # it was too slow for: CPU per second of the same camera.
            key = "cpu_ms_per_picture" if mode == "callback" else "cpu_pct"
            ratios = [py[key] / cpp[key] for cpp, py in runs]
            ratio = statistics.median(ratios)
            for who, v in zip(("Cpp", "Python"), med):
                rows.append(dict(name="BM_%s%s1080p" % (who, mode.capitalize()), ratio=ratio, **v))
            print("python_bench: %-8s C++ %.2f ms/picture %.1f %% core (%.1f/s, age %.1f ms max %.1f)  "
                  "Python %.2f ms/picture %.1f %% core (%.1f/s, age %.1f ms max %.1f)  %s ratio %.3f (rounds: %s)" % (
                      mode, med[0]["cpu_ms_per_picture"], med[0]["cpu_pct"], med[0]["pictures_per_s"],
                      med[0]["age_ms"], med[0]["age_max_ms"], med[1]["cpu_ms_per_picture"], med[1]["cpu_pct"],
                      med[1]["pictures_per_s"], med[1]["age_ms"], med[1]["age_max_ms"], key, ratio,
                      " ".join("%.3f" % r for r in ratios)))
    finally:
        sim.terminate()
        sim.wait()
    with open(os.path.join(outdir, "python_bench.json"), "w") as f:
        json.dump({"benchmarks": rows}, f, indent=1)
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv))
