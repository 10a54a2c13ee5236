"""Messages as a DBC file."""

import re
from collections.abc import Collection, Iterable, Iterator
from decimal import Decimal

from .frames import Message, Signal, free_name

LONGEST = 32  # characters of a name; longer ones stand in an attribute
NOBODY = "Vector__XXX"  # who sends and receives, where that is not said
LONG_MESSAGE, LONG_SIGNAL = "SystemMessageLongSymbol", "SystemSignalLongSymbol"
PATH = "VorbelPath"  # where the schema had a signal, if elsewhere than under the names of the message and its own


def content(messages: Iterable[Message]) -> bytes:
    """As other programs expect it, in Latin-1; in UTF-8 only if there are other letters."""
    text = "\n".join(_lines(list(messages))) + "\n"
    try:
        return text.encode("iso-8859-1")
    except UnicodeEncodeError:
        return re.sub("[\ud800-\udfff]", "\ufffd", text).encode()  # halves of letters, which JSON may have


def _lines(messages: list[Message]) -> Iterator[str]:
    yield from ('VERSION ""', "", "NS_ :", "", "BS_:", "", "BU_:", "")
    short = _short([message.name for message in messages])
    words = [_Words(message, short[message.name]) for message in messages]
    for part in (_Words.definition, _Words.comments):
        for each in words:
            yield from part(each)
    for kind, name in (("BO_", LONG_MESSAGE), ("SG_", LONG_SIGNAL), ("SG_", PATH)):
        yield f'BA_DEF_ {kind} "{name}" STRING ;'
    for name in (LONG_MESSAGE, LONG_SIGNAL, PATH):
        yield f'BA_DEF_DEF_ "{name}" "";'
    for part in (_Words.attributes, _Words.labels, _Words.floats, _Words.selections):
        for each in words:
            yield from part(each)


def _short(names: Collection[str], kept: Collection[str] = ()) -> dict[str, str]:
    """Names of a length that every program takes, but for those that are to be kept."""
    short = {name: name for name in names if len(name) <= LONGEST or name in kept}
    for name in names:
        if name not in short:
            short[name] = free_name(name[:LONGEST - 3], short.values())
    return short


class _Words:
    """The parts of a file that are about a message."""

    def __init__(self, message: Message, name: str) -> None:
        self._message = message
        self._name = name
        self._multiplexers = {signal.choice.selector for signal in message.signals if signal.choice}
        # Programs find a multiplexer by its name, and not all of them by that in the attribute.
        self._short = _short([signal.name for signal in message.signals], self._multiplexers)

    def definition(self) -> Iterator[str]:
        yield f"BO_ {self._message.identifier} {self._name}: {self._message.size} {NOBODY}"
        for signal in self._message.signals:
            order, sign = int(signal.is_little_endian), "-" if signal.is_signed or signal.is_float else "+"
            scale, offset, least, largest = map(_text, (signal.scale, signal.offset, *_bounds(signal)))
            yield (f" SG_ {self._short[signal.name]}{self._mark(signal)} : {_start(signal)}|{signal.size}@{order}{sign}"
                   f" ({scale},{offset}) [{least}|{largest}] \"{signal.unit}\" {NOBODY}")
        yield ""

    def comments(self) -> Iterator[str]:
        if self._message.comment:
            yield f'CM_ BO_ {self._message.identifier} "{self._message.comment}";'
        for signal in self._message.signals:
            if signal.comment:
                yield f'CM_ {self._place(signal)} "{signal.comment}";'

    def attributes(self) -> Iterator[str]:
        if self._name != self._message.name:
            yield f'BA_ "{LONG_MESSAGE}" BO_ {self._message.identifier} "{self._message.name}";'
        for signal in self._message.signals:
            if self._short[signal.name] != signal.name:
                yield f'BA_ "{LONG_SIGNAL}" {self._place(signal)} "{signal.name}";'
            if signal.path:
                yield f'BA_ "{PATH}" {self._place(signal)} "{signal.path}";'

    def labels(self) -> Iterator[str]:
        for signal in self._message.signals:
            if signal.labels:
                texts = " ".join(f'{raw} "{text}"' for raw, text in signal.labels.items())
                yield f"VAL_ {self._name_of(signal)} {texts} ;"

    def floats(self) -> Iterator[str]:
        for signal in self._message.signals:
            if signal.is_float:
                yield f"SIG_VALTYPE_ {self._name_of(signal)} : 1;"

    def selections(self) -> Iterator[str]:
        """Needed where there is more than one multiplexer."""
        if len(self._multiplexers) < 2:
            return
        for signal in self._message.signals:
            if signal.choice:
                ranges = ", ".join(f"{low}-{high}" for low, high in signal.choice.ranges)
                yield f"SG_MUL_VAL_ {self._name_of(signal)} {self._short[signal.choice.selector]} {ranges};"

    def _mark(self, signal: Signal) -> str:
        chosen = f"m{signal.choice.ranges[0][0]}" if signal.choice else ""
        mark = chosen + ("M" if signal.name in self._multiplexers else "")
        return f" {mark}" if mark else ""

    def _place(self, signal: Signal) -> str:
        return f"SG_ {self._name_of(signal)}"

    def _name_of(self, signal: Signal) -> str:
        return f"{self._message.identifier} {self._short[signal.name]}"


def _start(signal: Signal) -> int:
    """DBC counts each byte's bits from the lowest, whatever the order of the bytes."""
    return signal.start if signal.is_little_endian else signal.start // 8 * 8 + 7 - signal.start % 8


def _bounds(signal: Signal) -> tuple[Decimal, Decimal]:
    if signal.least is None and signal.largest is None:
        return Decimal(0), Decimal(0)
    low, high = signal.value_range
    return (low if signal.least is None else signal.least), (high if signal.largest is None else signal.largest)


def _text(number: Decimal) -> str:
    """With the digits that it needs."""
    return str(int(number)) if number == int(number) and abs(number) < 10**12 else str(number.normalize())
