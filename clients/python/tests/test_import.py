"""Importing descriptions of CAN buses: what canmatrix decodes from frames, clients read through the daemon; what they
write comes out as the frames that canmatrix encodes.

The files are those in buses/, and all in the folder that $VORBEL_BUSES names.
"""

import json
import math
import os
import pathlib
import random
import re
import struct

import canmatrix.formats
import pytest

import vorbel
from bridges import PROJECT
from vorbel import checks, importing, matrix
from vorbel.frames import free_name

OWN = pathlib.Path(__file__).parent / "buses"
FILES = [(OWN / "plant.dbc", None), (OWN / "plant.sym", None), (OWN / "plant.kcd", "Field"),
         (OWN / "plant.kcd", "Cellar")]
FOREIGN = [(path, None) for path in sorted(pathlib.Path(os.environ["VORBEL_BUSES"]).iterdir())
           if path.suffix in (".dbc", ".kcd", ".sym", ".arxml", ".dbf")] if "VORBEL_BUSES" in os.environ else []
CASES = json.loads((PROJECT / "clients" / "conformance" / "buses.json").read_text(encoding="utf-8"))["cases"]
PAYLOADS = 20  # of each message
ROUNDS = 5


def imported(path, bus=None):
    messages, complaints = matrix.read(str(path), bus)
    schema, outcomes = importing.to_schema(messages)
    return schema, outcomes, complaints


def of_dbc(tmp_path, text, name="test.dbc"):
    """The schema and {path: verdict} of a DBC file."""
    (tmp_path / name).write_text(text, encoding="utf-8")
    schema, outcomes, _ = imported(tmp_path / name)
    return schema, {outcome.path: str(outcome).partition(": ")[2] for outcome in outcomes}


class Truth:
    """A message as canmatrix has it, of its signals those that were imported, and their paths."""

    def __init__(self, frame, paths, schema):
        self.frame = frame
        self.frame.signals = [signal for signal, path in zip(frame.signals, paths) if path]
        self.paths = [path for path in paths if path]
        self.group = vorbel.paths.split(self.paths[0])[0]
        self.node = schema[self.group]
        self.endpoint = frame.arbitration_id.id & 63, frame.arbitration_id.id >> 6

    def signals(self):
        return list(zip(self.frame.signals, self.paths))

    def decode(self, payload):
        """{path: (raw number, value)} of the imported signals that canmatrix finds in a frame."""
        decoded = self.frame.decode(payload)
        return {path: (decoded[signal.name].raw_value, float(decoded[signal.name].phys_value))
                for signal, path in self.signals() if signal.name in decoded}

    def payload(self, chance):
        """Random bytes, with numbers that select something where there is something to be selected."""
        selectors = dict(self.selection(chance.choice(self.frame.signals)))
        mask = self.frame.signals_to_bytes({name: -1 for name in selectors})
        chosen = self.frame.signals_to_bytes(selectors)
        return bytes(chance.randrange(256) & ~m & 255 | c for m, c in zip(mask, chosen))

    def selection(self, signal):
        """(name, raw number) of the signals that select one, from the innermost."""
        while signal is not None and signal.mux_val is not None:
            selectors = [each for each in self.frame.signals if each.is_multiplexer and each is not signal
                         and signal.muxer_for_signal in (None, each.name)]
            if not selectors:
                return
            yield selectors[0].name, signal.mux_val_grp[0][0] if signal.mux_val_grp else signal.mux_val
            signal = selectors[0]

    def writes(self, chance):
        """[({signal: raw number}, {leaf's name: value}, whether these are all of such a frame)]: what can be written in
        one message, all signals in one."""
        kinds = {tuple(self.selection(signal)) for signal, _ in self.signals()}
        inner = [kind for kind in kinds if not any(kind != other and kind == other[len(other) - len(kind):]
                                                   for other in kinds)]
        return [write for kind in sorted(inner) for write in self._writes_of(dict(kind), chance)]

    def _writes_of(self, selected, chance):
        left = [(signal, path) for signal, path in self.signals() if not self.node[name_of(path)].get("readonly")
                and (signal.name in selected or dict(self.selection(signal)).items() <= selected.items())]
        is_first = True
        while any(signal.name not in selected for signal, _ in left) or (left and not selected):
            together = self._apart(left, selected)
            left = [each for each in left if each not in together]
            raws = {signal: selected.get(signal.name, raw_of(signal, chance)) for signal, _ in together}
            values = {name_of(path): float(signal.raw2phys(raws[signal])) for signal, path in together}
            yield raws, {**values, **{name: 0 for name in self.last_bytes(selected)}}, is_first
            is_first = False

    def _apart(self, signals, selected):
        """Signals that have no bit in common; selectors first, then those at the end, as a frame is as long as they
        are."""
        found, used = [], bytes(self.frame.size)
        for signal, path in sorted(signals, key=lambda each: (each[0].name not in selected, -last_byte(each[0]))):
            bits = self.frame.signals_to_bytes({signal.name: bits_of(signal)})
            if not any(a & b for a, b in zip(bits, used)):
                found.append((signal, path))
                used = bytes(a | b for a, b in zip(bits, used))
        return found

    def last_bytes(self, selected):
        for name, leaf in self.node.items():
            if name.startswith("last byte"):
                if "when" not in leaf or selected.get(name_of(leaf["when"]["path"])) == leaf["when"]["is"]:
                    yield name


