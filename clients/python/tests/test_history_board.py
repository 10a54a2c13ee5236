"""What batches become: lines, gaps, and refusals."""

import json
import random
import re
import time
import zlib

import pytest

from histories import SCHEMA, compact
from vorbel.history import board as boards
from vorbel.history.batches import BATCH_LIMIT, Refused
from vorbel.history.board import Board, Schemas
from vorbel.history.database import join
from vorbel.history.lines import head, is_name
from vorbel.history.runs import RUNS_LIMIT, Runs
from vorbel.history.topics import Topics
from vorbel.history.tree import STRANGERS_LIMIT

T = 1790000000000
BOOT = 1790000000


@pytest.fixture
def board():
    """With a schema, and running."""
    return make_board()


def make_board(schema=SCHEMA, name="press7"):
    made = Board(name, Schemas({}))
    made.hear_status(compact({"online": True, "boot": BOOT}))
    made.hear_schema(compact(schema))
    return made


def batch(number, *messages, boot=BOOT, begin=T):
    return compact({"boot": boot, "n": number, "t": begin, "v": list(messages)})


def lines_of(written):
    return join(written.lines).decode().splitlines()


def saved_and_restored(board):
    schemas = Schemas(board._schemas.texts)
    return Board(board.name, schemas, board.saved())


# Values


def test_a_batch_is_a_line_for_each_value_and_one_for_itself(board):
    written = board.take(batch(0, [0, {"motor": {"speed": -7, "on": True}}], [20, {"motor": {"heat": 1234}}]))
    assert lines_of(written) == [
        f"vorbel,board=press7,path=motor.speed value=-7 {T}",
        f"vorbel,board=press7,path=motor.on value=1 {T}",
        f"vorbel,board=press7,path=motor.heat value=83.4 {T + 20}",
        f"vorbel,board=press7 batch=0 {T}"]
    assert (written.values, written.overwritten, written.lines.unfit) == (3, 0, 0)


@pytest.mark.parametrize("name, tag", [("a b", r"a\ b"), ("a,b", r"a\,b"), ("a=b", r"a\=b"), ("a\\b", r"a\\\\b"),
                                       ("a.b", r"a\\.b"), ('"ä"', '"ä"')])
def test_names_are_escaped(name, tag):
    schema = {name: SCHEMA["motor"]["speed"]}
    written = make_board(schema).take(batch(0, [0, {name: 5}]))
    assert lines_of(written)[0] == f"vorbel,board=press7,path={tag} value=5 {T}"
    assert head("a b,c=d") == r"vorbel,board=a\ b\,c\=d "


@pytest.mark.parametrize("name", ["", "a\nb", "\0", "\x7f", "\x85", "\u2028", "\ud800", "x" * 1025])
def test_names_that_cannot_stand_in_a_line(board, name):
    assert not is_name(name)
    written = board.take(json.dumps({"boot": BOOT, "n": 0, "t": T, "v": [[0, {name: 1, "motor": {"speed": 2}}]]})
                         .encode())
    assert lines_of(written)[0] == f"vorbel,board=press7,path=motor.speed value=2 {T}"
    assert written.lines.unfit == 1 and written.values == 1


def test_the_longest_name():
    assert is_name("x" * 1024)


def test_what_is_no_number_is_left_out(board):
    written = board.take(b'{"boot":%d,"n":0,"t":%d,"v":[[0,{"motor":{"speed":null,"heat":null,"on":false}}],'
                         b'[1,{"motor":{"speed":"x"}}],'
                         b'[1,{"motor":{"speed":1e999}}],[2,{"motor":{"speed":1%s}}]]}' % (BOOT, T, b"0" * 400))
    assert lines_of(written)[:-1] == [f"vorbel,board=press7,path=motor.on value=0 {T}"]
    assert written.lines.unfit == 3


