"""A breach that is there is found, and what is no breach is not taken for one."""

import random

import pytest

import programs
from board import Batches
from invariants import (Excuses, Hearing, Stands, Writer, growth, is_growing, percentile, runs, settled,
                        unknown_lines)

SENT = 1000


@pytest.fixture
def hearing():
    return Hearing("python 0")


def said(breaches):
    return [(breach.kind, breach.text) for breach in breaches]


def heard(hearing, *found, excuses=None):
    """What is said of these runs of numbers."""
    hearing.take(5.0, "single", found, SENT)
    return said(hearing.judge(excuses or Excuses()))


def excused(first, last, leaf="single"):
    excuses = Excuses()
    excuses.add({leaf: first - 1}, {leaf: last})
    return excuses


# Values. Happy


def test_all_numbers_in_order(hearing):
    assert heard(hearing, [1, 400], [401, SENT]) == []
    assert (hearing.compared["single"], hearing.lost, hearing.doubled) == (SENT, 0, 0)


def test_what_comes_before_the_first_that_was_heard_is_not_missed(hearing):
    assert heard(hearing, [300, 310]) == []


def test_what_comes_between_two_connections_is_not_missed(hearing):
    assert heard(hearing, [1, 10]) == []
    hearing.begin()
    assert heard(hearing, [20, 30]) == []


def test_each_leaf_has_numbers_of_its_own(hearing):
    hearing.take(5.0, "single", [[1, 10]], SENT)
    hearing.take(5.0, "slow", [[1, 2]], SENT)
    hearing.take(5.0, "single", [[11, 12]], SENT)
    assert hearing.judge(Excuses()) == []


def test_a_gap_that_is_excused_as_a_whole(hearing):
    assert heard(hearing, [1, 10], [15, 20], excuses=excused(11, 14)) == []
    assert hearing.lost == 0


def test_excuses_that_overlap_and_touch_cover_a_gap_together():
    excuses = excused(8, 12) + excused(12, 14) + excused(15, 30)
    assert excuses.missing("single", 11, 25) == []


def test_what_a_library_says_that_it_dropped_is_not_lost_without_a_word(hearing):
    assert heard(hearing, [1, 10]) == []
    hearing.skip()
    assert heard(hearing, [15, 20]) == []


# Values. Rainy


def test_a_lost_one(hearing):
    assert heard(hearing, [1, 10], [12, 20]) == [("lost", "python 0: single 11 to 11")]
    assert hearing.lost == 1


def test_a_lost_one_between_two_messages(hearing):
    assert heard(hearing, [1, 10]) == []
    assert heard(hearing, [12, 20]) == [("lost", "python 0: single 11 to 11")]


@pytest.mark.parametrize("covered, missing", [
    ((11, 13), [(14, 14)]), ((12, 14), [(11, 11)]), ((12, 13), [(11, 11), (14, 14)]), ((1, 10), [(11, 14)]),
    ((15, 99), [(11, 14)]),
])
def test_what_an_excuse_leaves_of_a_gap_is_lost(hearing, covered, missing):
    assert heard(hearing, [1, 10], [15, 20], excuses=excused(*covered)) == [
        ("lost", f"python 0: single {first} to {last}") for first, last in missing]


def test_an_excuse_is_one_for_its_leaf_only(hearing):
    assert heard(hearing, [1, 10], [12, 20], excuses=excused(11, 11, "gathered")) != []


def test_a_doubled_one(hearing):
    assert heard(hearing, [1, 10], [10, 20]) == [("doubled", "python 0: single 10 to 20 after 10")]
    assert hearing.doubled == 1


def test_one_that_was_heard_on_the_connection_before(hearing):
    assert heard(hearing, [1, 10]) == []
    hearing.begin()
    assert heard(hearing, [9, 12]) == [("doubled", "python 0: single 9 to 12 after 10")]
    assert hearing.doubled == 2


def test_no_excuse_lets_one_come_twice(hearing):
    assert heard(hearing, [1, 10], [10, 10], excuses=excused(1, SENT)) != []


def test_one_out_of_order(hearing):
    assert heard(hearing, [1, 4], [6, 6], [5, 5], [7, 9]) == [
        ("doubled", "python 0: single 5 to 5 after 6"), ("lost", "python 0: single 5 to 5")]


@pytest.mark.parametrize("altered", [0, SENT + 1, 0xFFFFFFFF])
def test_an_altered_one_that_was_never_sent(hearing, altered):
    assert heard(hearing, [1, 10], [altered, altered], [11, 20]) == [
        ("unsent", f"python 0: single {altered} to {altered}, and 1000 is the last that was sent")]


