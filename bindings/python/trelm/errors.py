"""Failed calls as exceptions: the code, what it means for the call at hand, and what to do."""

from __future__ import annotations

import errno
import os
from typing import TYPE_CHECKING, Optional, Tuple, Union

from . import _c

if TYPE_CHECKING:
    from .model import Lun, Target
    from .scsi import Sense

_NAMES = {
    _c.STATUS_OK: "TRELM_STATUS_OK",
    _c.STATUS_FAILED: "TRELM_STATUS_FAILED",
    _c.STATUS_INVALID_PARAMETER: "TRELM_STATUS_INVALID_PARAMETER",
    _c.STATUS_INVALID_INSTANCE: "TRELM_STATUS_INVALID_INSTANCE",
    _c.STATUS_INSUFFICIENT_BUFFER: "TRELM_STATUS_INSUFFICIENT_BUFFER",
    _c.STATUS_NO_MEMORY: "TRELM_STATUS_NO_MEMORY",
    _c.STATUS_DRIVER_ERROR: "TRELM_STATUS_DRIVER_ERROR",
}

_HIGHEST_DRIVER_STATUS = 13
DEVICE_OFFLINE = _c.STATUS_BASE + 13

# Code, C function (empty: any), meaning, advice. The first matching row counts.
_MEANINGS = (
    (
        _c.STATUS_FAILED,
        "TRELM_LoadLibrary",
        "the process is not root on an ESXi host, no FCoE driver answered, or the database shared between "
        "processes cannot be set up",
        "run as root on the host, or on a simulated one with trelm-hostsim; check that an FCoE driver is "
        "loaded and that /tmp can be written",
    ),
    (
        _c.STATUS_FAILED,
        "TRELM_OpenAdapter",
        "the port cannot be opened",
        "the driver reported it without a PCI identity; check the adapter and its driver",
    ),
    (_c.STATUS_FAILED, "TRELM_CloseAdapter", "the port is not open", "open it, or load the library again"),
    (
        _c.STATUS_FAILED,
        "",
        "no such port or virtual port, or the driver failed with its status 1",
        "load the library again if ports were added or removed",
    ),
    (
        _c.STATUS_INVALID_PARAMETER,
        "TRELM_SendScsiCommand",
        "an argument is out of range, or the driver failed with its status 4",
        "a native driver moves at most 262144 bytes with one command",
    ),
    (
        _c.STATUS_INVALID_PARAMETER,
        "",
        "an argument is out of range, or the driver failed with its status 4",
        "target numbers run from 0 to 127",
    ),
    (
        _c.STATUS_INVALID_INSTANCE,
        "TRELM_OpenAdapter",
        "the host has no such port",
        "instance numbers run from 0 to the number of ports minus one",
    ),
    (
        _c.STATUS_INSUFFICIENT_BUFFER,
        "",
        "the list outgrew the room made for it, or the driver failed with its status 9",
        "try again",
    ),
    (
        _c.STATUS_NO_MEMORY,
        "",
        "there is not enough memory, or the driver failed with its status 10",
        "free memory on this host and try again",
    ),
    (
        _c.STATUS_DRIVER_ERROR,
        "",
        "the driver failed the request without a known status",
        "check the state of the driver and the adapter's link",
    ),
    (DEVICE_OFFLINE, "", "the device is offline", "check the target, its zoning and the link of the port"),
)


def _describe(code: int, operation: str) -> Tuple[str, str, str]:
    """Name, meaning and advice of a return code. Codes below the library's own are system error numbers."""
    if code < _c.STATUS_BASE:
        name = errno.errorcode.get(code, f"ERRNO_{code}")
        return name, os.strerror(code), "check that the legacy driver is loaded and its character node exists"
    driver_status = code - _c.STATUS_BASE
    name = _NAMES.get(code, f"DRIVER_STATUS_{driver_status}")
    for row_code, row_operation, meaning, advice in _MEANINGS:
        if row_code == code and row_operation in ("", operation):
            return name, meaning, advice
    known = driver_status <= _HIGHEST_DRIVER_STATUS
    meaning = f"the driver failed with its status {driver_status}" if known else "an unknown code"
    return name, meaning, "run again with TRELM_API_DEBUG=4 to see what failed inside the library"


class Error(Exception):
    """A failed call.

    code       what the call returned
    name       the code's name in trelm_mgmt.h, or that of a system error number
    operation  the C function
    port       the port, "0" or "0/1", or empty
    meaning    what the code means for this call
    advice     what to do
    found      of a listing that failed half-way: what it had found
    sense      of a command that failed: the sense data, if there is any
    """

    def __init__(self, code: int, operation: str, port: str = "") -> None:
        self.code = code
        self.operation = operation
        self.port = port
        self.name, self.meaning, self.advice = _describe(code, operation)
        self.found: Tuple[Union[Target, Lun], ...] = ()
        self.sense: Optional[Sense] = None
        super().__init__(code, operation, port)

    def __str__(self) -> str:
        port = f"port {self.port}: " if self.port else ""
        return f"{port}{self.operation} failed with 0x{self.code:08X} ({self.name}): {self.meaning}; {self.advice}"


class CheckCondition(Error):
    """A command that the device refused; `sense` has the reason. The call itself succeeded: its code is 0."""

    def __init__(self, operation: str, port: str, sense: Sense) -> None:
        super().__init__(_c.STATUS_OK, operation, port)
        self.name = "CHECK_CONDITION"
        self.meaning = sense.words
        self.advice = sense.advice
        self.sense = sense
        self.args = (operation, port, sense)  # so that it can be copied and pickled

    def __str__(self) -> str:
        return f"port {self.port}: the device refused the command: {self.meaning}; {self.advice}"
