"""How values are written, and how their change is told."""

import array

import pytest
from matplotlib import pyplot

from vorbel import Disconnected, Hello, Values, VorbelError
from vorbel.digits import plain
from vorbel.meaning import Meanings, Meant
from vorbel.plotting import Series, figure_of
from vorbel.prompt import Prompt
from vorbel.recording import Origin, Recorder, csv_rows, json_lines, origin_of, read_entries, read_recording
from vorbel.table import Table, shown, sparkline
from vorbel.watch import fitted


def floats(*values):
    return array.array("f", values)


@pytest.mark.parametrize("value, text", [
    (5, "5"), (True, "true"), ("x", '"x"'), (0.1, "0.1"), (3.930000066757202, "3.93"), (float("nan"), "nan"),
    (floats(), "[]"), (floats(1, 2), "▁█  2 × … 2"), (floats(3, 3, 3), "▁▁▁  3 × … 3"),
], ids=str)
def test_shown(value, text):
    assert shown(Meant(value)) == text


def test_sparkline_is_no_longer_than_asked():
    assert sparkline(range(80), 8) == "▁▂▃▄▅▆▇█"
    assert sparkline([1, float("inf"), 2], 8) == "▁!█"


@pytest.mark.parametrize("value, as_json", [
    (floats(0.1, 2), [0.1, 2.0]), (float("inf"), "inf"), (b"\x01\xff", "01ff"), ({"a": floats(1)}, {"a": [1.0]}),
    (3.4028234663852886e38, 3.4028235e38), (5e-324, 5e-324), (1e300, 1e300)], ids=str)
def test_plain(value, as_json):
    assert plain(value) == as_json


def test_plain_of_all_that_can_be_decoded():
    value = 7
    for _ in range(500):
        value = {"n": value}
    assert plain(value) == value


def after(*readings):
    """The row of "a" after (time, value) readings."""
    table = Table()
    for time, value in readings:
        table.update(Values({"a": value}, time), Meanings(None))
    return table.rows["a"]


@pytest.mark.parametrize("readings, change", [
    ([(10, 1)], ""),
    ([(10, 1), (10.5, 2)], "+2/s"),
    ([(10, 4), (11, 3), (11.5, 1)], "-2/s"),
    ([(5, 100), (10, 1), (11, 2)], "+1/s"),
    ([(10, 1.5), (11, 1.5)], "+0/s"),
    ([(10, True), (10.5, False), (11, False)], "0.5×/s"),
    ([(10, True), (11, True)], ""),
    ([(10, floats(1)), (11, floats(2))], "0.5×/s"),
], ids=["first reading", "rising", "falling", "only the last two seconds", "still", "bool", "still bool", "array"])
def test_change(readings, change):
    assert after(*readings).change(readings[-1][0]) == change


def test_change_of_what_changes_more_often_than_is_remembered():
    assert after(*((10 + at / 500, at % 2 == 1) for at in range(600))).change(10 + 599 / 500).startswith("50")


def test_age():
    assert after((10, 1)).age(12.04) == "2.0 s"
    assert after((10, 1)).age(200) == "3 min"


def test_rows_are_in_order_of_paths():
    table = Table()
    table.update(Values({"b": 1, "a": {"z": 2, "c": 3}}, 0), Meanings(None))
    assert list(table.rows) == ["a.c", "a.z", "b"] and table.messages == 1


@pytest.mark.parametrize("columns, line", [
    (30, "12:00:00  a.path  long value"), (28, "12:00:00  a.path  long value"), (27, "12:00:00  a.path  long val…"),
    (26, "12:00:00  a.path  long va…"), (25, "a.path  long value"), (12, "a.path  lon…"), (9, "a.path  …"),
    (8, "a.path"), (5, "a.pa…"),
])
def test_what_does_not_fit_a_line(columns, line):
    assert fitted("12:00:00", "a.path", "long value", columns) == line


def test_wide_characters_take_two_columns():
    assert fitted("12:00:00", "日本", "値値値値値値", 25) == "12:00:00  日本  値値値値…"
    assert fitted("12:00:00", "日本", "1", 17) == "12:00:00  日本  1"


def test_recorded_lines():
    event = Values({"a": floats(1, 2.5), "b": {"c": True}}, 12.5)
    assert json_lines(event) == '{"time":12.5,"values":{"a":[1.0,2.5],"b":{"c":true}}}\n'
    assert csv_rows(event) == "12.500000,a,0,1.0,,\n12.500000,a,1,2.5,,\n12.500000,b.c,,true,,\n"