def test_an_altered_one_that_was_sent_before(hearing):
    assert [kind for kind, _ in heard(hearing, [1, 10], [3, 3], [12, 20])] == ["doubled", "lost"]


def test_an_altered_one_that_was_sent_since(hearing):
    assert [kind for kind, _ in heard(hearing, [1, 10], [500, 500], [12, 20])] == ["doubled", "lost"]


# Writes


@pytest.fixture
def writer():
    writer = Writer("python", (10, 1))
    for number in (1, 2, 3):
        writer.announce(number, 10.0 + number)
        writer.confirm(number, 10.5 + number)
    return writer


def always(_begin, _end):
    return True


def judged(writer, *payloads, stood=always, until=100.0):
    for payload in payloads:
        writer.arrive(12.0, payload if isinstance(payload, bytes) else payload.to_bytes(4, "little"))
    return said(writer.judge(stood, until))


def test_writes_that_arrive(writer):
    assert judged(writer, 1, 2, 3) == []
    assert writer.counts == (3, 3, 3)


def test_a_write_that_does_not_arrive(writer):
    assert judged(writer, 1, 3) == [("write", "python: 2 was confirmed and did not arrive")]


def test_a_write_that_nobody_confirmed_need_not_arrive(writer):
    writer.announce(4, 15.0)
    assert judged(writer, 1, 2, 3) == []


def test_a_write_that_arrives_although_nobody_confirmed_it(writer):
    writer.announce(4, 15.0)
    assert judged(writer, 1, 2, 3, 4) == []


def test_a_write_need_not_arrive_while_the_link_is_away(writer):
    periods = []
    assert judged(writer, 1, 3, stood=lambda begin, end: periods.append((begin, end))) == []
    assert periods == [(11.0, 13.5)]


def test_a_write_may_be_on_its_way_in_the_end(writer):
    assert judged(writer, 1, 2, until=14.4) == []
    assert judged(writer, until=14.6) == [("write", "python: 3 was confirmed and did not arrive")]


@pytest.mark.parametrize("payload, shown", [(9, "09000000"), (b"\1\0\0", "010000"), (b"\1\0\0\0\0", "0100000000"),
                                            (b"", "")])
def test_a_write_that_nobody_sent(writer, payload, shown):
    assert judged(writer, 1, 2, payload, 3) == [("write", f"python: {shown} arrived, which was not written")]


def test_a_write_that_arrives_twice(writer):
    assert judged(writer, 1, 2, 2, 3) == [("write", "python: 2 arrived twice")]


def test_writes_that_change_places(writer):
    assert judged(writer, 1, 3, 2) == [("write", "python: 2 arrived after 3")]


@pytest.mark.parametrize("begin, end, stood", [
    (0, 1, False), (1, 2, True), (1, 5, False), (3, 3.5, False), (4, 9, True), (2.9, 3, False), (0.5, 2, False),
])
def test_what_stood(begin, end, stood):
    stands = Stands()
    for time, is_so in ((1, True), (3, False), (4, True)):
        stands.change(time, is_so)
    assert stands.stood(begin, end) is stood


def test_what_nobody_has_heard_of_does_not_stand():
    assert Stands().stood(1, 2) is False and Stands().now is None


# Logs


@pytest.mark.parametrize("expected, line", [
    (programs.DAEMON_LINES, 'info New connection incoming from QHostAddress("::ffff:127.0.0.1")'),
    (programs.DAEMON_LINES, 'warning Dropping the client at QHostAddress("::1") which leaves 16800000 bytes unread'),
    (programs.DAEMON_LINES, 'info Sending hello message QJsonDocument({"hello":{"type":"unknown"}}) for device ""'),
    (programs.DAEMON_LINES, "warning MsgPack::unpack() unpacker for type -23 doesn't exist"),
    (programs.GATEWAY_LINES, "warning broker: mqtt://127.0.0.1:1 does not answer as it should: why; trying again, at "
                             "least every 30 s"),
    (programs.HISTORY_LINES, "<4>database: Connection refused; trying again"),
])
def test_expected_lines(expected, line):
    assert unknown_lines([line], expected) == []


@pytest.mark.parametrize("expected, line", [
    (programs.DAEMON_LINES, "warning QSocketNotifier: Invalid socket 12 and type 'Read', disabling..."),
    (programs.DAEMON_LINES, "critical Input dropped, its conversion failed: Bad type, or another"),
    (programs.DAEMON_LINES, "==123==ERROR: AddressSanitizer: heap-use-after-free on address 0x602000000010"),
    (programs.GATEWAY_LINES, "warning broker: cannot publish on vorbel/soak/values: MQTT error [-12]: No more"),
    (programs.GATEWAY_LINES, "warning spool: larger than 100 MB: the oldest 2500 batches are lost"),
    (programs.HISTORY_LINES, "<4>soak: 12 batches are missing before 42 of boot 1790000000"),
    (programs.HISTORY_LINES, "Traceback (most recent call last):"),
    ((), "Traceback (most recent call last):"),
])
def test_unknown_lines(expected, line):
    assert unknown_lines(["", line], [*expected, ""]) == [line]


