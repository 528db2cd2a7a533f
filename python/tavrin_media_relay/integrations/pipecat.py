"""A transport for Pipecat: a bot takes part in a session by its transport lines alone.

    transport = TavrinTransport(
        "app-id", "session", token, params=TavrinParams(audio_in_enabled=True, audio_out_enabled=True)
    )
    pipeline = Pipeline([transport.input(), stt, llm, tts, transport.output()])

`TavrinTransport(session=session, params=...)` uses a session that is open already: of `aio.connect`, of an
agent that is served, or of a rehearsal, so that the same bot runs against a script in a test. Such a session
is left open.

In: the mix of all others as `InputAudioRawFrame`, or each one's sound as `UserAudioRawFrame`
(`audio_in_user_tracks`); pictures as `UserImageRawFrame` in RGB; captions as `TranscriptionFrame` and
`InterimTranscriptionFrame`. Out: sound, paced by the session, pictures, and with `captions_out_enabled` the
words that the bot speaks, as our captions. An `InterruptionFrame` drops the sound that is queued.

Event handlers, each with the transport first: on_connected(), on_disconnected(),
on_participant_connected(id), on_first_participant_joined(id), on_participant_disconnected(id),
on_participant_left(id, reason), on_client_connected(client), on_client_disconnected(client). `id` is the
participant's connection id, `client` a dict of its "id" and "data".
"""

from __future__ import annotations

import asyncio
import contextlib
import datetime
import time
from typing import Any, Awaitable, Callable

try:
    from pipecat.frames.frames import (
        BotConnectedFrame,
        CancelFrame,
        ClientConnectedFrame,
        EndFrame,
        Frame,
        InputAudioRawFrame,
        InterimTranscriptionFrame,
        InterruptionFrame,
        OutputAudioRawFrame,
        OutputImageRawFrame,
        OutputTransportMessageFrame,
        OutputTransportMessageUrgentFrame,
        StartFrame,
        TranscriptionFrame,
        TTSTextFrame,
        UserAudioRawFrame,
        UserImageRawFrame,
        UserImageRequestFrame,
    )
    from pipecat.processors.frame_processor import FrameDirection, FrameProcessorSetup
    from pipecat.transports.base_input import BaseInputTransport
    from pipecat.transports.base_output import BaseOutputTransport
    from pipecat.transports.base_transport import BaseTransport, TransportParams
except ImportError as error:
    raise ImportError(
        "tavrin_media_relay.integrations.pipecat needs Pipecat: pip install 'tavrin-media-relay[pipecat]'"
    ) from error

from .. import aio, captions
from ..models import (
    LoggingSettings,
    SessionAVSettings,
    SessionSettings,
    SessionVideoPublisherSettings,
    Stream,
    VideoResolution,
)

__all__ = ["TavrinParams", "TavrinTransport"]

# Sound that may be queued in the session ahead of its time. The framework takes it that the bot speaks when
# its frames are taken, so this is small; what is queued is dropped by an interruption.
_QUEUE_SECONDS = 0.08
# For the rest of the queue to be heard when the pipeline has ended.
_DRAIN_SECONDS = 2.0
_LAYOUTS = {"RGB": "RGB24", "RGBA": "RGBA32", "L": "GRAY8"}
_CAMERA = "camera"


class TavrinParams(TransportParams):  # type: ignore[misc]
    """What goes in and out, as with any transport, and what is special to a session."""

    stream_name: str = "bot"
    """Of what the bot publishes."""
    audio_in_user_tracks: bool = False
    """Each participant's sound as frames of its own, and not the mix of all."""
    captions_in_enabled: bool = False
    """The participants' live captions as transcription frames: with a session that captions speech, no
    recogniser is needed."""
    captions_out_enabled: bool = False
    """Sends the words that the bot speaks as its captions. Needs the open libsarnet."""


