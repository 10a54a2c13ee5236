"""What is published until the broker has acknowledged it: in which order, how much at a time, and how often."""

import contextlib
import shutil
import threading
import time

import pytest

from gatewayharness import PATIENCE, RECEIVED, without_repeats
from harness import BUILD, wait_until
from scriptedbroker import ScriptedBroker
from vorbelsim import CanFrame, build

AT_A_TIME = 20
FAULTS = BUILD / "gateway" / "tests" / "libpaho_faults.so"
EACH_MESSAGE = {"values": {"interval_ms": 0}}
NOT_AUTHORIZED = 0x87  # MQTT 5, 3.4.2.1
REFUSED = "warning broker: it refuses what is for vorbel/7/values: Not authorized: that is lost"


def is_batch(publish):
    return publish.topic == "vorbel/7/values"


def told_as_lost(gateway):
    """The lines of its log that say so."""
    return [line for line in gateway.lines() if line.endswith(" lost")]


def answer_all(_publish):
    return True


def answer_no_batch(publish):
    return not is_batch(publish)


def acknowledge_all(broker):
    """What waited, and what comes from now on."""
    broker.answer = answer_all
    for publish in filter(is_batch, list(broker.published)):
        broker.acknowledge(publish)


@pytest.fixture
def broker():
    broker = ScriptedBroker(answer_all)
    yield broker
    broker.close()


@pytest.fixture(params=["3.1.1", "5"])
def version(request):
    return request.param


class Board:
    """A gateway, and a bus that says one speed after the other: each is a batch."""

    def __init__(self, plant, broker, version, **more):
        """`more` is what Plant.start() takes."""
        self._plant, self._broker = plant, broker
        self._start = {"broker": {"url": broker.url, "version": version}, **EACH_MESSAGE, **more}
        self.said = 0
        self.start()

    def start(self):
        schemas = self._plant.daemon.count(RECEIVED)
        self._plant.start(wait=False, **self._start)
        self._plant.gateway.wait_for("info broker: connected to .* as vorbel-7")
        self._plant.daemon.wait_for(RECEIVED, schemas + 1)

    def say(self, count):
        self._plant.say_speeds(*range(self.said, self.said + count))
        self.said += count

    def wait_batches(self, count, connection=None):
        wait_until(lambda: len(self._broker.batches(connection)) >= count, PATIENCE, f"{count} batches")

    def wait_spooled(self, count):
        """Until so many batches wait in the spool. Its files move meanwhile."""
        def is_batch(path):
            with contextlib.suppress(FileNotFoundError):
                return b'"n":' in path.read_bytes()

        wait_until(lambda: sum(map(bool, map(is_batch, self.spool()))) >= count, PATIENCE, f"{count} batches spooled")

    def wait_settled(self):
        """Until the broker has acknowledged everything."""
        wait_until(lambda: self.spool() == [], PATIENCE, "an empty spool")

    def spool(self):
        """Its files, in the order in which they were written."""
        folders = [self._plant.folder / "gateway" / each / "spool" for each in ("run", "state")]
        paths = [path for folder in folders for path in folder.glob("message-*") if path.suffix == ""]
        return sorted(paths, key=lambda path: int(path.name.split("-")[1]))

    def wait_lost(self, count):
        """Until the last status says so."""
        def last():
            return [each.json for each in self._broker.published if each.topic == "vorbel/7/status"][-1].get("lost")

        wait_until(lambda: last() == count, PATIENCE, f"{count} lost")

    def next_connection(self, reason=None):
        """The number that the publisher's next connection has, when it has published something on it. For a reason, the
        one before may be ended."""
        before = {each.connection for each in self._broker.published}
        self._broker.cut(reason)

        def come():
            return {each.connection for each in self._broker.published} - before

        return wait_until(come, PATIENCE, "another connection").pop()


@pytest.fixture
def board(plant, broker, version):
    return Board(plant, broker, version)


