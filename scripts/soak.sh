#!/usr/bin/env bash
# Soak run (not part of CI): 8 cameras on the camera simulator, each
# recording 720p H.264 in 60 s segments with motion detection and motion
# recordings on, for 30 minutes; then checks that
#   - every recording is playable (all packets demux, first and last two
#     seconds decode without error, the first packet is a key frame),
#   - consecutive recordings of a camera leave no gap longer than one GOP
#     (1 s here; file names give start times to the second, so 2 s is
#     allowed per boundary), and no more is missing overall,
#   - resident memory stays flat (within 5 % between the early and the late
#     part of the run),
#   - descriptors and threads do not grow.
#
#   bash scripts/soak.sh
#   CAMCTL_SOAK_MINUTES=5 CAMCTL_SOAK_CAMERAS=4 bash scripts/soak.sh   (shorter)
#
# Results: <build>/soak-<time>/ with samples.csv, summary.txt, report.txt.
set -euo pipefail
cd "$(dirname "$0")/.."

CAMERAS=${CAMCTL_SOAK_CAMERAS:-8}
MINUTES=${CAMCTL_SOAK_MINUTES:-30}
SEGMENT=${CAMCTL_SOAK_SEGMENT:-60}
BUILD=${CAMCTL_SOAK_BUILD:-build}
OUT=${CAMCTL_SOAK_OUT:-$BUILD/soak-$(date +%Y%m%d-%H%M%S)}

cmake -S . -B "$BUILD" -DCAMCTL_BENCH=ON -DCAMCTL_TESTS=ON >/dev/null
cmake --build "$BUILD" -j "${CAMCTL_JOBS:-2}" --target camctl_soak >/dev/null
mkdir -p "$OUT"
OUT=$(cd "$OUT" && pwd)
echo "soak: $CAMERAS cameras, $MINUTES min, $SEGMENT s segments -> $OUT"
(cd "$OUT" && "$OLDPWD/$BUILD/bench/camctl_soak" --out "$OUT" --cameras "$CAMERAS" --minutes "$MINUTES" \
   --segment "$SEGMENT" 2>"$OUT/stderr.log")

python3 - "$OUT" <<'PY'
import csv, os, re, statistics, subprocess, sys

out = sys.argv[1]
summary = dict(l.strip().split("=", 1) for l in open(os.path.join(out, "summary.txt")) if "=" in l)
rows = list(csv.DictReader(open(os.path.join(out, "samples.csv"))))
report = []
ok = True

def say(line, good=True):
    global ok
    ok = ok and good
    report.append(("PASS " if good else "FAIL ") + line)

def run(cmd):
    p = subprocess.run(cmd, capture_output=True, text=True)
    return p.returncode, p.stdout, p.stderr

# Recordings, per camera, in order of their start time.
fps, gop = 25.0, 25
name_re = re.compile(r"_(\d{8})-(\d{6})_(\d+)_(\d+)\.avi$")
files_by_cam = {}
for root, _, files in os.walk(os.path.join(out, "recordings")):
    for f in files:
        if f.endswith(".avi"):
            cam = f.split("_")[0]
            files_by_cam.setdefault(cam, []).append(os.path.join(root, f))