def test_a_value_that_no_number_can_hold_is_left_out():
    written = make_board({"a": {"@mac": 1, "@cmd": 1, "@format": "f", "scale": 1e300}}).take(
        batch(0, [0, {"a": 1e300}], [1, {"a": 1e-290}]))
    assert lines_of(written)[0] == f"vorbel,board=press7,path=a value=10000000000 {T + 1}"
    assert (written.values, written.lines.unfit) == (1, 1)


def test_a_reading_that_is_no_whole_number_has_no_bits():
    leaf = {"@mac": 1, "@cmd": 1, "@format": "C", "bits": [1, 2]}
    written = make_board({"a": leaf}).take(batch(0, [0, {"a": 6}], [1, {"a": 6.0}]))
    assert [line.split()[1] for line in lines_of(written)[:2]] == ["value=3", "value=6"]


def test_a_value_that_is_not_selected_does_not_count():
    schema = {"page": {"@mac": 1, "@cmd": 1, "@format": "C"},
              "a": {"@mac": 1, "@cmd": 1, "@format": "C", "when": {"path": "page", "is": 1}}}
    written = make_board(schema).take(batch(0, [0, {"page": 1, "a": 5}], [1, {"page": 2, "a": 6}], [2, {"a": 7}]))
    assert [line for line in lines_of(written) if "path=a" in line] == [f"vorbel,board=press7,path=a value=5 {T}"]


def test_a_leaf_may_be_on_the_way_to_another():
    schema = {"a": {"@mac": 1, "@cmd": 1, "@format": "C", "b": {"@mac": 1, "@cmd": 2, "@format": "C"}}}
    written = make_board(schema).take(batch(0, [0, {"a": 1}], [1, {"a": {"b": 2}}]))
    assert lines_of(written)[:2] == [f"vorbel,board=press7,path=a value=1 {T}",
                                     f"vorbel,board=press7,path=a.b value=2 {T + 1}"]


def test_of_two_values_in_a_millisecond_the_later_one_stays(board):
    written = board.take(batch(0, [0, {"motor": {"speed": 1, "heat": 0}}], [0, {"motor": {"speed": 2}}],
                               [5, {"motor": {"speed": 3}}], [5, {"motor": {"on": True}}]))
    assert lines_of(written) == [
        f"vorbel,board=press7,path=motor.speed value=2 {T}", f"vorbel,board=press7,path=motor.heat value=-40 {T}",
        f"vorbel,board=press7,path=motor.speed value=3 {T + 5}", f"vorbel,board=press7,path=motor.on value=1 {T + 5}",
        f"vorbel,board=press7 batch=0 {T}"]
    assert (written.values, written.overwritten) == (5, 1)


def test_a_clock_that_goes_back(board):
    written = board.take(batch(0, [10, {"motor": {"speed": 1}}], [-5, {"motor": {"speed": 2}}],
                               [10, {"motor": {"speed": 3}}]))
    assert lines_of(written) == [f"vorbel,board=press7,path=motor.speed value=3 {T + 10}",
                                 f"vorbel,board=press7,path=motor.speed value=2 {T - 5}",
                                 f"vorbel,board=press7 batch=0 {T + 10}"]


# Arrays


def wave(*elements):
    return {"motor": {"wave": list(elements)}}


def test_elements_have_times_of_their_own_where_the_interval_is_known(board):
    written = board.take(batch(0, [0, wave(1, 2, 3, 4)], [100, wave(5, 6, 7, 9)], [200, wave(-1, 10, 11, 12)]))
    lines = lines_of(written)
    series = "vorbel,board=press7,path=motor.wave"
    checksum = zlib.crc32(b"[5,6,7,9]")
    assert lines[:2] == [f"{series} value=4,min=1,max=4,mean=2.5,elements=4,checksum=1741593048 {T}",
                         f"{series} value=9,min=5,max=9,mean=6.75,elements=4,checksum={checksum} {T + 100}"]
    assert lines[2:6] == [f"{series} value=-1 {T + 125}", f"{series} value=10 {T + 150}",
                          f"{series} value=11 {T + 175}", f"{series} value=12 {T + 200}"]