def test_no_more_than_some_are_on_their_way(board, broker):
    broker.answer = answer_no_batch
    board.say(50)
    board.wait_batches(AT_A_TIME)
    board.wait_spooled(50)
    time.sleep(0.5)
    assert broker.batches() == list(range(AT_A_TIME))
    broker.acknowledge(next(filter(is_batch, broker.published)))
    board.wait_batches(AT_A_TIME + 1)
    time.sleep(0.2)
    assert broker.batches() == list(range(AT_A_TIME + 1))


def test_what_is_on_its_way_is_a_tenth_of_the_spool_at_most(make_plant, broker):
    """Or else nothing could be given up when it is full."""
    leaves = {f"leaf {at:03}": {"@mac": 5, "@cmd": 2, "@format": "s"} for at in range(500)}
    board = Board(make_plant(schema={"wide": leaves}), broker, "5", spool={"megabytes": 1})
    broker.answer = answer_no_batch
    board.say(30)
    board.wait_spooled(30)
    time.sleep(0.5)
    sizes = [len(each.payload) for each in filter(is_batch, broker.published)]
    assert 5000 < sizes[0] and sum(sizes[:-1]) < 100_000 <= sum(sizes)


def test_in_their_order_over_several_connections(board, broker):
    """What was said before a connection was lost and what was said since are on their way together when the next one is
    lost, too."""
    broker.answer = answer_no_batch
    board.say(40)
    board.wait_batches(AT_A_TIME)
    board.wait_spooled(40)
    broker.answer = lambda publish: publish.topic != "vorbel/7/values" or publish.json["n"] < 30
    second = board.next_connection()
    board.say(40)
    board.wait_batches(50, second)
    broker.answer = answer_all
    third = board.next_connection()
    board.wait_batches(50, third)
    assert broker.batches(second) == list(range(50))
    assert broker.batches(third) == list(range(30, 80))


def test_each_connection_begins_a_session_anew(board, broker):
    board.next_connection()
    assert len(broker.began_anew) >= 3 and all(broker.began_anew)


def test_a_reason_why_the_connection_ends_is_none_to_refuse_a_message(plant, board, broker):
    broker.answer = answer_no_batch
    board.say(5)
    board.wait_batches(5)
    broker.answer = answer_all
    again = board.next_connection(NOT_AUTHORIZED)
    board.wait_batches(5, again)
    assert broker.batches(again) == list(range(5))
    said = plant.gateway.log()
    assert "is lost" not in said
    ended = "warning broker: the broker ended the connection: Not authorized; trying again\n"
    assert said.count(ended) == (2 if broker.version == 5 else 0)


def test_what_was_acknowledged_does_not_come_again(board, broker):
    board.say(30)
    board.wait_batches(30)
    board.next_connection()
    board.say(1)
    board.wait_batches(31)
    assert broker.batches() == list(range(31))


OFFLINE = ("vorbel/7/status", b'{"online":false}')


@pytest.mark.parametrize("count", [5, 100])
def test_a_gateway_that_is_stopped_waits_for_acknowledgements(plant, board, broker, count):
    """All of them, and the last thing that it says is that it goes."""
    broker.answer = answer_no_batch
    board.say(count)
    board.wait_spooled(count)
    threading.Timer(0.5, acknowledge_all, [broker]).start()
    plant.stop_gateway()
    assert broker.batches() == list(range(count))
    assert (broker.published[-1].topic, broker.published[-1].payload) == OFFLINE
    assert OFFLINE not in broker.said
    board.start()
    board.say(1)
    board.wait_batches(count + 1)
    assert broker.batches() == [*range(count), 0]


