"""aiortc's end of the benchmark: does what peer_ours.py does, through the same server."""

from __future__ import annotations

import asyncio
import fractions
import json
import os
import time
from typing import Any

import aioice.ice
import aiortc.codecs
import aiortc.codecs.vpx
import content
import numpy as np
from aiortc import MediaStreamTrack, RTCConfiguration, RTCPeerConnection, RTCSessionDescription
from aiortc.mediastreams import MediaStreamError
from av import AudioFrame, VideoFrame
from janus import Janus
from peer_ours import options

# As it comes, both kinds of media use one extension id in one bundle, and its receiver ends at the first
# packet.
aiortc.codecs.HEADER_EXTENSIONS["video"][1].id = 3
aiortc.codecs.vpx.DEFAULT_BITRATE = aiortc.codecs.vpx.MAX_BITRATE = 1_000_000
aioice.ice.get_host_addresses = lambda use_ipv4=True, use_ipv6=True: [
    os.environ.get("BENCH_ADDRESS", "127.0.0.1")
]


class Tone(MediaStreamTrack):  # type: ignore[misc]
    kind = "audio"

    def __init__(self, bursts: content.Bursts) -> None:
        super().__init__()
        self._pieces, self._bursts, self._count, self._begin = content.tone(20), bursts, 0, 0.0

    async def recv(self) -> AudioFrame:
        self._begin = self._begin or time.monotonic()
        await asyncio.sleep(max(0.0, self._begin + self._count * 0.02 - time.monotonic()))
        samples, is_burst = next(self._pieces)
        if is_burst:
            self._bursts.sent()
        frame = AudioFrame(format="s16", layout="stereo", samples=len(samples) // 4)
        frame.planes[0].update(samples)
        frame.pts, frame.sample_rate, frame.time_base = self._count * 960, 48000, fractions.Fraction(1, 48000)
        self._count += 1
        return frame


class Stripes(MediaStreamTrack):  # type: ignore[misc]
    kind = "video"

    def __init__(self, pictures: content.Pictures, fps: int) -> None:
        super().__init__()
        self._pictures, self._fps, self._count, self._begin = pictures, fps, 0, 0.0

    async def recv(self) -> VideoFrame:
        self._begin = self._begin or time.monotonic()
        await asyncio.sleep(max(0.0, self._begin + self._count / self._fps - time.monotonic()))
        pixels = self._pictures.make(self._count).reshape(-1, self._pictures.width)
        frame = VideoFrame.from_ndarray(pixels, format="yuv420p")
        frame.pts, frame.time_base = self._count * 90000 // self._fps, fractions.Fraction(1, 90000)
        self._count += 1
        return frame


async def consume(track: Any, listener: content.Listener) -> None:
    while True:
        try:
            frame = await track.recv()
        except MediaStreamError:
            return
        plane = frame.planes[0]
        if track.kind == "video":
            listener.picture(np.frombuffer(plane, np.uint8).reshape(-1, plane.line_size)[:, : frame.width])
        else:
            listener.sound(np.frombuffer(plane, np.int16)[: frame.samples * 2])


async def main() -> None:
    arguments = options()
    janus = Janus(os.environ["TOKEN"])
    await janus.open(arguments.url)
    control = await janus.attach()
    peer = RTCPeerConnection(RTCConfiguration(iceServers=[]))
    listener = content.Listener(content.now_ms())
    pictures = content.Pictures(*arguments.size)
    consuming: list[asyncio.Task[None]] = []
    joined = await janus.message(control, request="join", ptype="publisher", room=arguments.room)
    if joined["plugindata"]["data"].get("videoroom") != "joined":
        raise SystemExit(f"joining failed: {joined}")
    if arguments.role == "pub":
        peer.addTransceiver(Tone(content.Bursts(arguments.bursts)), direction="sendonly")
        video = peer.addTransceiver(Stripes(pictures, arguments.fps), direction="sendonly")
        codecs = aiortc.RTCRtpSender.getCapabilities("video").codecs
        video.setCodecPreferences([codec for codec in codecs if codec.mimeType == "video/VP8"])
        await peer.setLocalDescription(await peer.createOffer())
        jsep = {"type": "offer", "sdp": peer.localDescription.sdp}
        reply = await janus.message(control, jsep, request="configure", audio=True, video=True)
        await peer.setRemoteDescription(
            RTCSessionDescription(**{k: reply["jsep"][k] for k in ("sdp", "type")})
        )
        print(json.dumps({"event": "ready"}), flush=True)
    else:
        feed = (await asyncio.wait_for(janus.publishers.get(), 20))["id"]
        await asyncio.sleep(content.SETTLED)
        listener.started = content.now_ms()
        peer.on("track", lambda track: consuming.append(asyncio.ensure_future(consume(track, listener))))
        handle = await janus.attach()
        streams = [{"feed": feed}]
        reply = await janus.message(
            handle, request="join", ptype="subscriber", room=arguments.room, streams=streams
        )
        await peer.setRemoteDescription(
            RTCSessionDescription(**{k: reply["jsep"][k] for k in ("sdp", "type")})
        )
        await peer.setLocalDescription(await peer.createAnswer())
        answer = {"type": "answer", "sdp": peer.localDescription.sdp}
        await janus.message(handle, answer, request="start")
        while len(listener.first) < 2:
            await asyncio.sleep(0.01)
    await asyncio.sleep(arguments.warm_up)
    listener.measuring = True
    if arguments.raw:
        print(json.dumps({"event": "measuring"}), flush=True)
    begin, used = time.monotonic(), content.processor_seconds()
    await asyncio.sleep(arguments.seconds)
    listener.measuring = False
    took, used = time.monotonic() - begin, content.processor_seconds() - used
    result: dict[str, Any] = {
        "cpu_per_second": round(used / took, 4),
        "resident_mib": content.resident_mib(),
        "threads": content.threads(),
        "frames_per_second": [round(listener.frames / took, 2)],
        "samples_per_second": [round(listener.samples / took)],
        "first_ms": [listener.first],
        "video_ms": content.quantiles(listener.ages),
        "audio_ms": content.quantiles(content.Bursts(arguments.bursts).delays(listener.heard)),
    }
    if arguments.raw:
        result = {"event": "result", "shown": listener.shown, "made": pictures.made}
        for each in (await peer.getStats()).values():
            if each.type == "inbound-rtp" and each.kind == "audio":
                print(f"sound: {each.packetsReceived} packets, {each.packetsLost} lost", flush=True)
    print(json.dumps(result), flush=True)
    if arguments.role == "pub":
        await asyncio.sleep(arguments.tail)
    await peer.close()


asyncio.run(main())
