#!/usr/bin/python3
"""A real RTSP server on 127.0.0.1 for the tests and for trying the RTSP node
by hand: gst-rtsp-server driven through python3-gi.

Run it with Debian's /usr/bin/python3 (other interpreters lack gi). Every
mount gets a GStreamer launch line whose payloaders are named pay0, pay1, ...
or one of the ready-made streams below:

  rtsp-server.py --port 0 --stream /live=h264+aac --seconds 60
  rtsp-server.py --port 8554 --mount '/cam=( videotestsrc is-live=true ! x264enc ! rtph264pay name=pay0 pt=96 )'
  rtsp-server.py --port 0 --stream /live=h265 --user admin --password secret
  rtsp-server.py --port 0 --stream /live=h264 --session-timeout 10

Ready-made streams: VIDEO[+AUDIO] with VIDEO one of h264, h265, none and
AUDIO one of aac, pcma, pcmu, mp3. --size, --fps and --gop shape the video.

Once listening it prints the bound port on a line of its own on stdout (the
only thing it ever prints there), which is how to learn the port when
--port is 0. Ends after --seconds, on SIGTERM or SIGINT; exit status 0 then.
Exit status 2 for a bad argument or a launch line that does not parse (a
missing element would otherwise only show as 503 to DESCRIBE), 3 when the
port cannot be bound.
"""

import argparse
import signal
import sys

import gi

gi.require_version("Gst", "1.0")
gi.require_version("GstRtsp", "1.0")
gi.require_version("GstRtspServer", "1.0")
from gi.repository import GLib, Gst, GstRtsp, GstRtspServer  # noqa: E402

AGGREGATE_MODES = ("none", "zero-latency", "max-stap", "max")


def video_part(codec, width, height, fps, gop, threads):
    raw = (
        "videotestsrc is-live=true pattern=ball ! "
        f"video/x-raw,format=I420,width={width},height={height},framerate={fps}/1"
    )
    if codec == "h264":
        return (
            f"{raw} ! x264enc tune=zerolatency speed-preset=ultrafast key-int-max={gop} "
            f"threads={threads} ! rtph264pay name=pay0 pt=96 config-interval=-1"
        )
    if codec == "h265":
        # x265 keeps the 4:2:0 of the caps; log-level keeps its banner out.
        return (
            f"{raw} ! x265enc tune=zerolatency speed-preset=ultrafast key-int-max={gop} "
            "option-string=log-level=error ! rtph265pay name=pay0 pt=96 config-interval=-1"
        )
    raise ValueError(f"unknown video codec {codec!r}")


def audio_part(codec, name):
    tone = "audiotestsrc is-live=true wave=sine freq=440 volume=0.3"
    if codec == "aac":
        return (
            f"{tone} ! audio/x-raw,rate=48000,channels=2 ! avenc_aac ! "
            f"rtpmp4gpay name={name} pt=97"
        )
    # G.711 in packets of 20 ms, 160 samples, as cameras send it.
    g711 = "audio/x-raw,rate=8000,channels=1"
    if codec == "pcma":
        return (
            f"{tone} samplesperbuffer=160 ! {g711} ! alawenc ! "
            f"rtppcmapay name={name} max-ptime=20000000"
        )
    if codec == "pcmu":
        return (
            f"{tone} samplesperbuffer=160 ! {g711} ! mulawenc ! "
            f"rtppcmupay name={name} max-ptime=20000000"
        )
    if codec == "mp3":
        return (
            f"{tone} ! audio/x-raw,rate=44100,channels=2 ! lamemp3enc ! "
            f"rtpmpapay name={name} pt=14"
        )
    raise ValueError(f"unknown audio codec {codec!r}")


def stream_launch(choice, args):
    parts = choice.split("+")
    if len(parts) > 2:
        raise ValueError(f"{choice!r}: give VIDEO or VIDEO+AUDIO")
    video = parts[0]
    audio = parts[1] if len(parts) == 2 else None
    pieces = []
    if video != "none":
        pieces.append(video_part(video, args.width, args.height, args.fps, args.gop, args.slices))
    if audio:
        pieces.append(audio_part(audio, f"pay{len(pieces)}"))
    if not pieces:
        raise ValueError(f"{choice!r} has no stream")
    return "( " + " ".join(pieces) + " )"


def split_mount(text):
    path, sep, rest = text.partition("=")
    if not sep or not path.startswith("/") or not rest.strip():
        raise ValueError(f"{text!r}: expected /PATH=...")
    return path, rest.strip()


class Factory(GstRtspServer.RTSPMediaFactory):
    """Sets the payloaders' aggregate-mode on every pipeline it makes."""

    def __init__(self, launch, aggregate_mode):
        super().__init__()
        self.set_launch(launch)
        self.aggregate_mode = aggregate_mode

    def do_configure(self, media):
        GstRtspServer.RTSPMediaFactory.do_configure(self, media)
        if not self.aggregate_mode:
            return
        element = media.get_element()
        if not isinstance(element, Gst.Bin):
            return
        it = element.iterate_recurse()
        while True:
            result, child = it.next()
            if result != Gst.IteratorResult.OK:
                break
            if child.find_property("aggregate-mode") is not None:
                Gst.util_set_object_arg(child, "aggregate-mode", self.aggregate_mode)