def name_of(path):
    return vorbel.paths.split(path)[-1]


def last_byte(signal):
    return (signal.start_bit + signal.size - 1) // 8


def bits_of(signal):
    return struct.unpack(">f", b"\xff\xff\xff\xff")[0] if signal.is_float else -1


def raw_of(signal, chance):
    """A random raw number within the bounds that the signal has."""
    if signal.is_float:
        return struct.unpack("<f", struct.pack("<f", chance.uniform(float(max(signal.min, -10**6)),
                                                                    float(min(signal.max, 10**6)))))[0]
    low, high = signal.calculate_raw_range()
    least, largest = sorted((bound - signal.offset) / signal.factor for bound in (signal.min, signal.max))
    bounded = max(low, math.ceil(least)), min(high, math.floor(largest))
    return chance.randint(*bounded) if bounded[0] <= bounded[1] else chance.randint(low, high)


def truths(path, bus):
    """The messages of a file of which something was imported, and the schema."""
    schema, outcomes, _ = imported(path, bus)
    matrices = canmatrix.formats.loadp(str(path), **({} if path.suffix != ".dbc" else {"dbcImportEncoding": "utf-8"}))
    verdicts = iter(outcomes)
    found = []
    for frame in matrices[bus].frames if bus else next(iter(matrices.values())).frames:
        paths = [outcome.path if outcome.verdict != importing.NOT_POSSIBLE else ""
                 for outcome in [next(verdicts) for _ in frame.signals]]
        if any(paths):
            found.append(Truth(frame, paths, schema))
    assert next(verdicts, None) is None
    return found, schema


def identity(value):
    return value.name if isinstance(value, pathlib.Path) else value


# Through the daemon


@pytest.mark.parametrize("path, bus", FILES + FOREIGN, ids=identity)
async def test_clients_read_what_canmatrix_decodes(bridge, path, bus):
    messages, schema = truths(path, bus)
    chance = random.Random(1)
    async with vorbel.connect(schema=schema) as client:
        await client.confirmed()
        meant = client.meant()
        for message in messages:
            payloads = [message.payload(chance) for _ in range(PAYLOADS)]
            bridge.say(*message.endpoint, *(payload.hex() for payload in payloads))
            for payload in payloads:
                read = {path: each for path, each in (await anext(meant)).items() if "last byte" not in path}
                compare(read, message.decode(payload))


def compare(read, decoded):
    assert read.keys() == decoded.keys()
    for path, (raw, value) in decoded.items():
        meant = read[path]
        field = vorbel.meaning.field_of(meant.leaf, meant.reading)
        assert field == raw or (math.isnan(field) and math.isnan(raw)), path
        is_single = isinstance(raw, float) and meant.leaf.meaning.is_scaled
        tolerance = 1e-6 if is_single else 1e-9
        assert meant.value == pytest.approx(value, rel=tolerance, abs=0 if is_single else 1e-9, nan_ok=True), path