def test_a_pause_or_a_rate_above_that_of_the_clock_leaves_no_times(board):
    board.take(batch(0, [0, wave(1, 2, 3, 4)], [100, wave(1, 2, 3, 4)]))
    assert "elements=4" in lines_of(board.take(batch(1, [0, wave(1, 2, 3, 4)], begin=T + 301)))[0]  # a pause
    board.take(batch(2, [0, wave(1, 2, 3, 4)], begin=T + 304))
    assert "elements=4" in lines_of(board.take(batch(3, [0, wave(1, 2, 3, 4)], begin=T + 307)))[0]  # 3 ms for 4
    assert "elements" not in lines_of(board.take(batch(4, [0, wave(1, 2, 3, 4)], begin=T + 311)))[0]


def test_arrays_behind_a_gap_have_no_times_but_those_behind_a_restart_have(board):
    board.take(batch(0, [0, wave(1, 2)], [100, wave(1, 2)]))
    board = saved_and_restored(board)
    assert lines_of(board.take(batch(1, [0, wave(3, 4)], begin=T + 200)))[0].endswith(f"value=3 {T + 150}")
    assert "elements=2" in lines_of(board.take(batch(3, [0, wave(5, 6)], begin=T + 300)))[0]


def test_elements_that_are_no_numbers_keep_their_places(board):
    board.take(batch(0, [0, wave(1)], [100, wave(1)]))
    written = board.take(batch(1, [0, wave(None, 2, "x", [], 5)], begin=T + 200))
    assert lines_of(written)[:-1] == [f"vorbel,board=press7,path=motor.wave value=2 {T + 140}",
                                      f"vorbel,board=press7,path=motor.wave value=5 {T + 200}"]
    assert written.lines.unfit == 2
    assert lines_of(board.take(batch(2, [0, wave()], [1, wave(None)]))) == [f"vorbel,board=press7 batch=2 {T}"]


# Schemas


def reading(value, begin=T, path="motor.heat"):
    return f"vorbel,board=press7,path={path} reading={value} {begin}"


def heat(number, value, boot=BOOT):
    return batch(number, [0, {"motor": {"heat": value, "speed": 1}}], boot=boot)


CHANGED = {"motor": {**SCHEMA["motor"], "heat": {**SCHEMA["motor"]["heat"], "scale": 2, "offset": 0}}}


def test_without_a_schema_there_are_readings():
    board = Board("press7", Schemas({}))
    assert lines_of(board.take(heat(0, 1000)))[0] == reading(1000)
    board = make_board(schema=None)
    assert lines_of(board.take(batch(0, [0, {"motor": {"wave": [1, 2]}}])))[0] == reading(2, path="motor.wave")


def test_what_the_schema_does_not_have_is_a_reading(board):
    assert lines_of(board.take(batch(0, [0, {"theirs": 3}])))[0] == reading(3, path="theirs")


def test_the_batch_in_which_the_schema_changes_has_readings_where_it_differs(board):
    board.take(heat(0, 1000))
    board.hear_schema(compact(CHANGED))
    board = saved_and_restored(board)
    assert lines_of(board.take(heat(1, 1000)))[:2] == [
        reading(1000), f"vorbel,board=press7,path=motor.speed value=1 {T}"]
    assert lines_of(board.take(heat(2, 1000)))[0] == f"vorbel,board=press7,path=motor.heat value=2000 {T}"


def test_the_spool_of_an_earlier_boot_has_the_schema_of_then(board):
    board.take(heat(0, 1000))
    board.hear_status(compact({"online": False}))
    board.hear_status(compact({"online": True, "boot": BOOT + 5}))
    board.hear_schema(compact(CHANGED))
    board = saved_and_restored(board)
    assert lines_of(board.take(heat(1, 1000)))[0] == f"vorbel,board=press7,path=motor.heat value=60 {T}"
    assert lines_of(board.take(heat(0, 1000, BOOT + 5)))[0] == f"vorbel,board=press7,path=motor.heat value=2000 {T}"