class _Visit:
    """The session that both ends of a transport share: joined by the first, left by the last."""

    def __init__(
        self, session: aio.Session | None, join: Callable[[], aio.Opening[aio.Session]] | None
    ) -> None:
        self._join = join
        self._session = session
        self._users = 0
        self._turn = asyncio.Lock()

    @property
    def session(self) -> aio.Session:
        if self._session is None:
            raise RuntimeError("the transport is not in a session: its pipeline has not been set up")
        return self._session

    async def enter(self) -> None:
        async with self._turn:
            if self._session is None:
                assert self._join is not None
                self._session = await self._join()
            self._users += 1

    async def leave(self) -> None:
        async with self._turn:
            self._users -= 1
            if self._users == 0 and self._join is not None and self._session is not None:
                await self._session.close()


class _Camera:
    """Which pictures of one participant are passed on."""

    def __init__(self, framerate: int | None) -> None:
        """framerate: pictures a second; None for all, 0 for those that were asked for."""
        self.framerate = framerate
        self.requests: list[UserImageRequestFrame] = []
        self._next = 0.0

    def wants(self, now: float) -> bool:
        if self.requests or self.framerate is None:
            return True
        if self.framerate == 0 or now < self._next:
            return False
        # On the schedule that the first picture began, unless pictures come more slowly.
        interval = 1 / self.framerate
        self._next = max(self._next + interval, now + interval / 2)
        return True


