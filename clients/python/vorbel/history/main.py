"""The program vorbel-history."""

import argparse
import os
import signal
import sqlite3
import threading
import time
from collections.abc import Sequence

from . import log
from .database import Database
from .inbox import Inbox
from .notify import notify, watchdog_interval
from .settings import Settings, read_settings
from .service import SUBSCRIBED, Service
from .session import Session, unfitness_of_library
from .state import State
from .topics import Topics

FILE = "/etc/vorbel/history.ini"
STUCK = 45.0  # seconds without a sign of life of the thread that writes


def main(arguments: Sequence[str]) -> int:
    parser = argparse.ArgumentParser(
        prog="vorbel-history", allow_abbrev=False,
        description="Writes the values of boards from an MQTT broker to a database, as FILE says.")
    parser.add_argument("file", metavar="FILE", nargs="?", default=FILE, help=f"its settings (default {FILE})")
    parser.add_argument("--check", action="store_true", help="only say what is wrong with FILE")
    words = parser.parse_args(arguments)
    settings, errors = read_settings(words.file, os.environ.get("CREDENTIALS_DIRECTORY", ""))
    for error in errors:
        log.critical(f"settings: {error}")
    if errors or words.check:
        return 1 if errors else 0
    return _run(settings)


def _run(settings: Settings) -> int:
    folder = os.environ.get("STATE_DIRECTORY")
    if not folder:
        log.critical("STATE_DIRECTORY does not say where to keep what has been taken")
        return 1
    if unfit := unfitness_of_library():
        log.critical(unfit)
        return 1
    try:
        state = State(f"{folder}/history.db")
        return _serve(settings, state)
    except sqlite3.Error as error:
        log.critical(f"state: {folder}/history.db: {error}")
        return 1


def _serve(settings: Settings, state: State) -> int:
    topics, inbox = Topics(settings.prefix), Inbox()
    service = Service(topics, settings.client_id, Database(settings.database), settings.database.rewrite_s, state,
                      inbox)
    session = Session(settings.broker, settings.client_id, topics.filter, state.mark(SUBSCRIBED), inbox)
    for number in (signal.SIGTERM, signal.SIGINT):
        signal.signal(number, lambda *_: session.stop())
    writer = _Writer(service, session)
    writer.start()
    notify("READY=1")
    pulse = _Pulse(writer, service)
    session.run(pulse.beat)
    notify("STOPPING=1")
    service.stop()
    writer.join()
    if writer.error is not None:
        raise writer.error
    state.close()
    return 0


class _Writer(threading.Thread):
    """Its error ends the program: nobody else could do its work."""

    def __init__(self, service: Service, session: Session) -> None:
        super().__init__(name="writer")
        self._service, self._session = service, session
        self.error: "BaseException | None" = None

    def run(self) -> None:
        try:
            self._service.run(self._session)
        except BaseException as error:
            self.error = error
            self._session.stop()


class _Pulse:
    """Signs of life for the service manager, as long as both threads have some."""

    def __init__(self, writer: _Writer, service: Service) -> None:
        self._writer, self._service = writer, service
        self._interval = watchdog_interval()
        self._last = 0.0

    def beat(self) -> None:
        now = time.monotonic()
        is_well = self._writer.is_alive() and now - self._service.beat < STUCK
        if self._interval is not None and is_well and now - self._last >= self._interval / 2:
            self._last = now
            notify("WATCHDOG=1", f"STATUS={self._service.counts.values} values written")
