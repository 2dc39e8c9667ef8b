"""Sense data of SCSI commands, decoded, and the result of a command."""

from __future__ import annotations

from dataclasses import dataclass
from typing import Iterator, Optional, Tuple

_KEYS = (
    "no sense",
    "recovered error",
    "not ready",
    "medium error",
    "hardware error",
    "illegal request",
    "unit attention",
    "data protect",
    "blank check",
    "vendor specific",
    "copy aborted",
    "aborted command",
    "reserved",
    "volume overflow",
    "miscompare",
    "completed",
)
_NO_FAILURE = (0x0, 0x1, 0xF)

# What to do about a sense key.
_ADVICE = {
    0x2: "wait until the device is ready and send the command again",
    0x3: "the medium is damaged at this place; replace it",
    0x4: "check the device's own log",
    0x5: "correct the command: the device does not support it or one of its fields",
    0x6: "the device reports an event once; send the command again",
    0x7: "the medium is protected",
    0xB: "the device gave the command up; send it again",
    0xE: "the data on the medium differs from the data sent",
}

_ADDITIONAL = {
    (0x00, 0x00): "no additional sense information",
    (0x00, 0x06): "I/O process terminated",
    (0x02, 0x00): "no seek complete",
    (0x03, 0x00): "peripheral device write fault",
    (0x04, 0x00): "logical unit not ready, cause not reportable",
    (0x04, 0x01): "logical unit is becoming ready",
    (0x04, 0x02): "logical unit not ready, initializing command required",
    (0x04, 0x03): "logical unit not ready, manual intervention required",
    (0x04, 0x04): "logical unit not ready, format in progress",
    (0x04, 0x05): "logical unit not ready, rebuild in progress",
    (0x04, 0x07): "logical unit not ready, operation in progress",
    (0x04, 0x09): "logical unit not ready, self-test in progress",
    (0x04, 0x0A): "logical unit not accessible, asymmetric access state transition",
    (0x04, 0x0B): "logical unit not accessible, target port in standby state",
    (0x04, 0x0C): "logical unit not accessible, target port in unavailable state",
    (0x08, 0x00): "logical unit communication failure",
    (0x0B, 0x00): "warning",
    (0x0C, 0x00): "write error",
    (0x10, 0x00): "ID CRC or ECC error",
    (0x11, 0x00): "unrecovered read error",
    (0x1A, 0x00): "parameter list length error",
    (0x1D, 0x00): "miscompare during verify operation",
    (0x20, 0x00): "invalid command operation code",
    (0x21, 0x00): "logical block address out of range",
    (0x24, 0x00): "invalid field in CDB",
    (0x25, 0x00): "logical unit not supported",
    (0x26, 0x00): "invalid field in parameter list",
    (0x27, 0x00): "write protected",
    (0x27, 0x07): "space allocation failed, write protect",
    (0x28, 0x00): "not ready to ready change, medium may have changed",
    (0x29, 0x00): "power on, reset or bus device reset occurred",
    (0x29, 0x01): "power on occurred",
    (0x2A, 0x01): "mode parameters changed",
    (0x2A, 0x03): "reservations preempted",
    (0x2A, 0x09): "capacity data has changed",
    (0x2C, 0x00): "command sequence error",
    (0x2F, 0x00): "commands cleared by another initiator",
    (0x38, 0x07): "thin provisioning soft threshold reached",
    (0x3A, 0x00): "medium not present",
    (0x3F, 0x03): "inquiry data has changed",
    (0x3F, 0x0E): "reported LUNs data has changed",
    (0x44, 0x00): "internal target failure",
    (0x47, 0x00): "SCSI parity error",
    (0x49, 0x00): "invalid message error",
    (0x4B, 0x00): "data phase error",
    (0x4E, 0x00): "overlapped commands attempted",
    (0x55, 0x00): "system resource failure",
    (0x5D, 0x00): "failure prediction threshold exceeded",
}


@dataclass(frozen=True)
class Sense:
    """Decoded sense data of either format."""

    key: int
    asc: int
    ascq: int
    deferred: bool  # about an earlier command
    information: Optional[int]  # of a valid INFORMATION field: mostly a logical block address
    raw: bytes

    @property
    def key_words(self) -> str:
        return _KEYS[self.key]

    @property
    def additional_words(self) -> str:
        return _ADDITIONAL.get((self.asc, self.ascq), f"additional sense {self.asc:02x}h/{self.ascq:02x}h")

    @property
    def words(self) -> str:
        """Key, additional sense and the three numbers: "illegal request: invalid field in CDB (05/24/00)"."""
        numbers = f"({self.key:02x}/{self.asc:02x}/{self.ascq:02x})"
        earlier = ", of an earlier command" if self.deferred else ""
        return f"{self.key_words}: {self.additional_words} {numbers}{earlier}"

    @property
    def advice(self) -> str:
        return _ADVICE.get(self.key, "see the device's documentation")

    @property
    def is_failure(self) -> bool:
        """Whether the command failed."""
        return self.key not in _NO_FAILURE and not self.deferred


def _descriptors(raw: bytes) -> Iterator[Tuple[int, bytes]]:
    """Type and body of each whole descriptor."""
    at = 8
    while at + 2 <= len(raw) and at + 2 + raw[at + 1] <= len(raw):
        yield raw[at], raw[at + 2 : at + 2 + raw[at + 1]]
        at += 2 + raw[at + 1]


def _descriptor_information(raw: bytes) -> Optional[int]:
    for kind, body in _descriptors(raw):
        if kind == 0x00 and len(body) >= 10 and body[0] & 0x80:
            return int.from_bytes(body[2:10], "big")
    return None


def decode_sense(data: bytes) -> Optional[Sense]:
    """Decodes sense data in fixed (70h, 71h) or descriptor format (72h, 73h); None if there is none."""
    if len(data) < 8:
        return None
    raw = data[: 8 + data[7]]  # both formats tell there how many bytes follow byte 7
    response = raw[0] & 0x7F
    deferred = response in (0x71, 0x73)
    if response in (0x72, 0x73):
        return Sense(raw[1] & 0x0F, raw[2], raw[3], deferred, _descriptor_information(raw), raw)
    if response not in (0x70, 0x71):
        return None
    information = int.from_bytes(raw[3:7], "big") if raw[0] & 0x80 else None
    asc, ascq = (raw[12:14] + b"\0\0")[:2]
    return Sense(raw[2] & 0x0F, asc, ascq, deferred, information, raw)


@dataclass(frozen=True)
class CommandResult:
    """The result of a command: its data, and sense data if the device sent any.

    `data` has the length asked for; what did not arrive is zero, so its true length is told by the data
    itself.
    """

    data: bytes
    sense: Optional[Sense]
