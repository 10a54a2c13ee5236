"""Whose schema the daemon has, when several clients have one: who sent the last one owns it."""

import asyncio
import contextlib
import logging
import re
import time

import pytest

import harness
import vorbel
from bridges import link_down
from vorbel import ConnectError, Disconnected, Hello, SchemaChanged, SchemaError, ownership

SPEED = {"@mac": 5, "@cmd": 2, "@format": "s"}
SETPOINT = {"@mac": 5, "@cmd": 3, "@format": "s"}
MINE = {"mine": {"speed": SPEED, "setpoint": SETPOINT}}
THEIRS = {"theirs": SPEED}
QUIET = {"quiet": {**SPEED, "@mac": 33}}
RECEIVED = "info Received schema: .*"
RESENT = ("resent", "none of its values came, and a restarted daemon has none")
KEPT = ("kept", "its values come")
HEARD = ("heard", "its values come again")
REPLACED = ("replaced", "a value comes that it does not have, theirs")


def connect(**options):
    return vorbel.connect("127.0.0.1", pauses=(0.05, 0.1), **options)


@pytest.fixture
def fast(monkeypatch):
    """Five ticks a second."""
    monkeypatch.setattr(ownership, "TICK", 0.2)


@contextlib.asynccontextmanager
async def playing(bridge, interval=0.05):
    """A speed on the bus, over and over."""
    async def play():
        while True:
            bridge.say(5, 2, "01 00")
            await asyncio.sleep(interval)

    task = asyncio.create_task(play())
    try:
        yield
    finally:
        task.cancel()
        await asyncio.wait({task})


class Follower:
    """All that comes to a client from now on."""

    def __init__(self, client):
        self.client = client
        self.seen = []
        self._task = asyncio.create_task(self._follow())

    async def _follow(self):
        async for event in self.client.events():
            self.seen.append(event)

    def of(self, kind):
        return [event for event in self.seen if isinstance(event, kind)]

    @property
    def told(self):
        return [(event.state, event.reason) for event in self.of(SchemaChanged)]

    async def greeted(self):
        """Waits until the connection that was lost is back."""
        await harness.eventually(lambda: isinstance(self.of((Hello, Disconnected))[-1], Hello), what="the hello")

    async def told_of(self, state, count=1):
        await harness.eventually(lambda: [each for each, _ in self.told].count(state) >= count, what=state)

    async def comes(self, name, count=1):
        """Waits for so many more values of that name."""
        def comers():
            return [event for event in self.of(vorbel.Values) if name in event.data]

        before = len(comers())
        await harness.eventually(lambda: len(comers()) >= before + count, what=name)


@contextlib.asynccontextmanager
async def restarting(bridge, *followers):
    """Inside, all have just been greeted again; behind it, the bus is there, too."""
    before = [len(each.of(Disconnected)) for each in followers]
    bridge.stop()
    for each, losses in zip(followers, before):
        await harness.eventually(lambda: len(each.of(Disconnected)) > losses, what="the loss")
    starting = asyncio.create_task(asyncio.to_thread(bridge.start))
    for each in followers:
        await each.greeted()
    try:
        yield
    finally:
        await starting


async def restart(bridge, *followers):
    async with restarting(bridge, *followers):
        pass


def received(bridge):
    """The top name of each schema that this run of the daemon was sent."""
    lines = [line for line in bridge.daemon.lines() if re.fullmatch(RECEIVED, line)]
    return [re.search(r'\{"(\w*)"|$', line)[1] for line in lines]


# Happy


async def out_of_reach(follower):
    """The link is down until the client has noticed."""
    with link_down():
        await harness.eventually(lambda: follower.of(Disconnected))


async def test_a_client_owns_the_schema_that_it_sends(bridge):
    async with connect() as client:
        assert client.owns_schema is False
        await client.send_schema(MINE)
        assert client.owns_schema is True
    assert connect(schema=MINE).owns_schema is True


async def test_the_first_connection_sends_the_schema_at_once(bridge):
    async with connect() as other, connect(schema=THEIRS) as earlier, playing(bridge):
        await Follower(earlier).comes("theirs")
        async with connect(schema=MINE) as client:
            await other.confirmed()
            await client.confirmed()
            assert received(bridge) == ["theirs", "mine"]


async def test_a_restarted_daemon_is_given_its_owners_schema_again(bridge):
    async with connect(schema=MINE) as client, playing(bridge):
        follower = Follower(client)
        for turn in range(2):
            await follower.comes("mine")
            await restart(bridge, follower)
            await client.connected()
            assert follower.told == [RESENT] * (turn + 1)
            await follower.comes("mine")
            assert received(bridge) == ["mine"]
        assert client.owns_schema


