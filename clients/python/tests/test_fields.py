"""Which fields are found in recorded frames: of three machines and the simulated one, and kind by kind."""

import itertools
import math
import random
import struct

import pytest

import machines
import vorbel
from vorbel import coding
from vorbel.fields import Field, fields_in, fields_of
from vorbel.meaning import value_of
from vorbel.schema import leaves
from vorbel.skeleton import leaf_of, name_of, skeleton
from vorbelsim import nodes

FRAMES, SEEDS = 1500, range(1, 4)


def found_in(recorded):
    return fields_of({node.identifier: [payloads] for node, payloads in recorded})


@pytest.fixture(scope="module", params=itertools.product(machines.MACHINES, SEEDS), ids=lambda each: f"{each}")
def machine(request):
    recorded = machines.recorded(request.param[0], FRAMES, request.param[1])
    return recorded, found_in(recorded)


def test_nine_of_ten_fields_of_a_machine_are_found_with_the_right_bytes(machine):
    recorded, found = machine
    hits = [machines.is_found(truth, found[node.identifier]) for node, _ in recorded for truth in node.truths]
    print(f"{sum(hits)} of {len(hits)}")
    assert sum(hits) >= 0.9 * len(hits)


def test_hardly_anything_else_is_believed_in(machine):
    recorded, found = machine
    strange = [field for node, _ in recorded for field in found[node.identifier]
               if field.kind != "constant" and not any(machines.is_found(truth, [field]) for truth in node.truths)]
    assert len(strange) <= 0.1 * sum(map(len, found.values())), strange


def test_what_is_found_is_of_the_right_kind(machine):
    recorded, found = machine
    kinds = [(truth.kind, field.kind) for node, _ in recorded for truth in node.truths
             for field in found[node.identifier] if machines.is_found(truth, [field])]
    assert sum(one == other for one, other in kinds) >= 0.9 * len(kinds), kinds


