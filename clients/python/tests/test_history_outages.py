"""What the history does when something ends: each value is there once, shown by counting."""

import contextlib
import threading
import time

import pytest

from histories import Board, Database, History, Mosquitto, Nats, milliseconds, wait_until

AWAY = "<4>database: Connection refused; trying again"
BROKERS = {"mosquitto": Mosquitto, "nats": Nats}


class Plant:
    """A broker, a database, the history, and boards that publish all the time."""

    def __init__(self, folder, broker):
        self.broker = broker(folder).start()
        self.database = Database(folder).start()
        self.boards = [Board(self.broker.port, f"press{number}") for number in (1, 2, 3)]
        for board in self.boards:
            board.settle()
        self.history = History(folder, self.broker, self.database).start()
        wait_until(self.is_subscribed, "the subscription")
        self._clock = milliseconds() - 3_600_000
        self._is_ending = threading.Event()
        self._talk = threading.Thread(target=self._publish)

    def is_subscribed(self):
        """What is said is written."""
        self.boards[0].say([], 0)
        self.boards[0].say_speeds(1, milliseconds() - 7_200_000 + self.boards[0].number)
        self.boards[0].settle()
        return self.database.series().get(("press1", "motor.speed"))

    def _publish(self):
        while not self._is_ending.wait(0.05):
            for board in self.boards:
                board.say_speeds(10, self._clock)
            self._clock += 100

    @contextlib.contextmanager
    def talking(self):
        self._talk.start()
        yield
        self._is_ending.set()
        self._talk.join()
        for board in self.boards:
            board.settle()

    def wait_written(self, count):
        """Until so many values more are there."""
        before = self.count()
        wait_until(lambda: self.count() >= before + count, f"{count} values")

    def count(self):
        return sum(map(len, self.database.series().values()))

    def said(self):
        """{(board, path, ms): value}"""
        return {(board.name, path, time): value for board in self.boards for (path, time), value in board.said.items()}

    def found(self):
        """All that is in the database, each as often as it is there."""
        return [(board, path, time, value) for (board, path), points in self.database.series().items()
                for time, value in points]

    def assert_all_there_once(self):
        said = self.said()
        wait_until(lambda: self.count() >= len(said), f"{len(said)} values; there are {self.count()}")
        found = self.found()
        assert len(found) == len(said)
        assert {(board, path, time): value for board, path, time, value in found} == said

    def assert_all_there_once_or_told_missing(self):
        """What the broker itself has lost is as many batches as the history says."""
        wait_until(lambda: self.lost() == self.told_missing(), "what is missing to come or to be told", 90)
        found = self.found()
        there = {(board, path, time): value for board, path, time, value in found}
        assert len(found) == len(there) and there.items() <= self.said().items()

    def lost(self):
        """How many of each board's batches are not there."""
        there = {(board, path, time) for board, path, time, _ in self.found()}
        return {board.name: len({number for (path, time), number in board.number_of.items()
                                 if (board.name, path, time) not in there}) for board in self.boards}

    def told_missing(self):
        gaps = self.database.series("vorbel_gap")
        return {board.name: sum(count for _, count in gaps.get((board.name, None), ())) for board in self.boards}

    def close(self):
        self._is_ending.set()
        for client in self.boards:
            client.close()
        for process in (self.history, self.database, self.broker):
            process.end()


@pytest.fixture(params=BROKERS)
def plant(request, tmp_path):
    plant = Plant(tmp_path, BROKERS[request.param])
    yield plant
    plant.close()


def test_nothing_ends(plant):
    with plant.talking():
        plant.wait_written(1000)
    plant.assert_all_there_once()
    assert not plant.database.series("vorbel_gap")
    assert plant.history.stop() == 0


def test_the_service_is_killed_again_and_again(plant):
    with plant.talking():
        for _ in range(5):
            plant.wait_written(200)
            plant.history.kill()
            time.sleep(0.3)
            plant.history.start()
        plant.wait_written(200)
    plant.assert_all_there_once()
    assert not plant.database.series("vorbel_gap")
    assert "missing" not in plant.history.log()


def test_the_database_is_killed_again_and_again(plant):
    with plant.talking():
        for _ in range(3):
            plant.wait_written(1000)
            plant.database.kill()
            time.sleep(0.5)
            plant.database.start()
        plant.wait_written(200)
    plant.assert_all_there_once()
    assert not plant.database.series("vorbel_gap")


def test_service_and_database_are_killed_together(plant):
    with plant.talking():
        for _ in range(2):
            plant.wait_written(1000)
            plant.database.kill()
            plant.history.kill()
            plant.database.start()
            plant.history.start()
        plant.wait_written(200)
    plant.assert_all_there_once()


def test_the_database_is_away_for_long(plant):
    with plant.talking():
        plant.wait_written(200)
        plant.database.stop()
        before = plant.boards[0].number
        wait_until(lambda: plant.boards[0].number >= before + 400, "a backlog")  # more than any broker hands out
        plant.history.kill()
        plant.history.start()
        wait_until(lambda: plant.history.log().count(AWAY) == 2, "a line in the log of each run")
        time.sleep(1)
        plant.database.start()
        plant.wait_written(200)
    plant.assert_all_there_once()
    assert plant.history.log().count(AWAY) == 2
    assert "<6>database: it takes values again" in plant.history.log()


def test_the_broker_is_stopped_and_comes_back(plant):
    with plant.talking():
        for _ in range(2):
            plant.wait_written(500)
            plant.broker.stop()
            time.sleep(0.5)
            plant.broker.start()
        plant.wait_written(200)
    if isinstance(plant.broker, Nats):  # which may lose what it acknowledges while it is stopped
        plant.assert_all_there_once_or_told_missing()
    else:
        plant.assert_all_there_once()


def test_the_broker_is_killed_and_comes_back(plant):
    with plant.talking():
        plant.wait_written(500)
        time.sleep(1.5)  # mosquitto has saved that there is a session
        plant.broker.kill()
        plant.broker.start()
        plant.wait_written(200)
    plant.assert_all_there_once_or_told_missing()


def test_what_is_said_while_the_service_is_away_waits(plant):
    with plant.talking():
        plant.wait_written(200)
        assert plant.history.stop() == 0
        before = plant.boards[0].number
        wait_until(lambda: plant.boards[0].number >= before + 200, "a backlog")
        plant.history.start()
        plant.wait_written(200)
    plant.assert_all_there_once()