class TavrinInput(BaseInputTransport):  # type: ignore[misc]
    """What the other participants send."""

    def __init__(
        self, transport: TavrinTransport, visit: _Visit, params: TavrinParams, name: str | None
    ) -> None:
        super().__init__(params, name=name)
        self._transport = transport
        self._visit = visit
        self._inside = False
        self._cameras: dict[str, _Camera] = {}
        self._tasks: list[asyncio.Task[None]] = []

    async def setup(self, setup: FrameProcessorSetup) -> None:
        await super().setup(setup)
        await self._visit.enter()
        self._inside = True

    async def start(self, frame: StartFrame) -> None:
        await super().start(frame)
        if self._tasks:
            return
        await self.set_transport_ready(frame)
        self._tasks.append(self.create_task(self._watch()))
        if self._params.audio_in_enabled and not self._params.audio_in_user_tracks:
            iterator = self._visit.session.audio_frames(
                sample_rate=self.sample_rate, channels=self._params.audio_in_channels
            )
            self._tasks.append(self.create_task(self._pass_sound(iterator, None)))

    async def stop(self, frame: EndFrame) -> None:
        await super().stop(frame)
        await self._leave()

    async def cancel(self, frame: CancelFrame) -> None:
        await super().cancel(frame)
        await self._leave()

    async def cleanup(self) -> None:
        await super().cleanup()
        await self._leave()

    async def process_frame(self, frame: Frame, direction: FrameDirection) -> None:
        await super().process_frame(frame, direction)
        if isinstance(frame, UserImageRequestFrame):
            await self._request_picture(frame)

    def capture(self, participant_id: str, framerate: int | None) -> None:
        camera = self._cameras.setdefault(participant_id, _Camera(framerate))
        camera.framerate = framerate

    def _supports_video_in_source(self, video_source: str) -> bool:
        return video_source == _CAMERA

    async def _leave(self) -> None:
        if not self._inside:
            return
        self._inside = False
        tasks, self._tasks = self._tasks, []
        for task in tasks:
            await self.cancel_task(task)
        await self._visit.leave()

    # ---- participants -------------------------------------------------------------------------------------

    async def _watch(self) -> None:
        streams: dict[str, asyncio.Task[None]] = {}
        anyone = False
        await self._transport.tell("on_connected")
        await self.push_frame(BotConnectedFrame())
        try:
            async for event in self._visit.session.events():
                match event:
                    case aio.ConnectionCreated(connection):
                        client = {"id": connection.id, "data": connection.data}
                        await self._transport.tell("on_participant_connected", connection.id)
                        await self._transport.tell("on_client_connected", client)
                        if not anyone:
                            await self._transport.tell("on_first_participant_joined", connection.id)
                        anyone = True
                        await self.push_frame(ClientConnectedFrame())
                    case aio.ConnectionDropped(connection):
                        await self._forget_pictures(connection.id, f"{connection.id} left.")
                        client = {"id": connection.id, "data": connection.data}
                        await self._transport.tell("on_participant_disconnected", connection.id)
                        await self._transport.tell("on_participant_left", connection.id, "left")
                        await self._transport.tell("on_client_disconnected", client)
                    case aio.StreamReceived(stream):
                        streams[stream.id] = self.create_task(self._receive(stream))
                    case aio.StreamDropped(stream):
                        if task := streams.pop(stream.id, None):
                            await self.cancel_task(task)
                    case aio.SessionFailed(failure):
                        await self.push_error(str(failure), exception=failure, force_treat_as_permanent=True)
            for participant in list(self._cameras):
                await self._forget_pictures(participant, "The session is over.")
            await self._transport.tell("on_disconnected")
        finally:
            for task in streams.values():
                await self.cancel_task(task)

    async def _receive(self, stream: Stream) -> None:
        params, who = self._params, stream.connection.id
        audio = params.audio_in_enabled or not params.video_in_enabled
        if not (params.audio_in_enabled or params.video_in_enabled or params.captions_in_enabled):
            return
        wanted = {"audio": audio, "video": params.video_in_enabled, "captions": params.captions_in_enabled}
        try:
            async with self._visit.session.subscribe(stream, **wanted) as subscriber:
                passing: list[Awaitable[None]] = []
                if params.audio_in_enabled and params.audio_in_user_tracks:
                    iterator = subscriber.audio_frames(
                        sample_rate=self.sample_rate, channels=params.audio_in_channels
                    )
                    passing.append(self._pass_sound(iterator, who))
                if params.video_in_enabled:
                    passing.append(self._pass_pictures(subscriber.video_frames(policy="latest"), who))
                if params.captions_in_enabled:
                    passing.append(self._pass_captions(subscriber.captions(), who))
                if passing:
                    await asyncio.gather(*passing)
                else:  # its sound is in the mix
                    await asyncio.Event().wait()
        except aio.ClosedError:
            pass
        except aio.SubscriberError as error:
            await self.push_error(f"stream of {who}: {error}", exception=error)

    async def _pass_sound(self, sound: aio.AudioIterator, who: str | None) -> None:
        async for piece in sound:
            form = {"sample_rate": piece.sample_rate, "num_channels": piece.channels}
            audio = piece.tobytes()
            if who is None:
                await self.push_audio_frame(InputAudioRawFrame(audio=audio, **form))
            else:
                await self.push_audio_frame(UserAudioRawFrame(user_id=who, audio=audio, **form))

    async def _pass_captions(self, lines: aio.MediaIterator[aio.Caption], who: str) -> None:
        async for line in lines:
            now = datetime.datetime.now(datetime.UTC).isoformat(timespec="milliseconds")
            if line.is_final:
                await self.push_frame(TranscriptionFrame(line.text, who, now, finalized=True))
            else:
                await self.push_frame(InterimTranscriptionFrame(line.text, who, now))

    # ---- pictures -----------------------------------------------------------------------------------------

    async def _pass_pictures(self, pictures: aio.MediaIterator[aio.VideoFrame], who: str) -> None:
        camera = self._camera(who)
        async for picture in pictures:
            if camera is None:
                camera = self._cameras.get(who)
            if camera is None or not camera.wants(time.monotonic()):
                continue
            request = camera.requests.pop(0) if camera.requests else None
            rgb = await asyncio.to_thread(picture.to_rgb)
            frame = UserImageRawFrame(
                user_id=who,
                image=rgb.tobytes(),
                size=(picture.width, picture.height),
                format="RGB",
                text=request.text if request else None,
                append_to_context=request.append_to_context if request else None,
                request=request,
            )
            frame.transport_source = _CAMERA
            await self.push_video_frame(frame)

    def _camera(self, who: str) -> _Camera | None:
        """As the parameters say, unless it is captured already: without `video_in_sources` every picture."""
        if who not in self._cameras:
            sources = self._params.video_in_sources
            if not sources:
                self._cameras[who] = _Camera(None)
            elif source := sources.get(_CAMERA):
                self._cameras[who] = _Camera(0 if source.on_request_only else source.framerate)
        return self._cameras.get(who)

    async def _request_picture(self, frame: UserImageRequestFrame) -> None:
        publishes = any(each.connection.id == frame.user_id for each in self._visit.session.streams)
        source = frame.video_source or _CAMERA
        camera = self._camera(frame.user_id) if publishes and source == _CAMERA else None
        if camera is None or not self._params.video_in_enabled:
            await self._answer_image_requests([frame], f"No {source} video is received from {frame.user_id}.")
        else:
            camera.requests.append(frame)

    async def _forget_pictures(self, who: str, why: str) -> None:
        if camera := self._cameras.pop(who, None):
            await self._answer_image_requests(camera.requests, why)