@pytest.mark.parametrize("path, bus", FILES + FOREIGN, ids=identity)
async def test_what_clients_write_is_what_canmatrix_encodes(bridge, path, bus):
    messages, schema = truths(path, bus)
    chance = random.Random(1)
    for _ in range(ROUNDS):
        for at in range(max(len(message.writes(chance)) for message in messages)):
            async with vorbel.connect(schema=schema) as client:  # one that has no readings yet
                for message in messages:
                    for raws, values, are_all in message.writes(chance)[at:at + 1]:
                        await client.write({message.group: values})
                        [(mac, cmd, payload)] = bridge.heard()
                        assert (mac, cmd) == message.endpoint
                        encoded = message.frame.signals_to_bytes({signal.name: raw for signal, raw in raws.items()})
                        length = len(encoded) if are_all else len(bytes.fromhex(payload))
                        assert payload == encoded[:length].hex(" "), values


@pytest.mark.parametrize("kind", ["arxml", "dbf", "json", "kcd"])
async def test_what_other_formats_say_of_the_same_bus(bridge, tmp_path, kind):
    [plant] = canmatrix.formats.loadp(str(OWN / "plant.dbc"), dbcImportEncoding="utf-8").values()
    for frame in list(plant.frames):
        if frame.name not in ("DRIVE_STATE", "DRIVE_DETAIL", "BRAKES", "COUNTERS", "MEASURED", "PAGES"):
            plant.del_frame(frame)
    path = tmp_path / f"plant.{kind}"
    canmatrix.formats.dumpp({"": plant}, str(path))
    assert sum(len(message.paths) for message in truths(path, None)[0]) == 27
    await test_clients_read_what_canmatrix_decodes(bridge, path, None)


# Schemas


@pytest.mark.parametrize("path, bus", FILES + FOREIGN, ids=identity)
def test_nothing_is_wrong_with_the_schemas(path, bus):
    schema, outcomes, _ = imported(path, bus)
    problems = checks.check(schema)
    assert [str(problem) for problem in problems if problem.code != "overlap"] == []
    assert json.loads(importing.text_of(schema)) == schema


@pytest.mark.parametrize("case", CASES, ids=lambda case: case["name"])
def test_what_all_clients_make_of_a_file(tmp_path, case):
    text = "".join(f"{line}\n" for line in case["file"])
    (tmp_path / "test.dbc").write_bytes(text.encode("iso-8859-1" if case.get("latin1") else "utf-8"))
    schema, outcomes, complaints = imported(tmp_path / "test.dbc")
    assert json.dumps(schema) == json.dumps(case["schema"])  # which tells 1 from 1.0, and one order from another
    assert [[each.path, each.verdict, *filter(None, [each.why])] for each in outcomes] == case["outcomes"]
    if "lines" in case:
        numbers = re.findall(r"^line (\d+) is not understood: ", "\n".join(complaints), re.M)
        assert [int(number) for number in numbers] == case["lines"]


def test_each_signal_that_is_not_exact_is_told_why():
    _, outcomes, complaints = imported(OWN / "plant.dbc")
    texts = {outcome.path: str(outcome).partition(": ")[2] for outcome in outcomes}
    assert {path: text for path, text in texts.items() if text != "exact"} == {
        "DRIVE_STATE.Gear": "exact: labels told apart: reserved (15)",
        "SCALED.Share": "exact: its value has the digits of single precision",
        "THREES_LOCKED.Beside": "read-only: it is read together with a byte of Four",
        "NESTED.Often": "not possible: it is in frames with several values of Inner, a leaf in those with one",
        "NOT_POSSIBLE.Long": "not possible: it has 64 bits, a value has at most 32",
        "NOT_POSSIBLE.Double": "not possible: it has 64 bits, a value has at most 32",
        "NOT_POSSIBLE.Spread": "not possible: its bits are spread over 5 bytes, a reading has at most 4",
        "NOT_POSSIBLE.Beyond": "not possible: it reaches into byte 8, the message has 8",
        "NOT_POSSIBLE.Shifted": "not possible: it is a floating-point number, which needs four whole bytes",
        "NOT_POSSIBLE.Nothing": "not possible: its factor is 0",
        "THREE_BYTES.All": "not possible: it has 3 bytes, and the message no fourth: a reading has 1, 2 or 4",
        "NO_PAGES.Selector": "not possible: it has 40 bits, a value has at most 32",
        "NO_PAGES.Selected": "not possible: it is in some frames only, which Selector tells, and that is not possible",
        "TWO_SELECTORS.Whose": "not possible: it is in some frames only, and in which is not said",
        "BOUNDS.Turned": "exact: without its bounds, 10 to -10, within which it never is",
        "BOUNDS.Elsewhere": "exact: without its bounds, 300 to 400, within which it never is",
        "EXTENDED.Far": "not possible: its identifier has 29 bits, and the daemon knows those of 11",
        "FLEXIBLE.Fast": "not possible: it is in a message of CAN FD",
        "VECTOR__INDEPENDENT_SIG_MSG.Homeless": "not possible: it is in no message",
    }
    assert complaints == []


