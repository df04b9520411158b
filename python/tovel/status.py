"""The status values of the board path, as remote replies carry them."""

from __future__ import annotations

import enum

# (short text, long text); values without a row use the default row, as the
# unit's own log lines do.
_DEFAULT_TEXTS = ("DSP Dead!", "DSP not responding!")
_NO_ERROR = ("No Error!", "Unknown or Not a DSP Error!")
_TEXTS: dict[int, tuple[str, str]] = {
    2: ("DSP in Reset!", "DSP Stuck in Reset state!"),
    3: ("DSP Idled!", "DSP Stuck in Idle state!"),
    4: _NO_ERROR,
    5: _NO_ERROR,
    6: ("DSP overrun!", "DSP Result overrun!"),
    7: _NO_ERROR,
    8: _NO_ERROR,
    9: ("Bad DSP command!", "DSP received corrupt command!"),
    10: ("Bad USB command!", "Cypress received invalid deviceID!"),
    11: ("No USB Comm!", "Can't open USB/DSP driver!"),
    12: ("USB Comm failed!", "DeviceIOControl Failed!"),
    13: ("USB Comm time-out!", "DSP Comm timed out!"),
    14: ("DSP msg mixup!", "Unexpected DSP response!"),
    15: ("Wrong COF Version!", "Wrong COF Version!"),
    16: ("Ethernet Error!", "Ethernet Comm Error!"),
}


class Status(enum.IntEnum):
    """A 32-bit status of a DSP, of the link or of the controller.

    0 is success for the board and link requests; the controller's own
    requests answer 4 (RUNNING). Values the table does not name still decode
    (as ``Status(200)``, named ``UNKNOWN_200``) and get the default texts.

    >>> Status(13).short_text
    'USB Comm time-out!'
    """

    OK = 0
    DEAD = 1
    IN_RESET = 2
    IDLED = 3
    RUNNING = 4
    RESULT_READY = 5
    RESULT_OVERRUN = 6
    ACK = 7
    COMMAND_DONE = 8
    BAD_COMMAND = 9
    BAD_USB_COMMAND = 10
    NO_USB_COMM = 11
    USB_COMM_FAILED = 12
    USB_TIMEOUT = 13
    MSG_MIXUP = 14
    WRONG_COF_VERSION = 15
    ETHERNET_ERROR = 16
    BOOT_NOT_RUNNING = 154

    @classmethod
    def _missing_(cls, value: object) -> Status | None:
        if not isinstance(value, int) or not 0 <= value <= 0xFFFFFFFF:
            return None
        member = int.__new__(cls, value)
        member._name_ = f"UNKNOWN_{value}"
        member._value_ = value
        return member

    @property
    def short_text(self) -> str:
        """The short text the unit shows for this value ("No USB Comm!")."""
        return _TEXTS.get(self.value, _DEFAULT_TEXTS)[0]

    @property
    def long_text(self) -> str:
        """The long text the unit's log lines use ("Can't open USB/DSP driver!")."""
        return _TEXTS.get(self.value, _DEFAULT_TEXTS)[1]

    @property
    def running(self) -> bool:
        """True for 4 to 9: the states of a DSP that runs a program."""
        return 4 <= self.value <= 9

    def describe(self) -> str:
        """``"11 (No USB Comm! / Can't open USB/DSP driver!)"``; 0 reads ``"0 (success)"``."""
        if self.value == 0:  # 0 borrows the default texts, which read as a failure
            return "0 (success)"
        return f"{self.value} ({self.short_text} / {self.long_text})"