class TavrinOutput(BaseOutputTransport):  # type: ignore[misc]
    """What the bot publishes: one stream."""

    def __init__(self, visit: _Visit, params: TavrinParams, name: str | None) -> None:
        super().__init__(params, name=name)
        self._visit = visit
        self._inside = False
        self._publisher: aio.Publisher | None = None
        self._must_be_heard = False  # the frame that was written last may not be interrupted

    async def setup(self, setup: FrameProcessorSetup) -> None:
        await super().setup(setup)
        await self._visit.enter()
        self._inside = True

    async def start(self, frame: StartFrame) -> None:
        await super().start(frame)
        params = self._params
        if self._publisher is None and (params.audio_out_enabled or params.video_out_enabled):
            self._publisher = await self._visit.session.publish(
                params.stream_name,
                audio=params.audio_out_enabled,
                video=params.video_out_enabled,
                captions=params.captions_out_enabled,
                audio_queue=_QUEUE_SECONDS,
            )
            if params.video_out_enabled:
                # The framework scales to what is set here; an open session's own form goes before it.
                video = self._publisher.video
                params.video_out_width, params.video_out_height = video.width, video.height
                params.video_out_framerate = video.fps
        await self.set_transport_ready(frame)

    async def stop(self, frame: EndFrame) -> None:
        await super().stop(frame)
        if self._publisher is not None and self._params.audio_out_enabled:
            with contextlib.suppress(TimeoutError, aio.ClosedError):
                await asyncio.wait_for(self._publisher.audio.drained(), _DRAIN_SECONDS)
        await self._leave()

    async def cancel(self, frame: CancelFrame) -> None:
        await super().cancel(frame)
        await self._leave()

    async def cleanup(self) -> None:
        await super().cleanup()
        await self._leave()

    async def process_frame(self, frame: Frame, direction: FrameDirection) -> None:
        await super().process_frame(frame, direction)
        # After the base has emptied its own queue, from which more would be written otherwise.
        if isinstance(frame, InterruptionFrame) and self._publisher is not None and not self._must_be_heard:
            with contextlib.suppress(aio.ClosedError):
                await self._publisher.clear()

    async def write_audio_frame(self, frame: OutputAudioRawFrame) -> bool:
        if self._publisher is None:
            return False
        self._must_be_heard = not frame.interruptible
        try:
            return await self._publisher.audio.write(
                frame.audio, sample_rate=frame.sample_rate, channels=frame.num_channels
            )
        except aio.ClosedError:
            return False

    async def write_video_frame(self, frame: OutputImageRawFrame) -> bool:
        if self._publisher is None:
            return False
        layout = _LAYOUTS.get(frame.format or "")
        if layout is None:
            await self.push_error(f"pictures must be in {', '.join(_LAYOUTS)}, not in {frame.format!r}")
            return False
        try:
            return await self._publisher.video.write(frame.image, layout=layout)  # type: ignore[arg-type]
        except aio.ClosedError:
            return False

    async def write_transport_frame(self, frame: Frame) -> None:
        if isinstance(frame, TTSTextFrame) and self._params.captions_out_enabled and frame.text.strip():
            captions.send(frame.text[:1024])  # at most 4,096 bytes

    async def send_message(
        self, frame: OutputTransportMessageFrame | OutputTransportMessageUrgentFrame
    ) -> None:
        """Leaves them out: a session carries no messages of programs."""

    async def _leave(self) -> None:
        if not self._inside:
            return
        self._inside = False
        publisher, self._publisher = self._publisher, None
        if publisher is not None:
            await publisher.close()
        await self._visit.leave()