def parse_args(argv):
    p = argparse.ArgumentParser(
        description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter
    )
    p.add_argument("--port", type=int, default=8554, help="TCP port, 0 for any free one")
    p.add_argument("--mount", action="append", default=[], metavar="/PATH=LAUNCH")
    p.add_argument("--stream", action="append", default=[], metavar="/PATH=VIDEO[+AUDIO]")
    p.add_argument("--size", default="320x240", help="video size of --stream, WxH")
    p.add_argument("--fps", type=int, default=25)
    p.add_argument("--gop", type=int, default=25, help="frames between key frames")
    # x264 in zero-latency mode cuts a picture into one slice per thread, and
    # the payloader then puts the parameter sets before every slice of a key
    # frame, which a decoder counts as pictures of their own.
    p.add_argument("--slices", type=int, default=1, help="H.264 slices (threads) per picture")
    p.add_argument(
        "--aggregate-mode",
        choices=AGGREGATE_MODES,
        help="set on every payloader that has it (their default varies by version)",
    )
    p.add_argument("--user", help="require Digest authentication as this user")
    p.add_argument("--password", default="")
    p.add_argument("--protocols", choices=("all", "tcp", "udp"), default="all")
    p.add_argument(
        "--session-timeout",
        type=int,
        default=0,
        help="seconds a session lives without keep-alive (set on each new session; "
        "expired ones are removed every second), 0 for the server's own",
    )
    p.add_argument("--seconds", type=float, default=0, help="run time limit, 0 for none")
    args = p.parse_args(argv)
    try:
        w, h = args.size.lower().split("x")
        args.width, args.height = int(w), int(h)
    except ValueError:
        p.error(f"--size {args.size!r}: expected WxH")
    if not 0 <= args.port <= 65535:
        p.error("--port must be 0..65535")
    if not args.mount and not args.stream:
        p.error("give at least one --mount or --stream")
    return p, args


def main(argv):
    parser, args = parse_args(argv)
    Gst.init(None)

    mounts = []
    try:
        for text in args.mount:
            mounts.append(split_mount(text))
        for text in args.stream:
            path, choice = split_mount(text)
            mounts.append((path, stream_launch(choice, args)))
    except ValueError as e:
        parser.error(str(e))

    # A launch line that does not parse now would only show up later, as 503.
    for path, launch in mounts:
        try:
            Gst.parse_launch(launch.strip().strip("()"))
        except GLib.Error as e:
            print(f"rtsp-server: {path}: {e.message}", file=sys.stderr)
            return 2

    server = GstRtspServer.RTSPServer()
    server.set_address("127.0.0.1")
    server.set_service(str(args.port))
    protocols = {
        "all": GstRtsp.RTSPLowerTrans.TCP | GstRtsp.RTSPLowerTrans.UDP,
        "tcp": GstRtsp.RTSPLowerTrans.TCP,
        "udp": GstRtsp.RTSPLowerTrans.UDP,
    }[args.protocols]

    if args.user:
        auth = GstRtspServer.RTSPAuth()
        auth.set_supported_methods(GstRtsp.RTSPAuthMethod.DIGEST)
        # Anonymous requests get a token whose role may not touch a factory,
        # so they are asked for a password (401) rather than refused (404).
        anonymous = GstRtspServer.RTSPToken()
        anonymous.set_string("media.factory.role", "anonymous")
        auth.set_default_token(anonymous)
        user = GstRtspServer.RTSPToken()
        user.set_string("media.factory.role", "user")
        auth.add_digest(args.user, args.password, user)
        server.set_auth(auth)

    if args.session_timeout > 0:

        def new_session(_client, session):
            session.set_timeout(args.session_timeout)

        server.connect(
            "client-connected", lambda _s, client: client.connect("new-session", new_session)
        )

        def cleanup():
            server.get_session_pool().cleanup()
            return GLib.SOURCE_CONTINUE

        GLib.timeout_add(1000, cleanup)

    points = server.get_mount_points()
    for path, launch in mounts:
        factory = Factory(launch, args.aggregate_mode)
        factory.set_protocols(protocols)
        if args.user:
            factory.add_role_from_structure(
                Gst.Structure.from_string(
                    "user, media.factory.access=(boolean)true, media.factory.construct=(boolean)true"
                )[0]
            )
            factory.add_role_from_structure(
                Gst.Structure.from_string(
                    "anonymous, media.factory.access=(boolean)true, "
                    "media.factory.construct=(boolean)false"
                )[0]
            )
        points.add_factory(path, factory)

    loop = GLib.MainLoop()
    if server.attach(None) == 0:
        print(f"rtsp-server: cannot listen on 127.0.0.1:{args.port}", file=sys.stderr)
        return 3
    print(server.get_bound_port(), flush=True)

    def stop(*_):
        loop.quit()
        return GLib.SOURCE_REMOVE

    for sig in (signal.SIGTERM, signal.SIGINT):
        GLib.unix_signal_add(GLib.PRIORITY_DEFAULT, sig, stop)
    if args.seconds > 0:
        GLib.timeout_add(int(args.seconds * 1000), stop)
    loop.run()
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