total_files = sum(len(v) for v in files_by_cam.values())
bad, gaps, worst_gap, missing_total, boundaries = [], [], 0.0, 0, 0
import datetime
for cam, files in sorted(files_by_cam.items()):
    segs = []
    for f in files:
        m = name_re.search(f)
        if not m:
            bad.append(f + " (unfinished: no length in its name)")
            continue
        start = datetime.datetime.strptime(m.group(1) + m.group(2), "%Y%m%d%H%M%S").timestamp()
        rc, so, se = run(["ffprobe", "-v", "error", "-select_streams", "v", "-count_packets",
                          "-show_entries", "stream=nb_read_packets", "-of", "csv=p=0", f])
        packets = int(so.strip() or 0) if rc == 0 else 0
        rc1, _, e1 = run(["ffmpeg", "-v", "error", "-nostdin", "-i", f, "-t", "2", "-f", "null", "-"])
        rc2, _, e2 = run(["ffmpeg", "-v", "error", "-nostdin", "-sseof", "-2", "-i", f, "-f", "null", "-"])
        _, first, _ = run(["ffprobe", "-v", "error", "-select_streams", "v", "-show_entries", "packet=flags",
                           "-read_intervals", "%+#1", "-of", "csv=p=0", f])
        if rc or packets < 1 or rc1 or rc2 or e1.strip() or e2.strip() or not first.startswith("K"):
            bad.append(f"{f} (packets {packets}, errors: {(se + e1 + e2).strip()[:200]!r}, first {first.strip()!r})")
        segs.append((start, packets, f))
    segs.sort()
    for (s0, n0, f0), (s1, _, f1) in zip(segs, segs[1:]):
        gap = s1 - (s0 + n0 / fps)
        boundaries += 1
        worst_gap = max(worst_gap, gap)
        if gap > gop / fps + 1.0:
            gaps.append(f"{os.path.basename(f0)} -> {os.path.basename(f1)}: {gap:.1f} s")
    if segs:
        span = int(summary["record_stop"]) - int(summary["record_start"])
        recorded = sum(n for _, n, _ in segs)
        missing_total += max(0, int(span * fps) - recorded)
say(f"{total_files} recordings of {len(files_by_cam)} cameras, all playable" if not bad
    else f"{len(bad)} of {total_files} recordings not playable: " + "; ".join(bad[:5]), not bad and total_files > 0)
say(f"largest gap between consecutive recordings {worst_gap:.2f} s over {boundaries} boundaries "
    f"(allowed {gop / fps + 1.0:.1f} s: one GOP plus the file names' 1 s resolution)"
    + ("" if not gaps else "; too long: " + "; ".join(gaps[:5])), not gaps)
allowed_missing = gop * (boundaries + 2 * len(files_by_cam))
say(f"pictures missing from the recordings overall: {missing_total} (allowed {allowed_missing}: one GOP per "
    "boundary, plus the wait for the first key frame and the last second per camera)",
    missing_total <= allowed_missing)

# Memory, descriptors, threads: the early part (20-40 % of the run, past the
# warm-up) against the last 20 %.
n = len(rows)
early = rows[int(n * 0.2): max(int(n * 0.4), int(n * 0.2) + 1)]
late = rows[int(n * 0.8):]
def med(rs, k):
    return statistics.median(float(r[k]) for r in rs)
rss0, rss1 = med(early, "rss_kb"), med(late, "rss_kb")
drift = (rss1 - rss0) / rss0
say(f"RSS {rss0 / 1024:.1f} MB early, {rss1 / 1024:.1f} MB late: {drift * 100:+.1f} % (allowed +-5 %); "
    f"range over the run {min(float(r['rss_kb']) for r in rows) / 1024:.1f}-"
    f"{max(float(r['rss_kb']) for r in rows) / 1024:.1f} MB", abs(drift) <= 0.05)
fd0, fd1 = med(early, "fds"), med(late, "fds")
say(f"descriptors {fd0:.0f} early, {fd1:.0f} late (max {max(int(r['fds']) for r in rows)})", fd1 <= fd0 + 1)
th0, th1 = med(early, "threads"), med(late, "threads")
say(f"threads {th0:.0f} early, {th1:.0f} late", th1 <= th0)
say(f"delivered {float(summary['fps_per_camera']):.2f} pictures per second per camera over "
    f"{float(summary['seconds']):.0f} s (informational)", True)
snapshots = sum(1 for root, _, fs in os.walk(os.path.join(out, "recordings")) for f in fs if f.endswith(".jpg"))
say(f"motion snapshots taken: {snapshots} (informational: the clip moves 20 s of every 60 s)", True)
flushes = sum(1 for l in open(os.path.join(out, "stderr.log"), errors="replace") if "GetAVPktListElmCount" in l)
say(f"live-queue flushes: {flushes} (informational: decoding fell behind on a shared machine)", True)

text = "\n".join(report) + "\n" + ("soak: PASSED" if ok else "soak: FAILED") + "\n"
open(os.path.join(out, "report.txt"), "w").write(text)
print(text, end="")
sys.exit(0 if ok else 1)
PY