def test_a_gateway_that_is_not_there_has_no_boot(board):
    board.take(heat(0, 1000))
    board.hear_status(compact({"online": False, "boot": BOOT}))
    board.hear_schema(compact(CHANGED))
    assert lines_of(board.take(heat(1, 1000)))[0] == f"vorbel,board=press7,path=motor.heat value=60 {T}"


def test_a_schema_that_is_told_ahead_of_the_boot_is_that_of_the_next_one(board):
    board.take(heat(0, 1000))
    board.hear_status(compact({"online": False}))
    board.hear_schema(compact(CHANGED))
    assert lines_of(board.take(heat(1, 1000)))[0] == f"vorbel,board=press7,path=motor.heat value=60 {T}"
    board.hear_status(compact({"online": True, "boot": BOOT + 5}))
    assert lines_of(board.take(heat(0, 1000, BOOT + 5)))[0] == f"vorbel,board=press7,path=motor.heat value=2000 {T}"


def test_of_a_boot_before_the_first_that_was_heard_nobody_knows_the_schema(board):
    board.take(heat(0, 1000))
    assert lines_of(board.take(heat(7, 1000, BOOT - 5)))[0] == reading(1000)


def test_a_schema_that_was_gone_and_is_the_same_again_changes_nothing(board):
    board.take(heat(0, 1000))
    board.hear_schema(compact(SCHEMA))
    assert lines_of(board.take(heat(1, 1000)))[0] == f"vorbel,board=press7,path=motor.heat value=60 {T}"


@pytest.mark.parametrize("text", [b"[1]", b"{", b'"a"', b"{}" + b" " * BATCH_LIMIT, b"[" * 100_000,
                                  b'{"a":{"@mac":NaN}}'])
def test_a_schema_that_is_none_is_refused_and_changes_nothing(board, text):
    with pytest.raises(Refused):
        board.hear_schema(text)
    assert lines_of(board.take(heat(0, 1000)))[0] == f"vorbel,board=press7,path=motor.heat value=60 {T}"


def test_schemas_that_nobody_has_any_more_are_forgotten(board):
    schemas = board._schemas
    board.hear_schema(compact(CHANGED))
    assert len(schemas.texts) == 2
    schemas.keep(board.used_schemas())
    assert list(schemas.texts.values()) == [compact(CHANGED)]
    schemas.keep(set())
    assert schemas.of(boards.NO_SCHEMA).leaves == {}


def test_all_schemas_together_are_bounded(board):
    large = {"a": {"@mac": 1, "@cmd": 1, "@format": "C", "description": "x" * (4 * 1024 * 1024 - 1000)}}
    for number in range(4):
        board.hear_schema(compact(large | {f"b{number}": {}}))
        board.hear_schema(compact(large | {f"b{number}": {}}))
    with pytest.raises(Refused, match="more than 16 MiB of schemas"):
        board.hear_schema(compact(large | {"c": {}}))
    board._schemas.keep(board.used_schemas())
    board.hear_schema(compact(large | {"c": {}}))


# Order


@pytest.fixture
def patient(monkeypatch):
    monkeypatch.setattr(boards, "GRACE", 0.0)


def gaps(board):
    return [(gap.missing, gap.boot, gap.following, gap.line) for gap in board.gaps(time.monotonic())]


def test_a_batch_that_comes_again_is_not_written_again(board):
    board.take(heat(0, 1000))
    board.take(heat(1, 1000))
    board = saved_and_restored(board)
    for number in (0, 1):
        written = board.take(heat(number, 1000))
        assert written.is_repeated and written.lines == []


def test_a_gap_is_told_once_and_with_its_time(board, patient):
    board.take(heat(0, 1000))
    board.take(batch(4, [0, {"motor": {"speed": 1}}], begin=T + 500))
    board = saved_and_restored(board)
    assert board.has_holes
    assert gaps(board) == [(3, BOOT, 4, ("vorbel,board=press7 gap=3", T + 500))]
    assert not board.has_holes and gaps(board) == []


