"""Records: built, checked, scanned."""

from vorbelsim import vek

EXAMPLE = bytes.fromhex("c510123400000000000096")


def test_checksum_catalogue_values():
    assert vek.crc8(b"123456789") == 0xF4
    assert [vek.crc8(bytes([byte])) for byte in (0, 1, 2, 255)] == [0x00, 0x07, 0x0E, 0xF3]
    assert vek.crc8(b"") == 0


def test_record_of_the_worked_example():
    assert vek.record(5, 3, b"\x12\x34") == EXAMPLE
    assert vek.parse(EXAMPLE) == vek.Frame(5, 3, b"\x12\x34")


def test_zero_bytes_are_a_record():
    assert vek.is_valid(bytes(11))
    assert vek.parse(bytes(11)) == vek.Frame(0, 0, b"")


def test_lengths_beyond_eight_mean_eight():
    data = vek.record(1, 2, b"abcdefgh", dlc=15)
    assert vek.is_valid(data)
    assert vek.parse(data) == vek.Frame(1, 2, b"abcdefgh")


def test_remote_flag_is_bit_fifteen():
    assert vek.record(0, 0, rtr=1)[:2] == b"\x00\x80"


def test_scanner_takes_records_whole_at_every_split():
    records = EXAMPLE + vek.record(63, 31, b"12345678")
    for split in range(len(records) + 1):
        scanner = vek.Scanner()
        frames = scanner.feed(records[:split]) + scanner.feed(records[split:])
        assert frames == [vek.Frame(5, 3, b"\x12\x34"), vek.Frame(63, 31, b"12345678")]
        assert scanner.skipped == 0


def test_scanner_skips_garbage_bytewise():
    scanner = vek.Scanner()
    assert scanner.feed(b"\x01\x02\x03" + EXAMPLE) == [vek.Frame(5, 3, b"\x12\x34")]
    assert scanner.skipped == 3
