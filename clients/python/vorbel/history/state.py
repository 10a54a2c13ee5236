"""What has to outlive the service: of each board its schemas and what has been taken of it, and what the database may
have taken without having it on its disk."""

import sqlite3
import zlib
from collections.abc import Iterator, Mapping
from typing import Optional

_TABLES = """
    CREATE TABLE IF NOT EXISTS boards (name TEXT PRIMARY KEY, state TEXT NOT NULL);
    CREATE TABLE IF NOT EXISTS schemas (key TEXT PRIMARY KEY, text BLOB NOT NULL);
    CREATE TABLE IF NOT EXISTS recent (number INTEGER PRIMARY KEY, time REAL NOT NULL, lines BLOB NOT NULL);
    CREATE TABLE IF NOT EXISTS marks (name TEXT PRIMARY KEY, value TEXT NOT NULL);
"""
_LAYOUT = 1  # of the tables
_FASTEST = 1  # of the levels of compression


class State:
    """A file that is as it was before or after a commit, whenever the machine loses its power."""

    def __init__(self, path: str) -> None:
        """Raises sqlite3.Error."""
        self._file = sqlite3.connect(path, isolation_level=None, check_same_thread=False)
        self._file.execute("PRAGMA journal_mode = WAL")
        self._file.execute("PRAGMA synchronous = FULL")
        (layout,) = self._file.execute("PRAGMA user_version").fetchone()
        if layout > _LAYOUT:
            raise sqlite3.DatabaseError("it is of a later version")
        self._file.executescript(_TABLES)
        self._file.execute(f"PRAGMA user_version = {_LAYOUT}")

    def close(self) -> None:
        self._file.close()

    # What it holds

    def boards(self) -> dict[str, str]:
        return dict(self._file.execute("SELECT name, state FROM boards"))

    def schemas(self) -> dict[str, bytes]:
        return dict(self._file.execute("SELECT key, text FROM schemas"))

    def mark(self, name: str) -> Optional[str]:
        row = self._file.execute("SELECT value FROM marks WHERE name = ?", (name,)).fetchone()
        return row[0] if row else None

    def recent(self) -> Iterator[bytes]:
        """What was written of late, in its order."""
        numbers = [number for (number,) in self._file.execute("SELECT number FROM recent ORDER BY number")]
        for number in numbers:
            (lines,) = self._file.execute("SELECT lines FROM recent WHERE number = ?", (number,)).fetchone()
            yield zlib.decompress(lines)

    # Changes

    def commit(self, boards: Mapping[str, str], schemas: Optional[Mapping[str, bytes]], lines: bytes, now: float,
               until: float) -> None:
        """These boards are so, these are all schemas (None: those that there are), and these lines were written; what
        was written before `until` is forgotten."""
        execute, execute_each = self._file.execute, self._file.executemany
        execute("BEGIN")
        if schemas is not None:
            known = [key for (key,) in execute("SELECT key FROM schemas")]
            execute_each("DELETE FROM schemas WHERE key = ?", [(key,) for key in known if key not in schemas])
            execute_each("INSERT OR IGNORE INTO schemas VALUES (?, ?)", schemas.items())
        execute_each("INSERT OR REPLACE INTO boards VALUES (?, ?)", boards.items())
        execute("DELETE FROM recent WHERE time < ?", (until,))
        if lines and until < now:
            execute("INSERT INTO recent (time, lines) VALUES (?, ?)", (now, zlib.compress(lines, _FASTEST)))
        execute("COMMIT")

    def renew_recent(self, now: float) -> None:
        """What was written of late has just been written again."""
        self._file.execute("UPDATE recent SET time = ?", (now,))

    def set_mark(self, name: str, value: str) -> None:
        self._file.execute("INSERT OR REPLACE INTO marks VALUES (?, ?)", (name, value))