def test_what_the_members_say():
    schema, _, _ = imported(OWN / "plant.dbc")
    place = {"@mac": 5, "@cmd": 2}  # identifier 133
    assert schema["DRIVE_STATE"] == {
        "description": "What the drive does",
        "Speed": {**place, "@format": "S", "@skip": 0, "unit": "rpm", "scale": 0.25,
                  "description": "Of the shaft, behind\nthe gear"},
        "Torque": {**place, "@format": "s", "@skip": 2, "unit": "Nm", "scale": 0.1, "offset": -100, "min": -500,
                   "max": 500},
        "Gear": {**place, "@format": "C", "@skip": 4, "bits": [0, 4], "initial": 0, "labels": {
            "0": "neutral", "1": "low", "2": "high", "14": "reserved", "15": "reserved (15)"}},
        "Running": {**place, "@format": "C", "@skip": 4, "bits": [4, 1], "initial": 0},
        "Trim": {**place, "@format": "C", "@skip": 4, "bits": [5, 3], "initial": 0, "signed": True, "scale": 0.5,
                 "offset": 1, "labels": {"-1": "down", "0": "level", "1": "up"}},
        "Temperature": {**place, "@format": "C", "@skip": 5, "unit": "°C", "offset": -40, "max": 150},
        "last byte": {**place, "@format": "C", "@skip": 7, "description": importing.LAST_BYTE_TEXT},
    }
    assert '"offset": -40, "max": 150}' in importing.text_of(schema)  # and not 150.0
    assert schema["BRAKES"]["Odometer"] == {"@mac": 63, "@cmd": 31, "@format": "I", "@skip": 4, "bits": [8, 24],
                                            "initial": 0, "swapped": True, "unit": "km", "scale": 0.1}
    assert schema["NESTED"]["Deeper"] == {"@mac": 11, "@cmd": 5, "@format": "i", "@skip": 1,
                                          "when": {"path": "NESTED.Inner", "is": 4}}
    assert schema["MEASURED"]["Level"] == {"@mac": 54, "@cmd": 4, "@format": "I", "@skip": 4, "float": True,
                                           "swapped": True, "unit": "m", "min": -10, "max": 10}
    assert list(schema["DRIVE_STATE"]) == ["description", "Speed", "Torque", "Gear", "Running", "Trim", "Temperature",
                                           "last byte"]


def test_a_byte_at_the_end_only_where_frames_would_be_too_short():
    schema, _, _ = imported(OWN / "plant.dbc")
    ends = {name: [leaf.get("when", {}).get("is") for leaf in group.values() if isinstance(leaf, dict)
                   and leaf.get("description") == importing.LAST_BYTE_TEXT] for name, group in schema.items()}
    assert {name: found for name, found in ends.items() if found} == {
        "DRIVE_STATE": [None], "BYTES": [None], "THREES_ALONE": [None], "TWO_SELECTORS": [None],
        "PAGES": [1, 2], "NESTED": [3, 4, 2]}