async def test_a_restarted_daemon_on_a_silent_bus(bridge):
    async with connect(schema=MINE) as client:
        await client.confirmed()
        follower = Follower(client)
        await restart(bridge, follower)
        await client.confirmed()
        assert received(bridge) == ["mine"]


async def test_who_sent_the_last_schema_owns_it_also_after_a_restart(bridge):
    async with connect(schema=MINE) as first, connect() as last, playing(bridge):
        earlier, later = Follower(first), Follower(last)
        await earlier.comes("mine")
        await last.send_schema(THEIRS)
        await earlier.told_of("replaced")
        assert earlier.told == [REPLACED]
        assert (first.owns_schema, last.owns_schema) == (False, True)
        for _ in range(2):
            await restart(bridge, earlier, later)
            await earlier.comes("theirs")
            await asyncio.sleep(1.5)
            assert received(bridge) == ["theirs"]
        assert earlier.told == [REPLACED]
        assert later.told == [RESENT, RESENT]
        await first.send_schema(MINE)
        await later.told_of("replaced")
        assert (first.owns_schema, last.owns_schema) == (True, False)


async def test_a_daemon_that_was_only_out_of_reach_keeps_the_schema(bridge, monkeypatch):
    monkeypatch.setattr(vorbel.pulse, "INTERVAL", 0.1)
    async with connect(schema=MINE) as client:
        follower = Follower(client)
        await client.confirmed()
        await out_of_reach(follower)
        async with playing(bridge):
            await follower.told_of("kept")
            await client.set("mine.setpoint", 1)
            await asyncio.sleep(1.5)
        assert follower.told == [KEPT]
        assert received(bridge) == ["mine"]


async def test_a_schema_that_came_while_the_client_was_away_is_left_alone(bridge, monkeypatch):
    monkeypatch.setattr(vorbel.pulse, "INTERVAL", 0.1)
    async with vorbel.connect("127.0.0.1", schema=MINE, pauses=(2, 2)) as client:
        follower = Follower(client)
        await client.confirmed()
        await out_of_reach(follower)
        async with connect(schema=THEIRS) as other, playing(bridge):
            await other.confirmed()
            await follower.told_of("replaced")
            await asyncio.sleep(1.5)
        assert follower.told == [REPLACED]
        assert received(bridge) == ["mine", "theirs"]


async def test_a_silence_may_mean_that_the_schema_was_cleared_until_its_values_come_again(bridge, fast):
    async with connect(schema=MINE, silent_after=1) as first, connect() as last, playing(bridge):
        earlier, later = Follower(first), Follower(last)
        await earlier.comes("mine", 3)
        await asyncio.sleep(1)
        await last.send_schema({}, clear=True)
        await earlier.told_of("silent")
        assert earlier.told == [("silent", "none of its values has come for 1 s")]
        assert first.owns_schema is False
        await restart(bridge, earlier, later)
        await asyncio.sleep(1)
        assert "mine" not in received(bridge)
        await last.send_schema(MINE)
        await earlier.told_of("heard")
        assert earlier.told[1:] == [HEARD]
        assert first.owns_schema is True


async def test_a_silence_that_turns_out_to_be_a_replacement(bridge, fast):
    async with connect(schema=MINE, silent_after=1) as client, connect() as other, playing(bridge):
        follower = Follower(client)
        await follower.comes("mine", 3)
        await other.send_schema({}, clear=True)
        await follower.told_of("silent")
        await other.send_schema(THEIRS)
        await follower.told_of("replaced")
        await other.send_schema(MINE)
        await follower.comes("mine", 3)
        assert [state for state, _ in follower.told] == ["silent", "replaced"]
        assert client.owns_schema is False


async def test_it_is_told_in_the_log(bridge, caplog):
    async with connect(schema=MINE) as client, playing(bridge):
        with caplog.at_level(logging.INFO, "vorbel"):
            values = client.values()
            assert "mine" in await anext(values)
            bridge.stop()
            await asyncio.to_thread(bridge.start)
            assert "mine" in await anext(values)
            async with connect(schema=THEIRS):
                while "theirs" not in await anext(values):
                    pass
    logged = [(record.levelname, record.message) for record in caplog.records if "schema" in record.message]
    assert logged == [("INFO", str(SchemaChanged(*RESENT))), ("WARNING", str(SchemaChanged(*REPLACED)))]


def test_it_is_told_in_words():
    def told(state):
        return str(SchemaChanged(state, "why"))

    assert [told("kept"), told("resent"), told("heard")] == [
        "the daemon still has the schema: why", "the schema was sent again: why",
        "the schema is in force as before: why"]
    assert told("replaced") == "another client has replaced the schema, which is not sent again by itself: why"
    assert told("silent") == ("another client may have replaced or cleared the schema, which is not sent again by "
                              "itself: why")


