"""Reading descriptions of CAN buses, in all formats that canmatrix knows."""

import contextlib
import io
import logging
import re
import types
from collections.abc import Iterator, Mapping
from decimal import Decimal
from typing import Any, Optional

from .dbc import PATH
from .errors import VorbelError, listed
from .frames import Choice, Message, Signal

CLASSIC_BYTES = 8
NO_MESSAGE = "VECTOR__INDEPENDENT_SIG_MSG"  # where DBC files keep signals that are in none
TEXTS = ("char", "string")  # types that SYM files have


def read(path: str, bus: Optional[str] = None) -> tuple[list[Message], list[str]]:
    """The messages of a file, and what canmatrix did not understand in it. Of a file with several buses, those of
    `bus`. Raises VorbelError, and OSError where there is no such file."""
    complaints: list[str] = []
    formats = _formats()
    with open(path, "rb") as file:
        content = file.read()
    kind = _kind(formats, path)
    try:
        with _overheard(complaints):
            matrices = formats.load(io.BytesIO(content), kind, **_encoding(kind, content))
            messages = _messages(_bus(matrices, path, bus))
    except VorbelError:
        raise
    except Exception as error:  # anything can be wrong with a file, and canmatrix has no errors of its own for that
        raise VorbelError(f"{path} cannot be read as {kind.upper()}: {error or type(error).__name__}") from None
    return messages, complaints


# canmatrix


def _formats() -> types.ModuleType:
    try:
        with _overheard([]):  # which formats it lacks modules for
            import canmatrix.formats
    except ImportError:
        raise VorbelError("schema import needs canmatrix: apt install python3-canmatrix") from None
    formats: types.ModuleType = canmatrix.formats
    return formats


def _kind(formats: Any, path: str) -> str:
    """The format that the ending of a file's name stands for."""
    kinds = {str(ending): str(kind) for kind, ending in formats.extensionMapping.items()
             if "load" in formats.supportedFormats[kind]}
    ending = path.rpartition(".")[2].lower()
    if ending in formats.moduleList and ending not in formats.loadedFormats:
        raise VorbelError(f"{path}: canmatrix reads no .{ending} here: install the packages that python3-canmatrix "
                          "recommends")
    if ending not in kinds:
        raise VorbelError(f"{path}: of which format it is, its name does not say: it has to end in "
                          + ", ".join(sorted(f".{known}" for known in kinds)))
    return kinds[ending]


def _encoding(kind: str, content: bytes) -> dict[str, str]:
    """UTF-8 where it is that; or else what canmatrix takes it for."""
    try:
        content.decode("utf-8")
    except UnicodeDecodeError:
        return {}
    return {f"{kind}ImportEncoding": "utf-8"}  # for those formats that do not say it themselves


@contextlib.contextmanager
def _overheard(complaints: list[str]) -> Iterator[None]:
    """What canmatrix prints and logs, line by line, instead of it being shown."""
    printed = io.StringIO()
    logger = logging.getLogger("canmatrix")
    handler = _Listener(complaints)
    logger.addHandler(handler)
    try:
        with contextlib.redirect_stdout(printed):
            yield
    finally:
        logger.removeHandler(handler)
        complaints += _sentences(printed.getvalue())


class _Listener(logging.Handler):
    def __init__(self, texts: list[str]) -> None:
        super().__init__(logging.WARNING)
        self._texts = texts

    def emit(self, record: logging.LogRecord) -> None:
        self._texts.append(record.getMessage())


def _sentences(printed: str) -> list[str]:
    """A line's number and the line itself, which canmatrix prints one below the other, in one."""
    joined = re.sub(r"^error with line no: (\d+)\n", r"line \1 is not understood: ", printed, flags=re.M)
    return [line for line in joined.splitlines() if line.strip()]


def _bus(matrices: Mapping[str, Any], path: str, bus: Optional[str]) -> Any:
    if bus is None and len(matrices) == 1:
        return next(iter(matrices.values()))
    if bus is None or bus not in matrices:
        told = "it describes several buses: one is to be chosen" if bus is None else f"there is no bus {bus!r}"
        raise VorbelError(f"{path}: {told}; there are: {listed(matrices)}")
    return matrices[bus]


# Its messages


def _messages(matrix: Any) -> list[Message]:
    messages = [_message(frame) for frame in matrix.frames]
    if matrix.signals:
        free = tuple(_signal(signal, None) for signal in matrix.signals)
        messages.append(Message("", 0, 0, free, refusal="it is in no message"))
    return messages


def _message(frame: Any) -> Message:
    signals = tuple(_signal(signal, _choice(signal, frame)) for signal in frame.signals)
    return Message(frame.name, int(frame.arbitration_id.id), int(frame.size), signals, frame.comment or "",
                   _refusal(frame))


def _refusal(frame: Any) -> str:
    if frame.name == NO_MESSAGE:
        return "it is in no message"
    if frame.arbitration_id.extended:
        return "its identifier has 29 bits, and the daemon knows those of 11"
    if frame.is_fd or frame.size > CLASSIC_BYTES:
        return "it is in a message of CAN FD"
    if frame.is_pdu_container:
        return "its message packs several others, in an order of their own"
    return ""


def _signal(signal: Any, choice: Optional[Choice]) -> Signal:
    least, largest = _bounds(signal)
    return Signal(
        name=signal.name, start=int(signal.start_bit), size=int(signal.size),
        is_little_endian=bool(signal.is_little_endian), is_signed=bool(signal.is_signed) and not signal.is_float,
        is_float=bool(signal.is_float), is_text=bool(signal.is_ascii) or signal.type_label in TEXTS,
        scale=Decimal(signal.factor), offset=Decimal(signal.offset), least=least, largest=largest,
        unit=signal.unit or "", comment=signal.comment or "",
        labels={int(raw): str(text) for raw, text in signal.values.items()},
        choice=choice, path=signal.attributes.get(PATH) or "")


def _bounds(signal: Any) -> tuple[Optional[Decimal], Optional[Decimal]]:
    """Where a file has none, it says 0 and 0, or canmatrix makes some up."""
    if not signal.min and not signal.max:
        return None, None
    return (None if signal.min == signal.calc_min() else Decimal(signal.min),
            None if signal.max == signal.calc_max() else Decimal(signal.max))


def _choice(signal: Any, frame: Any) -> Optional[Choice]:
    ranges = tuple((int(low), int(high)) for low, high in signal.mux_val_grp)
    if not ranges and signal.mux_val is not None:
        ranges = ((int(signal.mux_val), int(signal.mux_val)),)
    if not ranges:
        return None
    if signal.muxer_for_signal:
        return Choice(_long_name(signal.muxer_for_signal, frame), ranges)
    others = [each.name for each in frame.signals if each.is_multiplexer and each is not signal]
    return Choice(others[0] if len(others) == 1 else "", ranges)


def _long_name(name: str, frame: Any) -> str:
    """That of the multiplexer whose name in the file had to be cut to this one."""
    names = [each.name for each in frame.signals if each.is_multiplexer]
    return name if name in names else next((long for long in names if long.startswith(name)), name)