def test_bounds_that_a_file_does_not_give_are_none(tmp_path):
    """canmatrix makes some up, from the bits, which say nothing of a floating-point number."""
    schema, _, _ = imported(OWN / "plant.sym")
    assert schema["Valve"]["Heat"] == {"@mac": 34, "@cmd": 6, "@format": "f", "@skip": 4, "unit": "°C"}


def test_names_that_are_there_twice_are_told_apart(tmp_path):
    (tmp_path / "twice.sym").write_text(
        '{SENDRECEIVE}\n[One]\nID=001h\nDLC=2\nVar=A unsigned 0,8\nVar=A unsigned 8,8\n[@mac]\nID=002h\nDLC=1\n'
        'Var=@cmd unsigned 0,8\n')
    schema, outcomes, _ = imported(tmp_path / "twice.sym")
    assert [str(outcome) for outcome in outcomes] == [
        "One.A: exact", "One.A_2: exact: named A_2", "_@mac._@cmd: exact: named _@cmd"]
    assert (schema["One"]["A"]["@skip"], schema["One"]["A_2"]["@skip"]) == (0, 1)
    assert schema["_@mac"]["_@cmd"]["@mac"] == 2


def test_a_signal_called_description_stays_one(tmp_path):
    schema, verdicts = of_dbc(tmp_path, """BO_ 1 M: 1 X
 SG_ description : 0|8@1+ (1,0) [0|0] "" X
CM_ BO_ 1 "Of the message";
""")
    assert schema["M"]["description"]["@mac"] == 1 and verdicts == {"M.description": "exact"}


def of_paths(tmp_path, *signals):
    """The paths of signals of a message M, each (name, path in the attribute)."""
    lines = ["BO_ 1 M: 8 X"]
    lines += [f' SG_ {name} : {8 * at}|8@1+ (1,0) [0|0] "" X' for at, (name, _) in enumerate(signals)]
    lines += ['BA_DEF_ SG_ "VorbelPath" STRING ;', 'BA_DEF_DEF_ "VorbelPath" "";']
    lines += [f'BA_ "VorbelPath" SG_ 1 {name} "{path}";' for name, path in signals if path]
    return of_dbc(tmp_path, "\n".join(lines))[1]


def test_paths_in_attributes_that_do_not_go_together(tmp_path):
    assert of_paths(tmp_path, ("A", "x.y"), ("B", "x.y"), ("C", "x"), ("D", "x.y.z"), ("E", "")) == {
        "x.y": "exact", "M.B": "exact", "M.C": "exact", "M.D": "exact", "M.E": "exact"}
    assert of_paths(tmp_path, ("A", "M"), ("B", "")) == {"M": "exact", "M_2.B": "exact"}


@pytest.mark.parametrize("path", ["x.y", "x.y.z", "x"])
def test_paths_of_two_messages_that_do_not_go_together(tmp_path, path):
    schema, verdicts = of_dbc(tmp_path, f"""BO_ 1 M: 1 X
 SG_ A : 0|8@1+ (1,0) [0|0] "" X
BO_ 2 N: 1 X
 SG_ A : 0|8@1+ (1,0) [0|0] "" X
BA_DEF_ SG_ "VorbelPath" STRING ;
BA_ "VorbelPath" SG_ 1 A "x.y";
BA_ "VorbelPath" SG_ 2 A "{path}";
""")
    assert verdicts == {"x.y": "exact", "N.A": "exact"}
    assert (schema["x"]["y"]["@mac"], schema["N"]["A"]["@mac"]) == (1, 2)


def test_the_comment_of_a_message_whose_leaves_have_no_group_in_common_is_nobody_s(tmp_path):
    schema, _ = of_dbc(tmp_path, 'BO_ 1 M: 1 X\n SG_ A : 0|8@1+ (1,0) [0|0] "" X\nCM_ BO_ 1 "Of the message";\n'
                                 'BA_DEF_ SG_ "VorbelPath" STRING ;\nBA_ "VorbelPath" SG_ 1 A "a";\n')
    assert schema == {"a": {"@mac": 1, "@cmd": 0, "@format": "C", "@skip": 0}}