def test_what_comes_late_is_not_missing(board, patient):
    for number in (0, 4, 2, 1):
        assert board.take(heat(number, 1000)).values == 2
    assert gaps(board) == [(1, BOOT, 4, ("vorbel,board=press7 gap=1", T))]


def test_a_gap_waits_for_what_comes_late(board):
    board.take(heat(0, 1000))
    board.take(heat(2, 1000))
    assert gaps(board) == [] and board.has_holes
    assert [gap.missing for gap in board.gaps(time.monotonic() + boards.GRACE)] == [1]


def test_where_the_first_boot_begins_nobody_knows_but_that_of_a_later_one_is_known(board, patient):
    board.take(heat(500, 1000))
    board.take(heat(2, 1000, BOOT + 5))
    board.take(heat(3, 1000, BOOT - 5))
    assert gaps(board) == [(2, BOOT + 5, 2, ("vorbel,board=press7 gap=2", T))]


def test_the_end_of_an_earlier_boot_may_come_from_the_spool(board, patient):
    board.take(heat(0, 1000))
    board.take(heat(0, 1000, BOOT + 5))
    board.take(heat(1, 1000))
    board.take(heat(1, 1000, BOOT + 5))
    assert gaps(board) == []


def test_runs_against_a_set():
    chance = random.Random(1)
    for _ in range(200):
        runs, taken = Runs(), set()
        for _ in range(60):
            number = chance.randrange(40)
            assert (number in runs) == (number in taken)
            if number not in taken:
                expected = max(0, number - max(taken) - 1) if taken else number
                assert runs.take(number, 0) == expected
                taken.add(number)
            first = chance.randrange(40)
            assert runs.missing(first, 40) == len(set(range(first, 41)) - taken)
    assert len(runs.runs) < 20  # neighbours are one
    for number in range(0, 4 * RUNS_LIMIT, 2):
        runs.take(number + 100, 0)
    assert len(runs.runs) == RUNS_LIMIT


def test_boots_are_forgotten_when_there_are_too_many(board):
    for boot in range(BOOT, BOOT + 20):
        board.take(heat(0, 1000, boot))
    assert [*json.loads(board.saved())["boots"]] == [str(BOOT + boot) for boot in range(12, 20)]
    assert lines_of(board.take(heat(0, 1000, BOOT)))[0] == reading(1000)


# Topics


@pytest.mark.parametrize("topic, found", [
    ("vorbel/press7/values", ("press7", "values")), ("vorbel/hall%207%2E/schema", ("hall 7.", "schema")),
    ("vorbel/%C3%A4/status", ("ä", "status")), ("vorbel/a/b/values", None), ("vorbel/values", None),
    ("other/press7/values", None), ("vorbel/%FF/values", None), ("vorbel/%2/values", None),
    ("vorbel/%e4/values", None), ("vorbel//values", ("", "values"))])
def test_topics(topic, found):
    assert Topics("vorbel").parse(topic) == found
    assert Topics("plant/a").parse(topic.replace("vorbel", "plant/a", 1)) == found


# What nobody should send


