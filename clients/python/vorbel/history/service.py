"""The thread that turns what has come into lines, writes them, and only then acknowledges it."""

import threading
import time
from collections.abc import Sequence
from typing import Optional

from . import log
from .batches import Refused
from .board import Board, Schemas, Written
from .database import Away, Database, Poison, join
from .inbox import Inbox, Message
from .lines import MEASUREMENT, is_name
from .session import Session
from .state import State
from .topics import Topics

ROUND = 1024 * 1024  # bytes of messages that are written at a time
IDLE = 1.0  # seconds
PAUSE_LEAST, PAUSE_MOST = 0.1, 5.0  # seconds between attempts to write
BOARDS_LIMIT = 10_000
COUNTS_INTERVAL = 60.0  # seconds between the lines about the service itself
KINDS = ("values", "schema", "status")
SUBSCRIBED = "subscribed"  # the mark of the filter that the broker's session has

Line = tuple[str, int]


class Counts:
    """Since the start of the service."""

    def __init__(self) -> None:
        self.batches = self.values = self.repeated = self.missing = self.overwritten = self.refused = self.unfit = 0

    def line(self, client_id: str) -> str:
        name = "".join(character if character.isalnum() else "-" for character in client_id)
        fields = ",".join(f"{field}={count}" for field, count in vars(self).items())
        return f"{MEASUREMENT}_history,service={name} {fields}"