def test_a_multiplexer_under_the_only_other_one(tmp_path):
    schema, verdicts = of_dbc(tmp_path, 'BO_ 1 M: 2 X\n SG_ A M : 0|8@1+ (1,0) [0|0] "" X\n'
                                        ' SG_ B m1M : 8|8@1+ (1,0) [0|0] "" X\n')
    assert set(verdicts.values()) == {"exact"}
    assert schema["M"]["B"]["when"] == {"path": "M.A", "is": 1}


def test_a_multiplexer_whose_name_had_to_be_cut(tmp_path):
    schema, _ = of_dbc(tmp_path, """BO_ 1 M: 3 X
 SG_ A M : 0|8@1+ (1,0) [0|0] "" X
 SG_ Lon m1M : 8|8@1+ (1,0) [0|0] "" X
 SG_ C m2 : 16|8@1+ (1,0) [0|0] "" X
BA_DEF_ SG_ "SystemSignalLongSymbol" STRING ;
BA_ "SystemSignalLongSymbol" SG_ 1 Lon "Long";
SG_MUL_VAL_ 1 Lon A 1-1;
SG_MUL_VAL_ 1 C Lon 2-2;
""")
    assert schema["M"]["C"]["when"] == {"path": "M.Long", "is": 2}


def test_messages_of_can_fd(tmp_path):
    _, verdicts = of_dbc(tmp_path, """BO_ 1 Long: 12 X
 SG_ A : 0|8@1+ (1,0) [0|0] "" X
BO_ 2 Fast: 8 X
 SG_ A : 0|8@1+ (1,0) [0|0] "" X
BA_DEF_ BO_ "VFrameFormat" ENUM "StandardCAN","StandardCAN_FD";
BA_DEF_DEF_ "VFrameFormat" "StandardCAN";
BA_ "VFrameFormat" BO_ 2 1;
""")
    assert set(verdicts.values()) == {"not possible: it is in a message of CAN FD"}


def test_messages_in_messages():
    frame = canmatrix.Frame("F", size=8, pdus=[canmatrix.Pdu("P")])
    assert matrix._message(frame).refusal == "its message packs several others, in an order of their own"


def test_signals_that_select_each_other(tmp_path):
    _, verdicts = of_dbc(tmp_path, """BO_ 1 M: 2 X
 SG_ A m1M : 0|8@1+ (1,0) [0|0] "" X
 SG_ B m1M : 8|8@1+ (1,0) [0|0] "" X
SG_MUL_VAL_ 1 A B 1-1;
SG_MUL_VAL_ 1 B A 1-1;
""")
    assert set(verdicts.values()) == {"not possible: whether it is in a frame depends on itself"}


def test_names_that_nothing_can_have():
    assert [free_name("", ()), free_name("@mac", ()), free_name("a", ("a", "a_2"))] == ["_", "_@mac", "a_3"]


def test_what_a_locked_signal_selects_is_read_only_too(tmp_path):
    schema, verdicts = of_dbc(tmp_path, """BO_ 1 M: 8 X
 SG_ S M : 0|24@1+ (1,0) [0|0] "" X
 SG_ W : 24|32@1+ (1,0) [0|0] "" X
 SG_ V m1 : 56|8@1+ (1,0) [0|0] "" X
""")
    assert verdicts == {"M.S": "read-only: it is read together with a byte of W", "M.W": "exact",
                        "M.V": "read-only: S, which selects it, is"}
    assert [leaf.get("readonly", False) for leaf in schema["M"].values()] == [True, False, True, False]
    assert "when" not in schema["M"]["last byte"]


def windows(schema):
    """{name: (first byte, format, bits)}, of the message M."""
    return {name: (leaf["@skip"], leaf["@format"], leaf.get("bits")) for name, leaf in schema["M"].items()}