def test_a_gateway_that_is_stopped_waits_two_seconds_at_most(plant, board, broker):
    broker.answer = answer_no_batch
    board.say(30)
    board.wait_spooled(30)
    before = time.monotonic()
    plant.stop_gateway()
    assert 2 <= time.monotonic() - before < 3.8
    assert broker.said[-1] == OFFLINE
    broker.answer = answer_all
    board.start()
    board.wait_batches(50)
    assert broker.batches() == [*range(20), *range(30)]
    statuses = [each for each in broker.published if each.topic == "vorbel/7/status"]
    assert [status.json["online"] for status in statuses[-2:]] == [True, True]  # of both lives


def test_what_is_lost_as_a_gateway_is_stopped_does_not_say_that_it_is_there(plant, board, broker):
    broker.answer = answer_no_batch
    board.say(30)
    board.wait_spooled(30)
    board.spool()[25].unlink()
    threading.Timer(0.5, acknowledge_all, [broker]).start()
    gateway = plant.gateway
    plant.stop_gateway()
    assert told_as_lost(gateway) == ["warning spool: 1 files cannot be read any more: they are lost"]
    statuses = [each.payload for each in broker.published if each.topic == "vorbel/7/status"]
    assert statuses[-1] == OFFLINE[1]


def test_what_a_gateway_leaves_that_is_stopped_without_a_broker_is_on_the_disk(plant, board, broker):
    board.say(1)
    board.wait_batches(1)
    board.wait_settled()
    broker.close()
    plant.gateway.wait_for("warning broker: the connection was lost; trying again", 2)
    board.say(5)
    board.wait_spooled(5)
    plant.stop_gateway()
    assert [path.parent.parent.name for path in board.spool()] == 6 * ["state"]  # the last one is its status


def test_a_gateway_that_is_killed_twice_keeps_the_order(plant, board, broker):
    broker.answer = answer_no_batch
    board.say(40)
    board.wait_spooled(40)
    for _ in range(2):
        plant.gateway.kill()
        plant.gateway = None
        board.start()
        board.say(10)
        board.wait_spooled(board.said)
    broker.answer = answer_all
    before = len(broker.published)
    board.next_connection()
    board.wait_batches(60)

    def said():
        return without_repeats((each.json["boot"], each.json["n"]) for each in broker.published[before:]
                               if is_batch(each))

    wait_until(lambda: len(said()) == 60, PATIENCE, "all batches")
    boots = sorted({boot for boot, _ in said()})
    assert said() == [(boot, n) for boot, count in zip(boots, (40, 10, 10)) for n in range(count)]


def test_what_a_broker_refuses_is_lost_and_told(plant, broker):
    board = Board(plant, broker, "5")
    broker.answer = lambda publish: NOT_AUTHORIZED if is_batch(publish) and publish.json["n"] < 3 else True
    board.say(5)
    board.wait_batches(5)
    board.next_connection()
    board.say(1)
    board.wait_batches(6)
    assert broker.batches() == list(range(6))
    assert told_as_lost(plant.gateway) == [REFUSED]


def test_a_refusal_is_told_once_on_each_connection(plant, broker):
    board = Board(plant, broker, "5")
    broker.answer = lambda publish: NOT_AUTHORIZED if is_batch(publish) else True
    board.say(3)
    board.wait_batches(3)
    board.wait_settled()
    board.next_connection()
    board.say(3)
    board.wait_batches(6)
    board.wait_settled()
    assert told_as_lost(plant.gateway) == [REFUSED, REFUSED]


def test_each_topic_that_a_broker_refuses_is_told_once(plant, broker):
    board = Board(plant, broker, "5")
    broker.answer = lambda publish: NOT_AUTHORIZED
    board.say(3)
    board.wait_batches(3)
    plant.stop_daemon()
    plant.start_daemon()
    plant.daemon.wait_for(RECEIVED)
    board.say(3)
    board.wait_batches(6)
    told = [line.split(" is for ")[1] for line in plant.gateway.lines() if line.endswith(" lost")]
    assert len(told) == len(set(told))
    assert {f"vorbel/7/{topic}: Not authorized: that is lost" for topic in ("status", "values")} <= set(told)