class Service:
    """What has come is taken in rounds: as much as there is, while the database takes what came before."""

    def __init__(self, topics: Topics, client_id: str, database: Database, rewrite: float, state: State,
                 inbox: Inbox) -> None:
        self._topics, self._client_id = topics, client_id
        self._database, self._rewrite, self._state = database, rewrite, state
        self._inbox = inbox
        self._schemas = Schemas(state.schemas())
        self._boards = {name: Board(name, self._schemas, saved) for name, saved in state.boards().items()}
        self._touched: set[str] = set()  # boards whose state is not saved
        self._holed = {name for name, board in self._boards.items() if board.has_holes}
        self._has_new_schema = False
        self.counts = Counts()
        self._counted = float("-inf")
        self._refusals = log.Refusals()
        self._unfit: set[str] = set()  # boards of which it was told
        self._trouble = log.Trouble()
        self._subscribed = state.mark(SUBSCRIBED)
        self._is_suspect = True  # the database may have lost what it had taken last
        self._has_failed = False
        self.beat = time.monotonic()
        self._stopping = threading.Event()

    def stop(self) -> None:
        self._stopping.set()
        self._inbox.close()

    def run(self, session: Session) -> None:
        """Until stopped."""
        while not self._stopping.is_set():
            self.beat = time.monotonic()
            messages = self._inbox.take(ROUND, IDLE)
            self._remember_subscription(session.subscribed)
            if self._settle(messages):
                session.acknowledge([message for message in messages if message.mid])

    def _remember_subscription(self, subscribed: Optional[str]) -> None:
        if subscribed != self._subscribed and subscribed is not None:
            self._state.set_mark(SUBSCRIBED, subscribed)
        self._subscribed = subscribed

    # One round

    def _settle(self, messages: Sequence[Message]) -> bool:
        """Whether the database has all that these messages say, and the state says so."""
        lines = [line for message in messages for line in self._convert(message)]
        lines += self._gaps()
        lines += self._own_lines(bool(lines))
        if not lines and self._is_suspect:
            self._attempt(b"")
        text = self._write(lines) if lines else b""
        if text is None:
            return False
        if self._touched:
            self._commit(text)
        return True

    def _gaps(self) -> list[Line]:
        lines = []
        now = time.monotonic()
        for name in [name for name in self._holed if self._boards[name].has_holes]:
            for gap in self._boards[name].gaps(now):
                self.counts.missing += gap.missing
                log.warning(f"{name}: {gap.missing} batches are missing before {gap.following} of boot {gap.boot}")
                lines.append(gap.line)
                self._touched.add(name)
        self._holed = {name for name in self._holed if self._boards[name].has_holes}
        return lines

    def _commit(self, text: bytes) -> None:
        if self._has_new_schema:
            self._schemas.keep({key for board in self._boards.values() for key in board.used_schemas()})
        boards = {name: self._boards[name].saved() for name in self._touched}
        now = time.monotonic()
        self._state.commit(boards, self._schemas.texts if self._has_new_schema else None, text, now,
                           now - self._rewrite)
        self._has_new_schema = False
        self._touched.clear()

    def _own_lines(self, has_others: bool) -> list[Line]:
        now = time.monotonic()
        if not has_others or now - self._counted < COUNTS_INTERVAL:
            return []
        self._counted = now
        return [self._own_line()]

    def _own_line(self) -> Line:
        return self.counts.line(self._client_id), int(time.time() * 1000)

    # To the database

    def _write(self, lines: Sequence[Line]) -> Optional[bytes]:
        """Returns what the database has taken, which is all but what it refuses for good; None when stopped."""
        pause = PAUSE_LEAST
        while not self._stopping.is_set():
            self.beat = time.monotonic()
            taken = self._attempt(join(lines), lines)
            if taken is not None:
                return taken
            self._stopping.wait(pause)
            pause = min(2 * pause, PAUSE_MOST)
        return None

    def _attempt(self, text: bytes, lines: Sequence[Line] = ()) -> Optional[bytes]:
        """What was taken; None while the database is away."""
        try:
            if self._is_suspect:
                self._write_again()
            if text:
                text = self._post(text, lines)
        except Away as away:
            self._is_suspect = self._is_suspect or away.may_have_ended
            if self._has_failed:  # not at once: a connection that was idle may have been closed
                self._trouble.tell(f"database: {away}; trying again")
            self._has_failed = True
            return None
        self._has_failed = False
        if self._trouble.over():
            log.info("database: it takes values again")
        return text

    def _write_again(self) -> None:
        """A database that ended in a way that nobody knows may have forgotten what it had taken last."""
        for lines in self._state.recent():
            self.beat = time.monotonic()
            try:
                self._database.write(lines)
            except Poison:
                pass  # it had taken them
        self._state.renew_recent(time.monotonic())
        self._is_suspect = False

    def _post(self, text: bytes, lines: Sequence[Line]) -> bytes:
        try:
            self._database.write(text)
            return text
        except Poison as poison:
            self._test(poison)
            return join(self._without_poison(lines, poison))

    def _test(self, poison: Poison) -> None:
        """Whoever refuses a line that is certainly good, refuses it for another reason."""
        try:
            self._database.write(join([self._own_line()]))
        except Poison:
            raise Away(str(poison), may_have_ended=False) from None

    def _without_poison(self, lines: Sequence[Line], poison: Poison) -> list[Line]:
        """Writes halves of halves, until nothing is left but what is refused."""
        self.beat = time.monotonic()
        if len(lines) == 1:
            self._refuse(f"by the database, {poison}: {lines[0][0][:200]}")
            return []
        taken: list[Line] = []
        for half in (lines[:len(lines) // 2], lines[len(lines) // 2:]):
            try:
                self._database.write(join(half))
                taken += half
            except Poison as again:
                taken += self._without_poison(half, again)
        return taken

    # From messages to lines

    def _convert(self, message: Message) -> Sequence[Line]:
        topic = self._topics.parse(message.topic)
        if topic is None or topic.kind not in KINDS:
            return []
        board = self._board(topic.board)
        if board is None:
            return []
        self._touched.add(board.name)
        try:
            return self._hear(board, topic.kind, message.payload)
        except Refused as refused:
            self._refuse(f"{board.name}/{topic.kind}: {refused}")
            return []

    def _board(self, name: str) -> Optional[Board]:
        if name in self._boards:
            return self._boards[name]
        if not is_name(name):
            self._refuse(f"a board named {name[:100]!a}")
        elif len(self._boards) >= BOARDS_LIMIT:
            self._refuse(f"{name}: more than {BOARDS_LIMIT} boards")
        else:
            self._boards[name] = Board(name, self._schemas)
        return self._boards.get(name)

    def _refuse(self, what: str) -> None:
        self.counts.refused += 1
        self._refusals.tell(f"refused: {what}", time.monotonic())

    def _hear(self, board: Board, kind: str, payload: bytes) -> Sequence[Line]:
        if kind == "status":
            board.hear_status(payload)
            return []
        if kind == "schema":
            board.hear_schema(payload)
            self._has_new_schema = True
            return []
        written = board.take(payload)
        self._count(board, written)
        return written.lines

    def _count(self, board: Board, written: Written) -> None:
        counts, unfit = self.counts, written.lines.unfit
        counts.batches += 1
        counts.repeated += written.is_repeated
        counts.values += written.values
        counts.overwritten += written.overwritten
        counts.unfit += unfit
        if unfit and board.name not in self._unfit:
            self._unfit.add(board.name)
            log.warning(f"{board.name}: {unfit} values of a batch are no numbers, or have a name that cannot be "
                        "written, or are too many; such values are left out")
        if board.has_holes:
            self._holed.add(board.name)