def test_the_fourth_byte_beside_three(tmp_path):
    """The one before, or the one behind where the one before is another's whole reading; or else that one is read as
    a field, too."""
    before = ' SG_ A : 8|24@1+ (1,0) [0|0] "" X\n SG_ B : 32|8@1+ (1,0) [0|0] "" X\n'
    whole = ' SG_ C : 0|8@1+ (1,0) [0|0] "" X\n'
    assert windows(of_dbc(tmp_path, f"BO_ 1 M: 5 X\n{before}")[0]) == {"A": (0, "I", [8, 24]), "B": (4, "C", None)}
    assert windows(of_dbc(tmp_path, f"BO_ 1 M: 5 X\n{before}{whole}")[0]) == {
        "A": (0, "I", [8, 24]), "B": (4, "C", None), "C": (0, "S", [0, 8])}
    assert windows(of_dbc(tmp_path, f"BO_ 1 M: 5 X\n{before.splitlines()[0]}\n{whole}")[0])["A"] == (1, "I", [0, 24])


def test_a_whole_reading_in_frames_that_the_three_bytes_are_not_in_stays_one(tmp_path):
    schema, verdicts = of_dbc(tmp_path, """BO_ 1 M: 4 X
 SG_ S M : 0|1@1+ (1,0) [0|0] "" X
 SG_ A m0 : 8|24@1+ (1,0) [0|0] "" X
 SG_ B m1 : 16|16@1+ (1,0) [0|0] "" X
""")
    assert windows(schema) == {"S": (0, "C", [0, 1]), "A": (0, "I", [8, 24]), "B": (2, "S", None)}
    assert set(verdicts.values()) == {"exact"}


def test_numbers_beyond_all_numbers(tmp_path):
    _, verdicts = of_dbc(tmp_path, 'BO_ 1 M: 1 X\n SG_ A : 0|8@1+ (1E400,0) [0|0] "" X\n')
    assert verdicts == {"M.A": "not possible: its values are beyond all numbers"}


def test_floating_point_numbers_with_an_offset(tmp_path):
    _, verdicts = of_dbc(tmp_path, 'BO_ 1 M: 4 X\n SG_ A : 0|32@1- (1,5) [0|0] "" X\nSIG_VALTYPE_ 1 A : 1;\n')
    assert verdicts == {"M.A": "exact: its value has the digits of single precision"}


def test_bounds_are_kept_where_they_leave_something_out(tmp_path):
    line = ' SG_ S{} : 0|8@1{} (1,0) [{}] "" X\n'
    cases = [("-", "0|127"), ("-", "-128|0"), ("+", "0|0"), ("+", "0|255"), ("+", "-5|300"), ("+", "1|254")]
    text = "BO_ 1 M: 1 X\n" + "".join(line.format(at, *case) for at, case in enumerate(cases))
    leaves = of_dbc(tmp_path, text)[0]["M"].values()
    assert [(leaf.get("min"), leaf.get("max")) for leaf in leaves] == [
        (0, None), (None, 0), (None, None), (None, None), (None, None), (1, 254)]


def test_readings_of_other_frames_are_in_nobody_s_way(tmp_path):
    selector = 'BO_ 1 M: 6 X\n SG_ S M : 0|1@1+ (1,0) [0|0] "" X\n SG_ A m0 : 16|24@1+ (1,0) [0|0] "" X\n'
    schema, verdicts = of_dbc(tmp_path, selector + ' SG_ B m1 : 8|32@1+ (1,0) [0|0] "" X\n'
                                                   ' SG_ C m1 : 40|8@1+ (1,0) [0|0] "" X\n')
    assert windows(schema)["A"] == (1, "I", [8, 24]) and set(verdicts.values()) == {"exact"}
    schema, verdicts = of_dbc(tmp_path, selector + ' SG_ B m0 : 8|8@1+ (1,0) [0|0] "" X\n')
    assert windows(schema)["A"] == (2, "I", [0, 24])


def test_what_is_read_only_does_not_count_for_the_length(tmp_path):
    schema, verdicts = of_dbc(tmp_path, 'BO_ 1 M: 7 X\n SG_ A : 0|32@1+ (1,0) [0|0] "" X\n'
                                        ' SG_ B : 32|24@1+ (1,0) [0|0] "" X\n')
    assert verdicts["M.B"] == "read-only: it is read together with a byte of A"
    assert schema["M"]["last byte"]["@skip"] == 6