# Growth


def noise(seconds, level=20.0, slope=0.0, width=1.0):
    chance = random.Random(1)
    return [(float(second), level + slope * second + chance.uniform(-width, width)) for second in range(seconds)]


def test_a_level_that_only_trembles():
    assert not is_growing(noise(3600, width=8.0), 4)


def test_a_leak():
    assert is_growing(noise(3600, slope=0.005), 16)
    assert growth(noise(3600, slope=0.005)).total == pytest.approx(18, abs=0.5)


def test_a_descriptor_for_each_of_ten_reconnections():
    assert is_growing([(float(second), 20 + second // 60) for second in range(600)], 4)


def test_a_rise_that_is_tolerated():
    assert not is_growing(noise(3600, slope=0.004), 16)


def test_a_fall():
    assert not is_growing(noise(3600, slope=-0.1), 16)


def test_too_few_samples_for_a_line():
    assert growth(noise(59)) is None and not is_growing(noise(59, slope=10), 1)
    assert is_growing(noise(60, slope=10), 1)


def test_what_an_instant_takes_is_not_kept():
    assert settled([(1, 20), (2, 220), (3, 21)]) == 20
    assert settled([]) == 0


def test_percentiles():
    assert percentile(range(1000), 0.99) == 990
    assert percentile([3, 1, 2], 0.5) == 2


# Batches


def batch(number, *values, boot=7, begin=1000):
    return {"boot": boot, "n": number, "t": begin, "v": [[10 * at, value] for at, value in enumerate(values)]}


ALL_SENT = {"single": SENT, "slow": SENT, "gathered": SENT}


@pytest.fixture
def batches():
    return Batches()


def judged_batches(batches, *found):
    for each in found:
        batches.take(5.0, each, ALL_SENT)
    heard = [breach for hearing in batches.hearings.values() for breach in hearing.judge(Excuses())]
    return said([*batches.late, *batches.lost, *heard])


def test_batches_in_order(batches):
    assert judged_batches(batches, batch(0, {"single": 1}, {"gathered": [1, 2]}), batch(1, {"single": 2})) == []


def test_a_batch_that_comes_again(batches):
    again = batch(0, {"single": 1})
    assert judged_batches(batches, again, again, batch(1, {"single": 2})) == []
    assert batches.repeated == 1


def test_a_missing_batch(batches):
    assert judged_batches(batches, batch(0, {"single": 1}), batch(2, {"single": 3})) == [
        ("lost", "broker: batches 1 to 1 of boot 7")]
    assert batches.missing == 1


def test_a_batch_that_comes_behind_a_later_one(batches):
    late = batch(1, {"single": 2})
    assert judged_batches(batches, batch(0, {"single": 1}), batch(3, {"single": 4}), late, late) == [
        ("late", "broker: batch 1 of boot 7"), ("lost", "broker: batches 2 to 2 of boot 7")]
    assert (batches.missing, batches.repeated) == (1, 1)


def test_the_first_batch_of_a_boot_is_missing(batches):
    assert judged_batches(batches, batch(1, {"single": 1})) == [("lost", "broker: batches 0 to 0 of boot 7")]


def test_a_value_that_is_missing_in_batches_that_are_all_there(batches):
    assert judged_batches(batches, batch(0, {"single": 1}), batch(1, {"single": 3})) == [
        ("lost", "broker, boot 7: single 2 to 2")]


def test_another_boot_begins_anew(batches):
    assert judged_batches(batches, batch(0, {"single": 1}), batch(0, {"single": 5}, boot=8),
                          batch(1, {"single": 2})) == []


def test_what_the_history_has_not(batches):
    judged_batches(batches, batch(0, {"slow": 1}, {"slow": 2}), batch(1, {"slow": 3}, begin=2000))
    assert batches.missing_in({1, 2, 3}) == []
    assert batches.missing_in({1, 3}) == [(2, (1010, 5.0))]


def test_of_two_values_in_a_millisecond_the_history_has_one(batches):
    judged_batches(batches, batch(0, {"slow": 1}), batch(1, {"slow": 2}))
    assert batches.missing_in({2}) == []


def test_runs():
    assert runs([1, 2, 3, 7, 8, 8]) == [[1, 3], [7, 8], [8, 8]]
