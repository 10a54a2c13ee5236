"""The command that writes all that comes to files."""

from typing import Optional

from .client import Client
from .recording import Recorder
from .session import Session
from .terminal import Progress, say


async def record(client: Client, recorder: Recorder, seconds: Optional[float]) -> int:
    """Until interrupted, or for some seconds; returns the exit status."""
    progress = Progress()
    lost = 0
    try:
        async with client:
            session = Session(client, note=progress.note)
            async for event in client.events(seconds):
                session.take(event)
                recorder.record(event)
                progress.show(f"{recorder.messages} messages, {recorder.written / 1e6:.1f} MB, {_files(recorder)}")
                lost = client.lost
    finally:
        recorder.close()
        progress.end()
        say(_summary(recorder, lost))
    return 0 if recorder.messages else 1


def _summary(recorder: Recorder, lost: int) -> str:
    if recorder.written == 0:
        return f"nothing was recorded to {recorder.path}"
    more = f"; {lost} more came faster than they could be written" if lost else ""
    return (f"recorded {recorder.messages} messages, {recorder.written} bytes in {_files(recorder)} "
            f"at {recorder.path}{more}")


def _files(recorder: Recorder) -> str:
    return f"{recorder.files} {'file' if recorder.files == 1 else 'files'}"