# Rainy


async def test_nothing_is_written_to_a_daemon_that_may_not_have_the_schema(bridge):
    async with connect(schema=MINE) as client:
        await client.confirmed()
        follower = Follower(client)
        async with restarting(bridge, follower):
            with pytest.raises(ConnectError, match="^Not written: ws://127.0.0.1:10443 is back, but whether it has the "
                                                   "schema is not known yet$"):
                await client.set("mine.setpoint", 1)
        await client.connected()
        await client.set("mine.setpoint", 2)
        assert bridge.heard() == [(5, 3, "02 00")]


async def test_a_schema_that_is_sent_while_one_is_listened_for(bridge):
    async with connect(schema=MINE) as client:
        await client.confirmed()
        follower = Follower(client)
        async with restarting(bridge, follower):
            await client.send_schema(THEIRS)
            assert follower.told == []
            await client.confirmed()
        assert received(bridge) == ["theirs"]
        await asyncio.sleep(1.5)
        assert received(bridge) == ["theirs"]
        assert follower.told == []


async def test_a_schema_that_is_sent_while_there_is_no_daemon_goes_out_with_the_connection_once(bridge):
    async with connect(schema=MINE) as client:
        await client.confirmed()
        bridge.stop()
        await harness.eventually(lambda: not client._ready.is_set())
        sending = asyncio.create_task(client.send_schema(THEIRS))
        await asyncio.to_thread(bridge.start)
        await sending
        await client.confirmed()
        assert received(bridge) == ["theirs"]


async def test_a_schema_that_was_not_answered_goes_out_with_the_next_connection(bridge, monkeypatch):
    """The values that come then are still those of the one before."""
    monkeypatch.setattr(vorbel.pulse, "INTERVAL", 0.1)
    async with connect(schema=MINE) as client, playing(bridge):
        follower = Follower(client)
        await follower.comes("mine")
        with link_down():
            await client.send_schema(THEIRS)
            await harness.eventually(lambda: follower.of(Disconnected))
        await follower.comes("theirs")
        assert follower.told == []
        assert client.owns_schema


async def test_values_of_the_schema_before_say_nothing(bridge):
    """They are on their way when the new one is sent, and wait here until the program lets its loop run."""
    async with connect(schema=THEIRS) as client:
        await client.confirmed()
        follower = Follower(client)
        for _ in range(100):
            bridge.say(5, 2, "01 00")
        time.sleep(0.5)
        await client.send_schema(MINE)
        await client.confirmed()
        await asyncio.sleep(0.2)
        assert len(follower.of(vorbel.Values)) == 100
        assert follower.told == []
        assert client.owns_schema


async def test_a_faulty_schema_changes_no_owner(bridge):
    async with connect(schema=MINE) as client, connect(schema=THEIRS), playing(bridge):
        follower = Follower(client)
        await follower.told_of("replaced")
        with pytest.raises(SchemaError):
            await client.send_schema({"mine": {**SPEED, "@factr": 2}})
        assert client.owns_schema is False


async def test_a_schema_without_values_is_replaced_too(bridge):
    async with connect(schema=QUIET) as client, connect() as other, playing(bridge):
        await client.confirmed()
        follower = Follower(client)
        await other.send_schema(THEIRS)
        await follower.told_of("replaced")
        assert follower.told == [REPLACED]


@pytest.mark.parametrize("schema, stranger", [
    ({"mine": {"other": SPEED}}, "mine.other"), ({"mine": {"speed": {"x": SPEED}}}, "mine.speed.x"),
    ({"mine": SPEED}, "mine"), ({"mine": {"speed": SPEED, "a.b\x1b": SPEED}}, r"mine.a\.b\x1b"),
    (SPEED, "one without a name"),
], ids=["beside", "below", "above", "strange name", "root"])
async def test_what_the_schema_does_not_have_is_named(bridge, schema, stranger):
    async with connect(schema=MINE) as client, connect(schema=schema, check=False) as other:
        await other.confirmed()
        follower = Follower(client)
        bridge.say(5, 2, "01 00")
        await follower.told_of("replaced")
        assert follower.told == [("replaced", f"a value comes that it does not have, {stranger}")]


async def test_a_schema_that_has_all_of_the_others_values_cannot_be_told_from_it(bridge):
    async with connect(schema=MINE) as client, connect(schema={"mine": {"speed": SPEED}}) as other, playing(bridge):
        await other.confirmed()
        follower = Follower(client)
        await follower.comes("mine", 5)
        assert follower.told == []