def test_what_waits_does_not_wait_again_after_each_connection(board, broker):
    """However often the broker ends a connection without having acknowledged anything."""
    broker.answer = lambda publish: False
    board.say(30)
    board.wait_spooled(30)
    spooled = []
    for _ in range(3):
        board.wait_batches(18, board.next_connection())
        time.sleep(0.5)
        spooled.append(len(board.spool()))
    assert spooled == 3 * [spooled[0]]


def test_a_value_is_not_taken_away_by_what_waited_since_it_was_gone(plant, board, broker):
    """The schema had it, had it not, and has it again, while batches wait."""
    wait_until(lambda: (board.say(1), "vorbel/7/now/motor/speed" in dict(broker.said))[1], PATIENCE, "a value")
    broker.answer = answer_no_batch
    board.say(30)
    board.wait_spooled(30)
    schema = plant.schema_file.read_text()
    for text in ('{"other": {"@mac": 40, "@cmd": 2, "@format": "C"}}', schema):
        plant.stop_gateway()
        plant.schema_file.write_text(text)
        board.start()
    told = len(broker.said)
    board.say(1)
    wait_until(lambda: "vorbel/7/now/motor/speed" in dict(broker.said[told:]), PATIENCE, "the value")
    broker.answer = answer_all
    board.next_connection()
    board.say(1)
    wait_until(lambda: broker.batches() and not board.spool(), PATIENCE, "all batches")
    assert "vorbel/7/now/motor/speed" not in [each.topic for each in broker.published]


def test_a_disk_that_is_full_is_told_once_however_briefly_anything_waits(plant, broker):
    """Now and then nothing waits, when it is looked after the disk."""
    board = Board(plant, broker, "5")
    wait_until(lambda: len(broker.published) >= 2 and not board.spool(), PATIENCE, "status and schema to be there")
    broker.answer = answer_no_batch
    for folder in ("run", "state"):
        shutil.rmtree(plant.folder / "gateway" / folder / "spool")
    for count in range(1, 4):
        board.say(1)
        board.wait_batches(count)
        time.sleep(1.2)  # it is looked each second
        broker.acknowledge(broker.published[-1])
        time.sleep(1.2)
    assert [line for line in plant.gateway.lines() if line.startswith("warning spool: ")] == [
        f"warning spool: cannot write to {plant.folder}/gateway/run/spool: "
        "what the broker has not acknowledged is kept in memory"]


def test_what_vanishes_from_the_spool_is_lost_and_told(plant, board, broker):
    broker.answer = answer_no_batch
    board.say(30)
    board.wait_spooled(30)
    board.spool()[25].unlink()
    broker.answer = answer_all
    again = board.next_connection()
    wait_until(lambda: 29 in broker.batches(), PATIENCE, "the last batch")
    assert broker.batches(again) == [n for n in range(30) if n != 25]
    board.wait_lost(1)
    board.next_connection()
    board.say(1)
    wait_until(lambda: 30 in broker.batches(), PATIENCE, "a batch on the next connection")
    board.wait_lost(1)
    assert told_as_lost(plant.gateway) == ["warning spool: 1 files cannot be read any more: they are lost"]


def test_beyond_its_bound_goes_what_is_not_on_its_way(plant, broker, version):
    """A MB has room for 244 files of 4 kB, and nine tenths of it for 219."""
    board = Board(plant, broker, version, spool={"megabytes": 1})
    broker.answer = answer_no_batch
    board.say(244)
    board.wait_spooled(244)
    board.say(1)
    plant.gateway.wait_for("warning spool: .*")
    assert told_as_lost(plant.gateway) == ["warning spool: larger than 1 MB: the oldest 26 batches are lost"]
    board.say(5)
    board.wait_spooled(224)
    acknowledge_all(broker)
    board.wait_batches(224)
    board.wait_lost(26)
    assert broker.batches() == [*range(20), *range(46, 250)]