def test_text_in_either_encoding(tmp_path):
    for encoding in ("utf-8", "iso-8859-1"):
        (tmp_path / "test.dbc").write_bytes('BO_ 1 M: 1 X\n SG_ S : 0|8@1+ (1,0) [0|0] "°C" X\n'.encode(encoding))
        assert imported(tmp_path / "test.dbc")[0]["M"]["S"]["unit"] == "°C"


# The tool


def test_the_schema_on_standard_output_and_the_report_beside_it(tool):
    status, output, errors = tool("schema", "import", OWN / "plant.sym")
    schema, outcomes, _ = imported(OWN / "plant.sym")
    assert status == 0 and json.loads(output) == schema
    assert errors.splitlines() == [*map(str, outcomes), f"{OWN}/plant.sym: 9 signals: 7 exact, 1 read-only, "
                                                        "1 not possible"]


def test_the_schema_is_in_utf_8_whatever_the_terminal_takes(tool):
    path = OWN / "plant.sym"
    assert tool("schema", "import", path, PYTHONIOENCODING="ascii")[1] == tool("schema", "import", path)[1]


def test_messages_without_signals_are_counted(tool):
    assert tool("schema", "import", OWN / "plant.dbc")[2].endswith(
        f"{OWN}/plant.dbc: 73 signals: 58 exact, 1 read-only, 14 not possible\n"
        f"{OWN}/plant.dbc: 1 message without signals left out\n")


def test_a_line_that_is_not_understood_is_told(tool, tmp_path):
    (tmp_path / "test.dbc").write_text('BO_ 1 M: 1 X\n SG_ S : 0|8@1+ (1,0) [0|0] "" X\n SG_ broken\n')
    status, output, errors = tool("schema", "import", tmp_path / "test.dbc")
    assert status == 0 and list(json.loads(output)["M"]) == ["S"]
    assert f"{tmp_path}/test.dbc: canmatrix: line 3 is not understood: b' SG_ broken\\n'\n" in errors


def test_a_bus_of_several_is_to_be_chosen(tool):
    path = OWN / "plant.kcd"
    told = f'vorbel-cli: {path}: it describes several buses: one is to be chosen; there are: "Field", "Cellar"\n'
    assert tool("schema", "import", path) == (1, "", told)
    assert tool("schema", "import", path, "--bus", "Feild") == (
        1, "", f"vorbel-cli: {path}: there is no bus 'Feild'; there are: \"Field\", \"Cellar\"\n")
    assert list(json.loads(tool("schema", "import", path, "--bus", "Cellar")[1])) == ["Pump"]


def test_files_that_are_none(tool, tmp_path):
    (tmp_path / "broken.kcd").write_text("<x")
    status, output, errors = tool("schema", "import", tmp_path / "broken.kcd")
    assert (status, output) == (1, "")
    assert errors.startswith(f"vorbel-cli: {tmp_path}/broken.kcd cannot be read as KCD: ")
    (tmp_path / "empty.dbc").write_text("")
    assert tool("schema", "import", tmp_path / "empty.dbc") == (
        1, "", f"{tmp_path}/empty.dbc: 0 signals: 0 exact, 0 read-only, 0 not possible\n"
               f"vorbel-cli: {tmp_path}/empty.dbc: no signal of it can be imported\n")
    assert tool("schema", "import", tmp_path / "no.dbc") == (
        1, "", f"vorbel-cli: {tmp_path}/no.dbc: No such file or directory\n")
    (tmp_path / "bus.txt").write_text("")
    assert tool("schema", "import", tmp_path / "bus.txt")[2].startswith(
        f"vorbel-cli: {tmp_path}/bus.txt: of which format it is, its name does not say: it has to end in .arxml, ")


def test_formats_that_canmatrix_lacks_a_module_for(tool, missing):
    assert tool("schema", "import", OWN / "plant.kcd", **missing("lxml")) == (
        1, "", f"vorbel-cli: {OWN}/plant.kcd: canmatrix reads no .kcd here: install the packages that "
               "python3-canmatrix recommends\n")


def test_without_canmatrix_the_tool_says_what_to_install(tool, missing):
    assert tool("schema", "import", OWN / "plant.dbc", **missing("canmatrix")) == (
        1, "", "vorbel-cli: schema import needs canmatrix: apt install python3-canmatrix\n")