def test_no_bit_is_in_two_fields(machine):
    for fields in machine[1].values():
        bits = [8 * field.byte + bit if not field.swapped else 8 * (field.byte + field.width - 1 - bit // 8) + bit % 8
                for field in fields for bit in range(field.bits[0], sum(field.bits))]
        assert len(bits) == len(set(bits))


def test_the_skeleton_is_a_schema_without_problems(machine):
    recorded, found = machine
    schema = skeleton({node.identifier: (len(payloads[0]), found[node.identifier]) for node, payloads in recorded})
    assert vorbel.check(schema) == []
    assert all(options["description"] for options in every_leaf(schema))


def every_leaf(node):
    if "@mac" in node:
        return [node]
    return [leaf for member in node.values() for leaf in every_leaf(member)]


def test_a_share_over_all_machines():
    hits = []
    for name in machines.MACHINES:
        recorded = machines.recorded(name, FRAMES, seed=7)
        found = found_in(recorded)
        hits += [machines.is_found(truth, found[node.identifier]) for node, _ in recorded for truth in node.truths]
    assert sum(hits) / len(hits) >= 0.95, f"{sum(hits)} of {len(hits)}"


SIMULATED = {0x085: [(0, 2), (2, 2), (4, 1)], 0x049: [(0, 2), (2, 2), (4, 2), (6, 2)], 0x089: [(0, 1), (1, 1)],
             0x04C: [(0, 1)]}


def test_the_fields_of_the_simulated_machine_that_is_driven():
    machine = nodes.machine(random.Random(1))
    recorded = {}
    for tick in range(6000):
        if tick % 1500 == 0:
            machine[0].set_point = (1200, -3000, 4000, -500)[tick // 1500]
        for node in machine:
            node.step(0.01)
            for period, telemetry in node.telemetry:
                if tick % round(100 * period) == 0:
                    frame = telemetry()
                    recorded.setdefault(frame.id, [[]])[0].append(frame.payload)
    found = fields_of(recorded)
    hits = [(byte, width) in {(field.byte, field.width) for field in found[identifier]}
            for identifier, places in SIMULATED.items() for byte, width in places]
    assert sum(hits) >= 0.9 * len(hits), found
    assert found[0x085][0].signed and not found[0x085][1].signed


# What it takes to tell how numbers go on


@pytest.mark.parametrize("numbers, width, bits", [
    ([7] * 100, 8, 0), ([at % 256 for at in range(400)], 8, 4), ([3 * at % 256 for at in range(400)], 8, 8),
    ([at * (at + 1) // 2 for at in range(100)], 16, 16 + 4),
], ids=["the same", "always 1 more", "always 3 more", "faster and faster"])
def test_what_goes_on_as_before_takes_few_bits(numbers, width, bits):
    assert coding.bits_of([numbers], width) == bits


def test_states_take_no_more_bits_for_being_far_apart():
    rng = random.Random(1)
    order = [rng.randrange(3) for _ in range(40) for _ in range(10)]
    near, far = ([states[each] for each in order] for states in ((0, 1, 2), (0, 201, 37)))
    assert coding.bits_of([far], 8) <= coding.bits_of([near], 2) + 3 * 8


def test_each_length_of_steps_costs_something():
    """Or chance would be told from chance."""
    few, many = ([sum(steps[:at]) for at in range(40)] for steps in ([1] * 39, [1, 2, 4, 8] * 10))
    assert coding.steps_of(coding.differences([few], 16)).bits == coding.A_LENGTH > 0
    lengths = coding.steps_of(coding.differences([many], 16))
    assert lengths.bits >= 4 * coding.A_LENGTH + sum((0, 1, 2, 3)) * 9 + 1.9 * 39


# Kind by kind


def only(payloads, **options):
    (field,) = fields_in([payloads], **options)
    return field


def place(field):
    return field.kind, field.byte, field.width, field.bits, field.swapped, field.signed


WAVE = [round(9000 * math.sin(at / 30)) for at in range(400)]


@pytest.mark.parametrize("layout, expected", [
    ("<h", ("number", 0, 2, (0, 16), False, True)), (">h", ("number", 0, 2, (0, 16), True, True)),
    ("<i", ("number", 0, 4, (0, 32), False, True)), (">i", ("number", 0, 4, (0, 32), True, True)),
    ("<f", ("float", 0, 4, (0, 32), False, False)), (">f", ("float", 0, 4, (0, 32), True, False)),
])
def test_numbers_with_a_sign(layout, expected):
    scale = {"f": 0.0137, "i": 61234.567, "h": 1}[layout[1]]
    values = [value * scale if layout[1] == "f" else round(value * scale) for value in WAVE]
    field = only([struct.pack(layout, value) for value in values])
    assert place(field) == expected
    assert (field.low, field.high) == (pytest.approx(min(values)), pytest.approx(max(values)))


@pytest.mark.parametrize("layout, swapped", [("<H", False), (">H", True)])
def test_numbers_without_a_sign(layout, swapped):
    field = only([struct.pack(layout, 30000 + value) for value in WAVE])
    assert place(field) == ("number", 0, 2, (0, 16), swapped, False)
    assert f"{'high' if swapped else 'low'} byte first, 21000 to 39000, " in field.reason


def test_a_number_whose_bytes_would_be_floats_of_all_sizes_is_none():
    rng = random.Random(1)
    values = [0x38000000 + at * 800000 + rng.randrange(200000) for at in range(400)]
    assert only([struct.pack("<I", value) for value in values]).kind == "number"


def test_a_byte_with_a_sign():
    field = only([struct.pack("<b", value // 100) for value in WAVE])
    assert place(field) == ("number", 0, 1, (0, 8), False, True) and (field.low, field.high) == (-90, 90)


@pytest.mark.parametrize("width, layout", [(1, "<B"), (2, "<H"), (2, ">H"), (4, "<I"), (4, ">I")])
def test_counters(width, layout):
    start = 256 ** (width - 1) - 50 if width > 1 else 0
    field = only([struct.pack(layout, (start + at) % 256**width) for at in range(400)])
    assert (field.kind, field.byte, field.width) == ("counter", 0, width)
    assert "counts up by 1 each time it changes" in field.reason


def test_a_counter_that_counts_down():
    assert "counts down by 1 each" in only([bytes([-at % 256]) for at in range(400)]).reason


def test_a_counter_of_four_bits_with_nothing_beside_it():
    assert place(only([bytes([at % 16]) for at in range(100)]))[:4] == ("counter", 0, 1, (0, 4))


def test_a_counter_that_did_not_go_round_has_the_whole_byte():
    assert place(only([bytes([at]) for at in range(20)]))[:4] == ("counter", 0, 1, (0, 8))


@pytest.mark.parametrize("at", range(8))
def test_a_flag(at):
    field = only([bytes([(number // 20 % 2) << at]) for number in range(200)])
    assert place(field) == ("flag", 0, 1, (at, 1), False, False)
    assert field.reason == f"bit {at} of byte 0: changes for itself, 9 changes in 200 frames"


def test_two_flags_that_changed_a_few_times():
    values = [0] * 25 + [1] * 25 + [3] * 25 + [2] * 25 + [0] * 25
    assert [place(field)[:4] for field in fields_in([[bytes([value]) for value in values]])] == [
        ("flag", 0, 1, (0, 1)), ("flag", 0, 1, (1, 1))]


def test_a_counter_above_a_flag():
    fields = fields_in([[bytes([(at % 16) << 4 | at // 50 % 2]) for at in range(400)]])
    assert [place(field)[:4] for field in fields] == [("flag", 0, 1, (0, 1)), ("counter", 0, 1, (4, 4))]


def test_bytes_that_stay_the_same():
    fields = fields_in([[b"\x00\x5a"] * 10])
    assert [field.kind for field in fields] == ["constant"] * 2
    assert [field.reason for field in fields] == ["always 0 (0x00)", "always 90 (0x5A)"]


CHECKED = [struct.pack("<hBB", value, at % 256, (at // 60 * 37) % 256) for at, value in enumerate(WAVE)]


def with_checksum(rule, first=False):
    return [bytes([rule(data)]) + data if first else data + bytes([rule(data)]) for data in CHECKED]


@pytest.mark.parametrize("rule, told", [
    (lambda data: data[0] ^ data[1] ^ data[2] ^ data[3], "exclusive or of the other bytes"),
    (lambda data: sum(data) + 17 & 0xFF, "sum of the other bytes"),
    (lambda data: -sum(data) & 0xFF, "negative sum of the other bytes"),
    (lambda data: machines.crc8(data, 0x07, 0), "CRC-8 of the other bytes with the polynomial 0x07"),
    (lambda data: machines.crc8(data, 0x2F, 0xFF) ^ 0xFF, "CRC-8 of the other bytes with the polynomial 0x2F"),
    (lambda data: machines.crc8(data, 0x83, 0x12), "exclusive or of some bits of the other bytes, as CRCs are"),
], ids=["xor", "sum", "negative sum", "CRC", "CRC with start and end", "CRC of nobody else"])
@pytest.mark.parametrize("first", [False, True], ids=["last", "first"])
def test_checksums(rule, told, first):
    fields = fields_in([with_checksum(rule, first)])
    (checksum,) = [field for field in fields if field.kind == "checksum"]
    at = 0 if first else 4
    assert checksum.reason == f"byte {at}: {told}, in all of 400 frames" and checksum.byte == at


def test_a_checksum_that_is_once_wrong_is_none():
    payloads = with_checksum(lambda data: sum(data) & 0xFF)
    payloads[200] = payloads[200][:-1] + bytes([payloads[200][-1] ^ 1])
    assert "checksum" not in [field.kind for field in fields_in([payloads])]


def test_a_copy_is_no_checksum():
    rng = random.Random(1)
    noise = [rng.randbytes(1) for _ in range(400)]
    assert "checksum" not in [field.kind for field in fields_in([[each + bytes([at // 40]) + each
                                                                  for at, each in enumerate(noise)]])]


def test_eight_numbers_of_a_byte_stay_apart():
    rng = random.Random(1)
    walks = [machines.Walk(rng, 0, 255, 1.5) for _ in range(8)]
    fields = fields_in([[bytes(round(walk.next()) for walk in walks) for _ in range(800)]])
    assert [(field.byte, field.bits) for field in fields] == [(at, (0, 8)) for at in range(8)]


def test_a_copy_beside_what_stays_the_same_is_no_checksum():
    rng = random.Random(1)
    noise = [rng.randbytes(1) for _ in range(400)]
    assert [field.kind for field in fields_in([[each + b"\x07" + each for each in noise]])] == [
        "number", "constant", "number"]


def test_a_few_frames_are_no_evidence_of_a_checksum():
    payloads = with_checksum(lambda data: sum(data) & 0xFF)[:7]
    assert "checksum" not in [field.kind for field in fields_in([payloads])]
    assert "checksum" in [field.kind for field in fields_in([with_checksum(lambda data: sum(data) & 0xFF)[:40]])]


@pytest.mark.parametrize("payloads", [400, 50], ids=["all different", "that come again"])
def test_noise_is_a_byte_each(payloads):
    rng = random.Random(1)
    noise = [rng.randbytes(8) for _ in range(payloads)]
    fields = fields_in([[rng.choice(noise) for _ in range(400)]])
    assert sum(field.bits == (0, 8) for field in fields) >= 7 and all(field.width == 1 for field in fields)
    assert all(field.reason.endswith(", at random") for field in fields)


def test_cells_of_two_bytes_whose_upper_ones_never_change():
    rng = random.Random(1)
    payloads = [struct.pack("<3H", *(3930 + rng.randrange(8) for _ in range(3))) for _ in range(200)]
    assert [place(field) for field in fields_in([payloads])] == [
        ("number", at, 2, (0, 16), False, False) for at in (0, 2, 4)]
    swapped = [struct.pack(">3h", *(-130 + rng.randrange(8) for _ in range(3))) for _ in range(200)]
    assert [place(field) for field in fields_in([swapped], prefer_swapped=True)] == [
        ("number", at, 2, (0, 16), True, True) for at in (0, 2, 4)]


def test_bytes_of_0_beside_numbers_are_not_theirs():
    rng = random.Random(1)
    payloads = [bytes([30 + rng.randrange(8), 0, 90 + rng.randrange(8), 0]) for _ in range(200)]
    assert [(field.byte, field.width, field.kind) for field in fields_in([payloads])] == [
        (0, 1, "number"), (1, 1, "constant"), (2, 1, "number"), (3, 1, "constant")]


def test_the_order_of_the_bus_decides_where_both_explain_the_same():
    """Noise between two calm bytes is the lower byte of one of them."""
    rng = random.Random(3)
    walks = [machines.Walk(rng, 0, 65535, 900), machines.Walk(rng, 0, 255, 2)]
    payloads = [struct.pack(">HB", *(round(walk.next()) for walk in walks)) for _ in range(800)]
    clear = [struct.pack(">hh", value, -value // 3) for value in WAVE]
    assert [(field.byte, field.width) for field in fields_of({1: [payloads], 2: [clear]})[1]] == [(0, 2), (2, 1)]


def test_gaps_between_runs_are_no_steps():
    runs = [[bytes([(start + at) % 256]) for at in range(20)] for start in (0, 100, 33, 210)]
    (field,) = fields_in(runs)
    assert field.kind == "counter" and "76 changes in 80 frames" in field.reason


@pytest.mark.parametrize("payloads", [[], [b"\x01\x02"], [b"\x01\x02", b"\x03\x02"]], ids=["none", "one", "two"])
def test_hardly_any_frames(payloads):
    assert all(field.byte in (0, 1) for field in fields_in([payloads]))


# The schema


@pytest.mark.parametrize("field, length, name, leaf", [
    (Field("number", 0, 1, (0, 8)), 8, "number0", {"@format": "C", "@skip": 0}),
    (Field("number", 2, 2, (0, 16)), 8, "number2to3", {"@format": "S", "@skip": 2}),
    (Field("number", 2, 2, (0, 16), signed=True), 8, "number2to3", {"@format": "s", "@skip": 2}),
    (Field("number", 2, 2, (0, 16), True, True), 8, "number2to3",
     {"@format": "S", "@skip": 2, "swapped": True, "signed": True}),
    (Field("number", 4, 4, (0, 32), signed=True), 8, "number4to7", {"@format": "i", "@skip": 4}),
    (Field("number", 4, 1, (0, 8), signed=True), 8, "number4", {"@format": "C", "@skip": 4, "signed": True}),
    (Field("flag", 4, 1, (6, 1)), 8, "flag4bit6", {"@format": "C", "@skip": 4, "bits": [6, 1]}),
    (Field("number", 0, 2, (4, 12), True), 8, "number0to1bits4to15",
     {"@format": "S", "@skip": 0, "bits": [4, 12], "swapped": True}),
    (Field("float", 0, 4, (0, 32)), 8, "float0to3", {"@format": "f", "@skip": 0}),
    (Field("float", 0, 4, (0, 32), True), 8, "float0to3",
     {"@format": "I", "@skip": 0, "swapped": True, "float": True}),
    (Field("counter", 1, 3, (0, 24)), 8, "counter1to3", {"@format": "I", "@skip": 1, "bits": [0, 24]}),
    (Field("counter", 1, 3, (0, 24), True), 8, "counter1to3",
     {"@format": "I", "@skip": 1, "bits": [8, 24], "swapped": True}),
    (Field("counter", 1, 3, (0, 24)), 4, "counter1to3", {"@format": "I", "@skip": 0, "bits": [8, 24]}),
    (Field("counter", 1, 3, (0, 24), True), 4, "counter1to3",
     {"@format": "I", "@skip": 0, "bits": [0, 24], "swapped": True}),
])
def test_the_leaf_of_a_field(field, length, name, leaf):
    assert (name_of(field), leaf_of(field, length)) == (name, {**leaf, "description": ""})


@pytest.mark.parametrize("swapped", [False, True])
def test_three_bytes_of_a_frame_of_three_are_two_leaves(swapped):
    group = skeleton({5: (3, [Field("counter", 0, 3, (0, 24), swapped)])})["node5"]["command0"]
    places = [(options["@skip"], options["@format"]) for options in group.values()]
    assert places == ([(1, "S"), (0, "C")] if swapped else [(0, "S"), (2, "C")])


@pytest.mark.parametrize("layout", ["<hB3xh", ">hB3xh", "<if", ">if", "<BhBhB", ">BhBhB"])
def test_the_leaves_read_what_the_fields_say(layout):
    """From the lowest to the highest, through what clients make of readings."""
    count = len(struct.unpack(layout, bytes(struct.calcsize(layout))))
    kinds = layout.replace("3x", "")[1:]
    values = [[abs(value) // 40 if kind == "B" else value for kind in kinds] for value in WAVE]
    assert len(values[0]) == count
    payloads = [struct.pack(layout, *each) for each in values]
    fields = fields_in([payloads], prefer_swapped=layout[0] == ">")
    schema = skeleton({5: (len(payloads[0]), fields)})
    for field, leaf in zip(fields, leaves(schema).values()):
        read = [value_of(leaf, reading(leaf, payload)) for payload in payloads]
        assert (min(read), max(read)) == (field.low, field.high), (field, leaf)


def reading(leaf, payload):
    """As the daemon reads it."""
    data = payload[leaf.skip:leaf.skip + leaf.width]
    if leaf.format == "f":
        return struct.unpack("<f", data)[0]
    return int.from_bytes(data, "little", signed=leaf.format in "si")