def test_a_bound_that_was_lowered_holds_before_anything_comes(plant, board, broker):
    broker.answer = answer_no_batch
    board.say(280)
    board.wait_spooled(280)
    plant.stop_gateway()
    again = Board(plant, broker, "5", spool={"megabytes": 1})
    plant.gateway.wait_for("warning spool: larger than 1 MB: the oldest .* batches are lost")
    assert len(again.spool()) < 280


@pytest.fixture
def wide_plant(make_plant):
    """Its batches take more than 60 kB each."""
    return make_plant(schema={"wide": {f"{at:0120}": {"@mac": 7, "@cmd": 1, "@format": "I"} for at in range(500)}})


def say_wide(plant, count):
    plant.say(*(CanFrame.vek(7, 1, number.to_bytes(4, "little")) for number in range(count)))


def test_what_a_connection_did_not_carry_any_more_comes_once_on_the_next_one(wide_plant, broker, version):
    """Of what is on its way, the gateway's library still has a part itself when the network takes no more."""
    board = Board(wide_plant, broker, version)
    carries_on = threading.Event()
    broker.answer = lambda publish: not is_batch(publish) or carries_on.wait(PATIENCE)
    say_wide(wide_plant, 18)
    board.wait_spooled(18)
    time.sleep(0.5)
    broker.answer = answer_all
    again = board.next_connection()
    carries_on.set()
    board.wait_batches(18, again)
    time.sleep(0.5)
    assert broker.batches(again) == list(range(18))


def test_what_is_damaged_when_the_gateway_starts_is_lost_and_told(plant, board, broker):
    broker.answer = answer_no_batch
    board.say(5)
    board.wait_spooled(5)
    plant.gateway.kill()
    for path in board.spool()[1:3]:
        path.write_bytes(path.read_bytes()[:-1])
    broker.answer = answer_all
    before = len(broker.published)
    board.start()
    board.wait_lost(2)
    assert [each.json["n"] for each in filter(is_batch, broker.published[before:])] == [0, 3, 4]
    assert told_as_lost(plant.gateway) == [
        "warning spool: 2 files were damaged, perhaps when the machine lost its power: they are lost"]


class PahoFault:
    """While it lasts, the gateway's library for MQTT takes nothing that is to be acknowledged."""

    def __init__(self, path):
        self._path = path

    @property
    def environment(self):
        return {"VORBEL_PAHO_FAULT": self._path, "LD_PRELOAD": FAULTS, "ASAN_OPTIONS": build.sanitizer_options()}

    def begin(self, code):
        self._path.write_text(str(code))

    def end(self):
        self._path.unlink()


@pytest.fixture
def fault(tmp_path):
    return PahoFault(tmp_path / "fault")


@pytest.fixture
def faulty_board(plant, broker, version, fault):
    """It has said 0, and nothing waits for an acknowledgement."""
    board = Board(plant, broker, version, options={"environment": fault.environment})
    board.say(1)
    board.wait_batches(1)
    board.wait_settled()
    return board


def test_what_is_not_taken_is_offered_again_in_its_order(plant, faulty_board, broker, fault):
    fault.begin(-12)
    faulty_board.say(2)
    plant.gateway.wait_for(r"warning broker: cannot publish on vorbel/7/values: MQTT error \[-12\].+; trying again")
    time.sleep(2.5)  # in which it is offered twice
    fault.end()
    faulty_board.wait_batches(3)
    faulty_board.say(1)
    faulty_board.wait_batches(4)
    assert broker.batches() == [0, 1, 2, 3]


def test_what_is_not_taken_because_the_connection_is_lost_waits_for_the_next_one(plant, faulty_board, broker, fault):
    fault.begin(-3)
    faulty_board.say(2)
    faulty_board.wait_spooled(2)
    time.sleep(0.2)
    fault.end()
    faulty_board.next_connection()
    faulty_board.wait_batches(3)
    assert broker.batches() == [0, 1, 2]
    assert "cannot publish" not in plant.gateway.log()
