"""The command that writes all that comes to files."""

import asyncio
import dataclasses
from typing import Optional

from .client import Client, Event, Hello
from .ownership import SchemaChanged
from .recording import Origin, Recorder
from .session import Session
from .terminal import Progress, connected, counted, say


async def record(client: Client, recorder: Recorder, seconds: Optional[float]) -> int:
    """For some seconds, or until interrupted, which then is no failure if something was recorded. Returns the exit
    status."""
    session = Session(client)
    try:
        await _follow(session, recorder, seconds)
    except asyncio.CancelledError:
        if seconds is not None or recorder.messages == 0:
            raise
    finally:
        recorder.close()
        say(_summary(recorder, client.lost))
    if recorder.messages == 0:
        say(session.silence())
    return 0 if recorder.messages else 1


async def _follow(session: Session, recorder: Recorder, seconds: Optional[float]) -> None:
    progress = Progress()
    session.note = progress.note
    try:
        async with connected(session.client) as client:
            async for event in client.events(seconds):
                session.take(event)
                _follow_origin(recorder, client, event)
                recorder.record(event)
                progress.show(f"{counted(recorder.messages, 'message')}, {recorder.written / 1e6:.1f} MB, "
                              f"{_files(recorder)}")
    finally:
        progress.end()


def _follow_origin(recorder: Recorder, client: Client, event: Event) -> None:
    """A schema that was replaced by another client's does not explain what comes from then on."""
    if isinstance(event, Hello):
        recorder.origin = Origin(client.uri, event, client.schema if client.owns_schema else None)
    elif isinstance(event, SchemaChanged) and event.state == "replaced" and recorder.origin is not None:
        recorder.origin = dataclasses.replace(recorder.origin, schema=None)


def _summary(recorder: Recorder, lost: int) -> str:
    if recorder.written == 0:
        return f"nothing was recorded to {recorder.path}"
    more = f"; {lost} more came faster than they could be written" if lost else ""
    return (f"recorded {counted(recorder.messages, 'message')}, {recorder.written} bytes in {_files(recorder)} "
            f"at {recorder.path}{more}")


def _files(recorder: Recorder) -> str:
    return counted(recorder.files, "file")
