import pytest

from vorbel import paths


@pytest.mark.parametrize("names, path", [
    (("a",), "a"), (("motor", "speed"), "motor.speed"), ((), ""), (("1.5 V", "x"), "1\\.5 V.x"),
    (("a\\", "b"), "a\\\\.b"), (("a", "", "b"), "a..b"), (("ü", "z y"), "ü.z y"),
], ids=["one name", "two names", "the root", "a dot in a name", "a backslash at the end", "an empty name",
        "beyond ASCII"])
def test_there_and_back(names, path):
    assert paths.join(names) == path
    assert paths.split(path) == names


def test_shown():
    assert paths.shown("motor.ü.日本 \\.") == "motor.ü.日本 \\."
    assert paths.shown("a\tb\n\x1b[31m\ud800") == "a\\tb\\n\\x1b[31m\\ud800"


def test_flatten_and_nest():
    assert paths.flatten({"a": {"b": 1, "c.d": [2]}, "e": True}) == {"a.b": 1, "a.c\\.d": [2], "e": True}
    assert paths.nest("a.c\\.d", 7) == {"a": {"c.d": 7}}


def test_value_at_the_root():
    assert paths.flatten(5) == {"": 5}
    assert paths.nest("", 5) == 5
