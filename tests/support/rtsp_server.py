#!/usr/bin/python3
"""RTSP test server bound to 127.0.0.1 on a free port (or --port).

Serves one GStreamer launch line per mount point and writes the bound port
to --port-file once it accepts connections. Runs until killed.

  rtsp_server.py --port-file F --mount /h264 '( videotestsrc ... ! rtph264pay name=pay0 )' ...
"""
import argparse
import os
import sys

import gi

gi.require_version("Gst", "1.0")
gi.require_version("GstRtsp", "1.0")
gi.require_version("GstRtspServer", "1.0")
from gi.repository import GLib, Gst, GstRtsp, GstRtspServer  # noqa: E402


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--port-file", required=True)
    parser.add_argument("--port", type=int, default=0, help="0: any free port")
    parser.add_argument("--udp-only", action="store_true", help="refuse interleaved TCP")
    parser.add_argument("--mount", nargs=2, action="append", default=[], metavar=("PATH", "LAUNCH"))
    args = parser.parse_args()

    Gst.init(None)
    server = GstRtspServer.RTSPServer()
    server.set_address("127.0.0.1")
    server.set_service(str(args.port))  # 0: any free port
    mounts = server.get_mount_points()
    for path, launch in args.mount:
        factory = GstRtspServer.RTSPMediaFactory()
        factory.set_launch(launch)
        factory.set_shared(False)  # every client gets its own pipeline
        if args.udp_only:
            factory.set_protocols(GstRtsp.RTSPLowerTrans.UDP)
        mounts.add_factory(path, factory)
    if server.attach(None) == 0:
        print("rtsp_server: attach failed", file=sys.stderr)
        return 1

    tmp = args.port_file + ".tmp"
    with open(tmp, "w") as f:
        f.write("%d\n" % server.get_bound_port())
    os.rename(tmp, args.port_file)
    GLib.MainLoop().run()
    return 0


if __name__ == "__main__":
    sys.exit(main())