@pytest.mark.parametrize("payload, reason", [
    (b"", "no JSON: Expecting value: line 1 column 1 (char 0)"),
    (b"\xff\xfe{}\xff", "no JSON: 'utf-16-le' codec can't decode byte 0xff in position 4: truncated data"),
    (b"[]", "no object of JSON"),
    (b"{}", '"boot" is no whole number from 0'),
    (b'{"boot":true,"n":0,"t":0,"v":[]}', '"boot" is no whole number from 0'),
    (b'{"boot":1,"n":-1,"t":0,"v":[]}', '"n" is no whole number from 0'),
    (b'{"boot":1,"n":9007199254740992,"t":0,"v":[]}', '"n" is no whole number from 0'),
    (b'{"boot":1,"n":0,"t":1.5,"v":[]}', '"t" is no whole number from 0'),
    (b'{"boot":1,"n":0,"t":0,"v":{}}', '"v" is no list'),
    (b'{"boot":1,"n":0,"t":0,"v":[[0]]}', "a message is not [milliseconds, values]"),
    (b'{"boot":1,"n":0,"t":0,"v":[[false,{}]]}', "a message is not [milliseconds, values]"),
    (b'{"boot":1,"n":0,"t":0,"v":[[-1,{}]]}', "a time is not between 1970 and 2100"),
    (b'{"boot":1,"n":0,"t":4102444800000,"v":[[0,{}]]}', "a time is not between 1970 and 2100"),
    (b'{"boot":1,"n":0,"t":0,"v":[[0,5]]}', "a message has no values by name"),
    (b'{"boot":1,"n":0,"t":0,"v":[[0,{"a":NaN}]]}', "no JSON: NaN is no number of JSON"),
    (b'{"boot":1,"n":0,"t":0,"v":[[0,{"a":-Infinity}]]}', "no JSON: -Infinity is no number of JSON"),
    (b"[" * 100_000, "nested too deep"),
    (b'{"a":' * 900 + b"1" + b"}" * 900, '"boot" is no whole number from 0'),
    (b'{"boot":1,"n":0,"t":0,"v":[[0,' + b'{"a":' * 960 + b"1" + b"}" * 960 + b"]]}", "nested too deep"),
    (b" " * (BATCH_LIMIT + 1), "larger than 4 MiB")])
def test_what_is_refused(board, payload, reason):
    with pytest.raises(Refused) as refused:
        board.take(payload)
    assert str(refused.value) == reason
    assert board.take(heat(0, 1000)).values == 2


def test_a_number_of_many_digits_is_refused(board):
    with pytest.raises(Refused, match="no JSON: Exceeds the limit"):
        board.take(b'{"boot":1,"n":0,"t":0,"v":[[0,{"a":' + b"1" * 5000 + b"}]]}")


def test_strangers_are_bounded(board):
    values = {f"s{number}": 1 for number in range(STRANGERS_LIMIT + 5)}
    written = board.take(batch(0, [0, values], [1, {"motor": {"speed": 1}}]))
    assert (written.values, written.lines.unfit) == (STRANGERS_LIMIT + 1, 5)


LINE = re.compile(r"vorbel,board=press7(,path=(?:\\[\\,= ]|[^\\,= \n])+)? "
                  r"(value|reading|batch|gap)=-?\d+(\.\d+)?(e[+-]?\d+)?"
                  r"(,(min|max|mean|elements|checksum)=-?\d+(\.\d+)?(e[+-]?\d+)?)* \d+")
PARTS = ["motor", "speed", "heat", "on", "wave", "", " ", "a,b", "a=b", "\n", "\\", "\ud800", '"', "ä", 0, 1, -1, 2.5,
         1e308, 10**400, -0.0, True, False, None, "1", "NaN"]


def anything(chance, depth=0):
    if depth < 4 and chance.random() < 0.5:
        count = chance.randrange(4)
        if chance.random() < 0.6:
            return {str(chance.choice(PARTS)): anything(chance, depth + 1) for _ in range(count)}
        return [anything(chance, depth + 1) for _ in range(count)]
    return chance.choice(PARTS)


def test_whatever_comes_makes_proper_lines_or_is_refused():
    """Mutations of batches, and values of any form in their places."""
    chance = random.Random(7)
    taken = 0
    board = make_board()
    for number in range(4000):
        messages = [[chance.randrange(-5, 50), {"motor": anything(chance), "x": anything(chance)}]
                    for _ in range(chance.randrange(4))]
        payload = bytearray(json.dumps({"boot": BOOT, "n": number, "t": T, "v": messages}).encode())
        for _ in range(chance.choice((0, 0, 1, 5))):
            payload[chance.randrange(len(payload))] = chance.randrange(256)
        try:
            written = board.take(bytes(payload))
        except Refused:
            continue
        taken += 1
        assert [line for line in lines_of(written) if not LINE.fullmatch(line)] == []
    assert taken > 1500
