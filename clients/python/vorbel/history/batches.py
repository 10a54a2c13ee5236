"""The batches of values as boards publish them, and as nobody should."""

import json
from typing import Any, NamedTuple, NoReturn

BATCH_LIMIT = 4 * 1024 * 1024  # bytes
_WHOLE_LIMIT = 2**53  # beyond, numbers of JSON are not exact
_CENTURY = 4102444800000  # the year 2100, ms


class Refused(Exception):
    """What came is not what docs/gateway.md describes."""


class Batch(NamedTuple):
    boot: int
    number: int
    messages: list[tuple[int, Any]]  # each with its time, in milliseconds since 1970


def parse(payload: bytes) -> Batch:
    """Raises Refused."""
    if len(payload) > BATCH_LIMIT:
        raise Refused("larger than 4 MiB")
    document = parse_json(payload)
    if not isinstance(document, dict):
        raise Refused("no object of JSON")
    boot, number, begin = (_whole(document, name) for name in ("boot", "n", "t"))
    messages = document.get("v")
    if not isinstance(messages, list):
        raise Refused('"v" is no list')
    return Batch(boot, number, [_message(begin, message) for message in messages])


def parse_json(payload: bytes) -> Any:
    try:
        return json.loads(payload, parse_constant=_no_constant)
    except RecursionError:
        raise Refused("nested too deep") from None
    except ValueError as error:  # UnicodeDecodeError is one, too
        raise Refused(f"no JSON: {str(error)[:100]}") from None


def _no_constant(text: str) -> NoReturn:
    raise ValueError(f"{text} is no number of JSON")


def _whole(document: dict[str, Any], name: str) -> int:
    value = document.get(name)
    if type(value) is not int or not 0 <= value < _WHOLE_LIMIT:
        raise Refused(f'"{name}" is no whole number from 0')
    return value


def _message(begin: int, message: Any) -> tuple[int, Any]:
    if type(message) is not list or len(message) != 2 or type(message[0]) is not int:
        raise Refused("a message is not [milliseconds, values]")
    time = begin + message[0]
    if not 0 <= time < _CENTURY:
        raise Refused("a time is not between 1970 and 2100")
    if type(message[1]) is not dict:
        raise Refused("a message has no values by name")
    return time, message[1]