@pytest.mark.parametrize("name", ["run.jsonl", "run.csv"])
def test_what_was_recorded_is_read_again(tmp_path, name):
    recorder = Recorder(tmp_path / name)
    for event in (Values({"a": floats(1, 2.5), "b": {"c": True, "d.e": -3}}, 12.5), Disconnected("gone", 1.0),
                  Values({"a": floats(4, float("inf"))}, 13.25), Values({"a": floats(7)}, 13.5),
                  Values({"b": {"c": "text", "d.e": float("-inf")}}, 14.0)):
        recorder.record(event)
    recorder.close()
    read = [(values.time, path, list(value) if isinstance(value, array.array) else value)
            for values in read_recording(tmp_path / name) for path, value in values.flat().items()]
    assert read == [(12.5, "a", [1, 2.5]), (12.5, "b.c", True), (12.5, r"b.d\.e", -3), (13.25, "a", [4, float("inf")]),
                    (13.5, "a", [7]), (14.0, "b.c", "text"), (14.0, r"b.d\.e", float("-inf"))]
    assert all(type(value) is bool for _, path, value in read[:4] if path == "b.c")


def test_origins_are_read_again(tmp_path):
    origins = [Origin("ws://board:10443", Hello("gateway", "A7"), {"a": {"@mac": 1}}), Origin("x", Hello("unknown"))]
    recorder = Recorder(tmp_path / "run.jsonl")
    for number, origin in enumerate([origins[0], origins[0], origins[1]]):
        recorder.origin = origin
        recorder.record(Values({"a": number}, 12.5 + number))
    recorder.close()
    assert list(read_entries(tmp_path / "run.jsonl")) == [
        origins[0], Values({"a": 0}, 12.5), Values({"a": 1}, 13.5), origins[1], Values({"a": 2}, 14.5)]
    assert origin_of(tmp_path / "run.jsonl") == origins[0]


@pytest.mark.parametrize("line, origin", [
    ('{"time":1,"values":{}}', Origin()), ("", Origin()), ('{"time":1,"recording":{}}', Origin()),
    ('{"time":1,"recording":5}', Origin()),
    ('{"time":1,"recording":{"address":"a","hello":5,"schema":[]}}', Origin("a")),
    ('{"time":1,"recording":{"hello":{"type":"t","id":5}}}', Origin("", Hello("t"))),
], ids=["values first", "empty", "nothing in it", "no origin", "other types", "another type of identifier"])
def test_origins_that_say_little(tmp_path, line, origin):
    (tmp_path / "run.jsonl").write_text(line and line + "\n")
    assert origin_of(tmp_path / "run.jsonl") == origin


@pytest.mark.parametrize("name, text", [
    ("x.jsonl", '{"time":1,"values":{"a":1}}\n{"time":2,"val'), ("x.csv", "time,path,index,value\n1,a,,1\n2,a,,"),
], ids=["JSON Lines", "CSV"])
def test_last_line_that_was_not_finished_is_passed_over(tmp_path, name, text):
    (tmp_path / name).write_text(text)
    assert [values.data for values in read_recording(tmp_path / name)] == [{"a": 1}]


@pytest.mark.parametrize("name, text, message", [
    ("x.jsonl", '{"time":1,"values":{"a":1}}\n{"tim\n{"time":1,"values":{"a":1}}\n', "line 2 is none"),
    ("x.jsonl", '{"values":{"a":1}}\n', "line 1 is none"), ("x.jsonl", "[]\n", "line 1 is none"),
    ("x.jsonl", '{"time":1,"values":{"a":[{}]}}\n', "line 1 is none"), ("x.jsonl", "[" * 9999 + "\n", "line 1 is none"),
    ("x.csv", "a,b\n1,2\n", "line 2 is none"), ("x.csv", "time,path,index,value\n1,a,,1\nnow,a,,1\n", "line 3 is none"),
    ("x.csv", "time,path,index,value\n1,a\n", "line 2 is none"), ("x.txt", "", "one of .jsonl, .ndjson, .csv"),
])
def test_what_is_no_recording(tmp_path, name, text, message):
    (tmp_path / name).write_text(text)
    with pytest.raises(VorbelError, match=message):
        list(read_recording(tmp_path / name))