async def test_a_program_that_is_busy_itself_takes_no_silence_of_its_own_for_the_daemons(bridge, fast):
    async with connect(schema=MINE, silent_after=1) as client, playing(bridge):
        follower = Follower(client)
        await follower.comes("mine", 3)
        for _ in range(3):
            time.sleep(1.5)
            await follower.comes("mine")
        assert follower.told == []


async def test_a_program_that_is_busy_when_the_daemon_is_back_hears_its_values_first(bridge, monkeypatch):
    """They wait to be read when the program lets its loop run again, at a time at which the second is over."""
    monkeypatch.setattr(vorbel.pulse, "INTERVAL", 0.1)
    async with connect(schema=MINE) as client:
        follower = Follower(client)
        await client.confirmed()
        await out_of_reach(follower)
        await follower.greeted()
        await asyncio.sleep(0.3)
        bridge.say(5, 2, "01 00")
        time.sleep(2)
        await harness.eventually(lambda: follower.told)
        assert follower.told == [KEPT]


async def test_a_link_that_stalls_is_not_the_daemons_silence(bridge, fast):
    async with connect(schema=MINE, silent_after=1) as client, playing(bridge):
        follower = Follower(client)
        await follower.comes("mine", 3)
        with link_down():
            await asyncio.sleep(3)
        await follower.comes("mine", 3)
        assert not follower.of(Disconnected)
        assert follower.told == []


async def test_a_silence_that_is_usual_is_none(bridge, fast):
    async with connect(schema=MINE, silent_after=0.4) as client, playing(bridge, interval=1):
        follower = Follower(client)
        await follower.comes("mine", 4)
        assert [state for state, _ in follower.told] == []


async def test_one_message_is_no_rhythm(bridge, fast):
    async with connect(schema=MINE, silent_after=0.4) as client:
        await client.confirmed()
        follower = Follower(client)
        bridge.say(5, 2, "01 00")
        await asyncio.sleep(1.5)
        assert follower.told == []
        bridge.say(5, 2, "01 00")
        bridge.say(5, 2, "01 00")
        await follower.told_of("silent")


async def test_silence_says_nothing_of_values_that_come_only_when_they_change(bridge, fast):
    door = {"door": {"@mac": 5, "@cmd": 2, "@format": "C", "@observe": True}}
    async with connect(schema=door, silent_after=0.4) as client:
        await client.confirmed()
        follower = Follower(client)
        for value in ("01", "00", "01"):
            bridge.say(5, 2, value)
        await follower.comes("door")
        await asyncio.sleep(1.5)
        assert follower.told == []


async def test_silence_that_never_counts(bridge, fast):
    async with connect(schema=MINE, silent_after=None) as client:
        await client.confirmed()
        follower = Follower(client)
        for _ in range(5):
            bridge.say(5, 2, "01 00")
        await follower.comes("mine")
        await asyncio.sleep(3)
        assert follower.told == []
        assert client.owns_schema


@pytest.fixture
def schema_in_force():
    """(a client's schema that the daemon has taken, what is told of it)"""
    mine = connect(schema=MINE)._ownership
    told = []
    mine._tell = lambda *event: told.append(event)
    mine.begin()
    mine.confirm()
    return mine, told


def test_values_that_cross_a_schema_that_is_sent_again_say_nothing(schema_in_force):
    mine, told = schema_in_force
    mine.resume()
    mine.begin()
    mine.heard({"theirs": 1})
    assert told == []
    mine.confirm()
    mine.heard({"theirs": 1})
    assert told == [REPLACED]


def test_silence_counts_after_ten_seconds_where_nothing_else_is_said(schema_in_force):
    mine, told = schema_in_force
    for _ in range(3):
        mine.heard({"mine": {"speed": 1}})
    for _ in range(9):
        mine.tick()
    assert told == []
    mine.tick()
    assert told == [("silent", "none of its values has come for 10 s")]


def test_silence_counts_after_three_times_the_longest_before(schema_in_force):
    mine, told = schema_in_force
    for silence in (0, 4, 2):
        for _ in range(silence):
            mine.tick()
        mine.heard({"mine": {"speed": 1}})
    for _ in range(11):
        mine.tick()
    assert told == []
    mine.tick()
    assert told == [("silent", "none of its values has come for 12 s")]


async def test_a_silence_ends_at_a_restart(bridge, fast):
    """The one before the connection was lost is not added to the one after."""
    async with connect(schema=MINE, silent_after=2) as client:
        await client.confirmed()
        follower = Follower(client)
        for _ in range(5):
            bridge.say(5, 2, "01 00")
        await follower.comes("mine")
        await asyncio.sleep(1)
        await restart(bridge, follower)
        await asyncio.sleep(2)
        assert follower.told == [RESENT]
