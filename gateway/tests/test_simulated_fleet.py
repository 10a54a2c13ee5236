"""The simulated fleet speaks as gateways do, by the page's table of topics, and counts what it says."""

import contextlib
import json
import re

import pytest

from gatewayharness import PATIENCE, PROGRAM, Listener, Mosquitto, Process, milliseconds, retained
from harness import wait_until

FLEET = PROGRAM.parents[1] / "sim" / "vorbel_sim_fleet"
DAY = 24 * 3600 * 1000


class Fleet(Process):
    def __init__(self, folder, broker, *words):
        super().__init__([str(word) for word in (FLEET, "--broker", broker.url, *words)], folder / "fleet.log")

    def tally(self):
        return json.loads([line for line in self.lines() if line.startswith("{")][-1])


@pytest.fixture
def broker(tmp_path):
    broker = Mosquitto(tmp_path).start()
    yield broker
    broker.stop()


@pytest.fixture
def fleet(tmp_path, broker):
    """fleet(WORD...) starts one."""
    with contextlib.ExitStack() as stack:
        def start(*words):
            fleet = Fleet(tmp_path, broker, *words)
            stack.callback(lambda: fleet.alive() and fleet.kill())
            return fleet

        yield start


@pytest.fixture
def listener(broker):
    listener = Listener(broker.port, base="vorbel/")
    yield listener
    listener.close()


def values_of(listener, board):
    return [message.json for message in listener.of(f"{board}/values")]


def test_each_board_says_what_the_table_says(fleet, listener, broker):
    before = milliseconds()
    fleet("--boards", 2, "--values", 8)
    for board in ("board1", "board2"):
        status = listener.wait(f"{board}/status").json
        assert list(status) == ["online", "type", "id", "since", "boot", "lost"]
        assert (status["online"], status["type"], status["id"], status["lost"]) == (True, "plant", board, 0)
        assert before <= status["since"] <= milliseconds()
        listener.wait_count(f"{board}/values", 3)
        first, second = values_of(listener, board)[:2]
        assert list(first) == ["boot", "n", "t", "v"]
        assert (first["boot"], first["n"], second["n"]) == (status["boot"], 0, 1)
    kept = retained(broker.port)
    assert {"vorbel/board1/status", "vorbel/board1/schema", "vorbel/board1/now/axis1/speed"} <= set(kept)


def test_each_value_comes_once_a_second_and_as_its_schema_says(fleet, listener):
    fleet("--boards", 1, "--values", 8)
    listener.wait_count("board1/values", 4)
    schema = listener.of("board1/schema")[0].json
    assert list(schema) == ["axis1", "axis2"]
    times = {"axis1": [], "axis2": []}
    for batch in values_of(listener, "board1"):
        for offset, message in batch["v"]:
            ((axis, readings),) = message.items()
            assert set(readings) == set(schema[axis]) - {"setpoint"}
            times[axis].append(batch["t"] + offset)
    for moments in times.values():
        gaps = [later - earlier for earlier, later in zip(moments, moments[1:])]
        assert sum(gaps) / len(gaps) == pytest.approx(1000, rel=0.1)


def test_a_latest_value_is_what_the_reading_stands_for(fleet, listener):
    fleet("--boards", 1, "--values", 4, "--now", 3600000)
    latest = listener.wait("board1/now/axis1/load").json
    listener.wait("board1/values")
    reading = values_of(listener, "board1")[0]["v"][0][1]["axis1"]["load"]
    assert latest == pytest.approx(reading / 10)


def test_it_obeys_a_set_point_and_says_so(fleet, listener):
    fleet("--boards", 2, "--values", 4)
    listener.wait("board2/values")
    listener.publish("board2/set/anna/axis1/setpoint", "900")
    done = listener.wait("board2/done").json
    assert (done["user"], done["path"], done["value"], done["raw"], done["ok"], done["error"]) == (
        "anna", "axis1.setpoint", 900, 900, True, None)

    def speed(board):
        return values_of(listener, board)[-1]["v"][-1][1]["axis1"]["speed"]

    wait_until(lambda: abs(speed("board2") - 900) <= 15, PATIENCE, "the speed to follow")
    assert abs(speed("board1") - 1200) <= 15, "the other board has its own"


