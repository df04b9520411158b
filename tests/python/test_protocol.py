"""Request bytes and status texts, without a unit: the wire examples of the
protocol's documentation, byte for byte."""

import pytest

from tovel import Status, protocol


@pytest.mark.parametrize("request_, wire", [
    (protocol.control(protocol.Control.VERSION), "05 06 00 00 00 00 00 00 00 00 00 00 00 00 00 00"),
    (protocol.prim_get(16), "01 00 00 00 10"),
    (protocol.atomic_send(0x21, b"\x0a\x0b\x0c"),
     "04 21 00 00 03 00 00 00 00 00 00 00 00 00 00 00 0a 0b 0c"),
    (protocol.atomic_get(0x7E, 0x7F, 0x0102, b"\xff"),
     "03 7e 00 00 01 00 00 00 7f 00 00 00 02 01 00 00 ff"),
    (protocol.prim_send(1, 0x7E, bytes(0x0102)), "00 01 7e 01 02" + " 00" * 0x0102),
    (protocol.get_status(), "02 00 00 00 00"),
])
def test_wire_bytes(request_, wire):
    assert request_ == bytes.fromhex(wire)


@pytest.mark.parametrize("value, short, long", [
    (0, "DSP Dead!", "DSP not responding!"),
    (4, "No Error!", "Unknown or Not a DSP Error!"),
    (8, "No Error!", "Unknown or Not a DSP Error!"),
    (11, "No USB Comm!", "Can't open USB/DSP driver!"),
    (13, "USB Comm time-out!", "DSP Comm timed out!"),
    (154, "DSP Dead!", "DSP not responding!"),
    (17, "DSP Dead!", "DSP not responding!"),
    (0xFFFFFFFF, "DSP Dead!", "DSP not responding!"),
])
def test_status_texts(value, short, long):
    status = Status(value)
    assert (status, status.short_text, status.long_text) == (value, short, long)


def test_unnamed_status_values_still_decode():
    assert Status(200).name == "UNKNOWN_200" and not Status(200).running
    assert Status(0).describe() == "0 (success)"
    assert Status(9).running and not Status(10).running
