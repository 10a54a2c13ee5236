"""The command that draws values over time."""

from . import paths, plotting
from .client import Client, Values
from .session import Session
from .terminal import Progress, connected, say


async def plot(client: Client, wanted: list[str], output: str, seconds: float) -> int:
    """Collects the paths that are `wanted` for some seconds and draws them; returns the exit status."""
    plotting.prepare(output)
    courses = {path: plotting.Course() for path in wanted}
    progress = Progress()
    async with connected(client):
        session = Session(client, note=progress.note)
        async for event in client.events(seconds):
            session.take(event)
            progress.show(f"{session.table.messages} messages")
            if isinstance(event, Values):
                for path, value in event.flat().items():
                    if path in courses:
                        courses[path].add(value, event.time)
    progress.end()
    empty = [path for path, course in courses.items() if not course.times]
    if empty:
        say(paths.shown(f"no numbers came for {', '.join(empty)}; "
                        f"there were: {', '.join(session.table.rows) or 'none at all'}"))
    if not session.table.rows:
        say(session.silence())
    courses = {path: course for path, course in courses.items() if course.times}
    if courses:
        plotting.draw(courses, output, str(client.hello))
        print(f"{output}: {sum(len(course.times) for course in courses.values())} points")
    return 1 if empty else 0