@pytest.mark.parametrize("path, payload, error", [
    ("axis1/speed", "1", "the schema in force has no such value"),
    ("axis2/setpoint", "1", "the schema in force has no such value"),
    ("axis1/setpoint", "nonsense", ".*JSON.*"),
    ("axis1/setpoint", '{"value":1,"time":1000}', ".*old.*"),
])
def test_it_refuses_what_a_gateway_refuses(fleet, listener, path, payload, error):
    fleet("--boards", 1, "--values", 4)
    listener.wait("board1/values")
    listener.publish(f"board1/set/anna/{path}", payload)
    done = listener.wait("board1/done").json
    assert (done["ok"], done["raw"]) == (False, None)
    assert re.fullmatch(error, done["error"])


def test_the_same_order_is_obeyed_once(fleet, listener):
    fleet("--boards", 1, "--values", 4)
    listener.wait("board1/values")
    order = json.dumps({"value": 900, "time": milliseconds()})
    for payload in (order, order, "901"):
        listener.publish("board1/set/anna/axis1/setpoint", payload)
    assert [done.json["value"] for done in listener.wait_count("board1/done", 2)] == [900, 901]


def test_a_past_comes_first_a_reading_a_minute(fleet, listener):
    now = milliseconds()
    fleet("--boards", 1, "--values", 4, "--past", 1)
    wait_until(lambda: sum(len(batch["v"]) for batch in values_of(listener, "board1")) >= 1440, PATIENCE, "a day")
    times = [batch["t"] + offset for batch in values_of(listener, "board1") for offset, _ in batch["v"]][:1440]
    assert times[0] == pytest.approx(now - DAY, abs=20_000)
    assert {later - earlier for earlier, later in zip(times, times[1:])} == {60_000}


def test_it_counts_what_it_published_and_says_goodbye(fleet, listener):
    running = fleet("--boards", 3, "--values", 12)
    for board in ("board1", "board2", "board3"):
        listener.wait_count(f"{board}/values", 2)
    assert running.stop() == 0
    listener.wait_last("board3/status", b'{"online":false}')
    heard = sum(len(readings) for number in (1, 2, 3) for batch in values_of(listener, f"board{number}")
                for _, message in batch["v"] for readings in message.values())
    assert running.tally() == {"connected": 3, "published": heard, "dropped": 0}


def test_killed_it_is_told_by_the_broker(fleet, listener):
    running = fleet("--boards", 1, "--values", 4)
    listener.wait("board1/values")
    running.kill()
    listener.wait_last("board1/status", b'{"online":false}')


def test_without_a_broker_it_counts_what_it_drops_and_goes_on(fleet, listener, broker):
    running = fleet("--boards", 1, "--values", 4, "--interval", 200)
    listener.wait_count("board1/values", 2)
    broker.stop()
    wait_until(lambda: running.tally()["dropped"] >= 8, PATIENCE, "values to be dropped")
    assert running.tally()["connected"] == 0
    listener.expect_new_connection()
    broker.start()
    listener.wait_subscribed()
    count = len(listener.of("board1/values"))
    listener.wait_count("board1/values", count + 2)
    assert_nothing_heard_twice(listener)


def assert_nothing_heard_twice(listener):
    numbers = [(batch["boot"], batch["n"]) for batch in values_of(listener, "board1")]
    assert len(numbers) == len(set(numbers))


def test_it_explains_itself(tmp_path, broker):
    running = Fleet(tmp_path, broker, "--help")
    assert running.wait_ended() == 0
    assert re.search(r"--boards <WORD>", running.log())