def test_figure_has_units_and_draws_flags_as_steps():
    series = {"speed": Series(), "flag": Series(), "was.a.flag": Series(), "flags": Series()}
    for at, value in enumerate((True, False)):
        series["speed"].add(Meant(at), 10.0 + at)
        series["flag"].add(Meant(value), 10.0 + at)
        series["flags"].add(Meant(floats(1, 0)), 10.0 + at)
    series["was.a.flag"].add(Meant(True), 10.0)
    series["was.a.flag"].add(Meant(2), 11.0)
    figure = figure_of(series, "title", {path: "$r_{$" if path == "speed" else "" for path in series})
    assert [panel.get_ylabel() for panel in figure.axes] == ["$r_{$", "", "", ""]
    assert [panel.lines[0].get_drawstyle() for panel in figure.axes] == ["default", "steps-post", "default", "default"]
    assert [label.get_text() for label in figure.axes[1].get_yticklabels()] == ["false", "true"]
    assert list(figure.axes[1].lines[0].get_xdata()) == [0, 1]
    figure.canvas.draw()  # which would fail on a formula that is none
    pyplot.close(figure)


@pytest.mark.parametrize("path, unit", [("motor.speed", "rpm"), ("motor", ""), ("motor.current", ""), ("nosuch.a", ""),
                                        ("motor.speed.unit", "")])
def test_unit_of_a_path(path, unit):
    schema = {"motor": {"speed": {"@mac": 5, "unit": "rpm"}, "current": {"@mac": 5, "unit": 3}}}
    assert Meanings(schema).of(path, 1).unit == unit


def test_course_spreads_an_array_over_the_time_since_the_message_before():
    line = Series()
    line.add(Meant(floats(1, 2, 3)), 10)
    line.add(Meant(floats(4, 5)), 12)
    assert (line.times, line.values) == ([10, 11, 12], [3, 4, 5])


def test_course_takes_numbers_and_bools():
    line = Series()
    for time, value in enumerate((1, True, "text", floats(), 2.5)):
        line.add(Meant(value), time)
    assert (line.times, line.values) == ([0, 1, 4], [1, 1, 2.5])


@pytest.mark.parametrize("typed, lines, left", [
    ("set a 1\r", ["set a 1"], ""), ("  \r\n", [], ""), ("ab\x7fc\r", ["ac"], ""), ("abc\x15d", [], "d"),
    ("\x1b[Aa\x1b[3~b\x1bOPc", [], "abc"), ("\x04", ["quit"], ""), ("a\x04", [], "a"), ("x\t", [], "x!"),
    ("a\rb\rc", ["a", "b"], "c"),
    ("ac\x1b[Db", [], "abc"), ("bc\x1bOHa", [], "abc"), ("ab\x01\x1b[C\x1b[C\x1b[C\x05c", [], "abc"),
    ("bc\x1b[1~a\x1b[Fd", [], "abcd"), ("ab\x1b[D\x1b[D\x1b[D\x1b[3~", [], "b"), ("ab\x02\x04", [], "a"),
    ("ab\x02\x7f", [], "b"), ("abcd\x02\x02\x0b", [], "ab"), ("abcd\x02\x15", [], "d"),
    ("set a.b  \x17c", [], "set c"), ("set\x17c", [], "c"), ("x y\x02\x02\t", [], "x! y"),
    ("a\x01b\r", ["ba"], ""), ("ab\x01\x7f", [], "ab"),
], ids=["a line", "empty lines", "backspace", "erase all", "keys without meaning", "end of input", "not on a line",
        "completion", "several lines at once", "left", "home", "no further than the end", "home and end",
        "delete, no further left", "delete by control", "backspace within", "erase to the end",
        "erase to the beginning", "erase a word", "erase the first word", "completion within",
        "a line with the cursor within", "nothing before the cursor"])
def test_prompt(typed, lines, left):
    prompt = Prompt(complete=lambda text: text + "!")
    assert list(prompt.feed(typed)) == lines
    assert prompt.text == left


UP, DOWN = "\x1b[A", "\x1bOB"


@pytest.mark.parametrize("typed, left", [
    (UP, "b"), (UP + UP, "a"), (UP + UP + UP, "a"), (UP + UP + DOWN, "b"), ("new" + UP + DOWN + "er", "newer"),
    (UP + DOWN + DOWN, ""), (UP + "c", "bc"), ("b\r" + UP + UP, "a"), (UP + "\r" + UP + UP, "a"),
    (UP + UP + "\r" + UP + UP, "b"), ("\x10\x10\x0e", "b"),
], ids=["last", "last but one", "no further", "back", "what was begun", "back to nothing", "changed", "repeated",
        "repeated from history", "older one again", "by control"])
def test_lines_are_recalled(typed, left):
    prompt = Prompt(complete=str)
    assert list(prompt.feed("a\rb\r")) == ["a", "b"]
    list(prompt.feed(typed))
    assert (prompt.text, prompt.cursor) == (left, len(left))