class TavrinTransport(BaseTransport):  # type: ignore[misc]
    """A bot's place in one session. Used for one pipeline."""

    def __init__(
        self,
        application_id: str = "",
        session_id: str = "",
        token: str = "",
        *,
        session: aio.Session | None = None,
        params: TavrinParams | None = None,
        settings: SessionSettings | None = None,
        input_name: str | None = None,
        output_name: str | None = None,
    ) -> None:
        """application_id, session_id, token: as of `aio.connect`; or session: one that is open, and stays so.

        settings: of the session that is joined; pictures have the size and rate of `params` unless they say
        otherwise.
        """
        super().__init__(input_name=input_name, output_name=output_name)
        if (session is None) == (not session_id):
            raise ValueError(
                "session_id or session must be given, and not both: one to join, or one that is open"
            )
        self._params = params or TavrinParams()
        wanted = settings or self._settings()
        join = None if session else lambda: aio.connect(application_id, session_id, token, settings=wanted)
        self._visit = _Visit(session, join)
        self._input: TavrinInput | None = None
        self._output: TavrinOutput | None = None
        for name in (
            "on_connected",
            "on_disconnected",
            "on_participant_connected",
            "on_participant_disconnected",
            "on_participant_left",
            "on_first_participant_joined",
            "on_client_connected",
            "on_client_disconnected",
        ):
            self._register_event_handler(name)

    @property
    def session(self) -> aio.Session:
        """The session, once the pipeline has been set up."""
        return self._visit.session

    def input(self) -> TavrinInput:
        """What the other participants send."""
        if self._input is None:
            self._input = TavrinInput(self, self._visit, self._params, self._input_name)
        return self._input

    def output(self) -> TavrinOutput:
        """What the bot publishes."""
        if self._output is None:
            self._output = TavrinOutput(self._visit, self._params, self._output_name)
        return self._output

    async def send_audio(self, frame: OutputAudioRawFrame) -> None:
        """Plays sound beside what the pipeline makes."""
        await self.output().queue_frame(frame, FrameDirection.DOWNSTREAM)

    async def capture_participant_video(
        self,
        participant_id: str,
        framerate: int | None = 30,
        video_source: str = _CAMERA,
        *,
        on_request_only: bool = False,
    ) -> None:
        """Passes on a participant's pictures; see the base. `video_source` can only be "camera"."""
        if video_source != _CAMERA:
            raise ValueError(f'video_source must be "{_CAMERA}", not {video_source!r}')
        self.input().capture(participant_id, 0 if on_request_only else framerate)

    def get_client_id(self, client: Any) -> str:
        """The participant's connection id."""
        return str(client["id"])

    async def tell(self, event: str, *arguments: object) -> None:
        """Runs the handlers of an event."""
        await self._call_event_handler(event, *arguments)

    def _settings(self) -> SessionSettings:
        params = self._params
        size = VideoResolution(params.video_out_width, params.video_out_height)
        video = SessionVideoPublisherSettings(size, params.video_out_framerate, "YUV420P")
        av = SessionAVSettings(video_publisher=video) if params.video_out_enabled else None
        return SessionSettings(av=av, logging=LoggingSettings("error"))
