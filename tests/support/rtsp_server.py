#!/usr/bin/python3
"""RTSP test server on 127.0.0.1: --mount PATH LAUNCH, --auth PATH basic|digest USER PASSWORD; writes the bound
port to --port-file once it listens; at a payloader's end prints "sent payN packets=P stamps=S span=T"."""
import argparse
import os
import sys

import gi

gi.require_version("Gst", "1.0")
gi.require_version("GstRtsp", "1.0")
gi.require_version("GstRtspServer", "1.0")
from gi.repository import GLib, Gst, GstRtsp, GstRtspServer  # noqa: E402

METHODS = {"basic": GstRtsp.RTSPAuthMethod.BASIC, "digest": GstRtsp.RTSPAuthMethod.DIGEST}


class MountAuth(GstRtspServer.RTSPAuth):
    """Offers each protected mount only its own method in the 401 answer."""

    def __init__(self, methods):
        super().__init__()
        self.methods = methods

    def do_generate_authenticate_header(self, ctx):
        path = ctx.uri.abspath if ctx.uri else ""
        method = next((m for p, m in self.methods.items() if path == p or path.startswith(p + "/")), None)
        self.set_supported_methods(METHODS["basic"] if method is None else method)
        GstRtspServer.RTSPAuth.do_generate_authenticate_header(self, ctx)


def token(role):
    t = GstRtspServer.RTSPToken()
    t.set_string("media.factory.role", role)
    return t


def count_sent(_factory, media):
    for index in range(8):
        pay = media.get_element().get_by_name("pay%d" % index)
        if pay is None:
            return
        kinds = Gst.PadProbeType.BUFFER | Gst.PadProbeType.BUFFER_LIST | Gst.PadProbeType.EVENT_DOWNSTREAM
        pay.get_static_pad("src").add_probe(kinds, on_sent, (pay.get_name(), {"packets": 0, "stamps": 0, "first": None, "last": None}))


def on_sent(_pad, info, data):
    name, st = data
    if info.type & Gst.PadProbeType.EVENT_DOWNSTREAM:
        if info.get_event().type == Gst.EventType.EOS and st["first"] is not None:
            span = (st["last"] - st["first"]) % (1 << 32)
            print("sent %s packets=%d stamps=%d span=%d" % (name, st["packets"], st["stamps"], span), flush=True)
        return Gst.PadProbeReturn.OK
    bufs = info.get_buffer_list()
    for buf in [info.get_buffer()] if info.type & Gst.PadProbeType.BUFFER else [bufs.get(i) for i in range(bufs.length())]:
        stamp = int.from_bytes(buf.extract_dup(4, 4), "big")  # the RTP timestamp
        st["packets"] += 1
        st["stamps"] += stamp != st["last"]
        st["first"] = stamp if st["first"] is None else st["first"]
        st["last"] = stamp
    return Gst.PadProbeReturn.OK


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--port-file", required=True)
    parser.add_argument("--port", type=int, default=0)
    parser.add_argument("--udp-only", action="store_true")
    parser.add_argument("--mount", nargs=2, action="append", default=[])
    parser.add_argument("--auth", nargs=4, action="append", default=[])
    args = parser.parse_args()
    Gst.init(None)
    server = GstRtspServer.RTSPServer()
    server.set_address("127.0.0.1")
    server.set_service(str(args.port))
    protected = {path: (method, user, password) for path, method, user, password in args.auth}
    auth = MountAuth({path: METHODS[p[0]] for path, p in protected.items()}) if protected else None
    if auth:
        auth.set_default_token(token("anonymous"))
        server.set_auth(auth)
    roles = ["anonymous"] + ["mount%d" % i for i, (path, _) in enumerate(args.mount) if path in protected]
    for index, (path, launch) in enumerate(args.mount):
        factory = GstRtspServer.RTSPMediaFactory()
        factory.set_launch(launch)
        factory.set_shared(False)  # every client gets its own pipeline
        factory.connect("media-configure", count_sent)
        if args.udp_only:
            factory.set_protocols(GstRtsp.RTSPLowerTrans.UDP)
        own = "mount%d" % index if path in protected else None
        if own:
            method, user, password = protected[path]
            if method == "basic":
                auth.add_basic(GstRtspServer.RTSPAuth.make_basic(user, password), token(own))
            else:
                auth.add_digest(user, password, token(own))
        for role in roles if auth else []:
            # A role that may see but not construct a mount is answered 401 there (one that may not see it, 404).
            construct = "true" if own is None or role == own else "false"
            factory.add_role_from_structure(Gst.Structure.new_from_string(
                "%s,media.factory.access=(boolean)true,media.factory.construct=(boolean)%s" % (role, construct)))
        server.get_mount_points().add_factory(path, factory)
    if server.attach(None) == 0:
        print("rtsp_server: attach failed", file=sys.stderr)
        return 1
    with open(args.port_file + ".tmp", "w") as f:
        f.write("%d\n" % server.get_bound_port())
    os.rename(args.port_file + ".tmp", args.port_file)  # whole, or not there
    GLib.MainLoop().run()
    return 0


if __name__ == "__main__":
    sys.exit(main())
