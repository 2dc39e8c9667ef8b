"""The loaded library: a host, its physical ports and their virtual ports."""

from __future__ import annotations

import ctypes
import os
import threading
from ctypes import byref, c_uint8, c_uint32
from types import TracebackType
from typing import Any, Dict, Iterator, Optional, Sequence, Tuple, Type, Union

from . import _c
from .errors import CheckCondition, Error
from .model import AdapterInfo, Lun, PortInfo, Statistics, Target
from .scsi import CommandResult, decode_sense

DEFAULT_LIBRARY = "libtrelm.so.5"

_NPIV_SLACK = 255  # how far beyond their number to look for ports whose NPIV indexes are not dense
_MOST_PORTS = 65536  # a driver that reports a nonsense count must not make a search run for hours
_FIRST_LUN_ROOM = 16
_LIST_ATTEMPTS = 4  # a list may grow between two calls, but not for ever
_UNFILLED_TARGET = 0xFFFFFFFF  # no target number


def load(library: Union[str, "os.PathLike[str]"] = DEFAULT_LIBRARY) -> Host:
    """Loads libtrelm and finds the ports of this host.

    `library` is a file name that the dynamic linker finds, or a path. Raises OSError where there is no such
    library and Error where it refuses to load: not root, not an ESXi host, no driver that answers.
    """
    return Host(os.fspath(library))


class _Loads:
    """Counts the hosts of this process that use a library, because the C library is loaded once per process.

    The first host loads it, the last one frees it. A forked child owns none of its parent's loads.
    """

    def __init__(self) -> None:
        self.forget()
        os.register_at_fork(after_in_child=self.forget)

    def forget(self) -> None:
        self._lock = threading.Lock()  # another thread may have held the parent's
        self._counts: Dict[int, int] = {}

    def acquire(self, library: ctypes.CDLL) -> None:
        with self._lock:
            count = self._counts.get(library._handle, 0)
            if count == 0:
                code = library.TRELM_LoadLibrary()
                if code != _c.STATUS_OK:
                    raise Error(code, "TRELM_LoadLibrary")
            self._counts[library._handle] = count + 1

    def release(self, library: ctypes.CDLL) -> None:
        with self._lock:
            count = self._counts.get(library._handle, 0)
            if count == 1:
                library.TRELM_FreeLibrary()
            if count > 0:
                self._counts[library._handle] = count - 1


_loads = _Loads()


class Host:
    """A host whose ports can be asked. Use it in a `with` block, or call close().

    Any number of hosts may be open in a process, in any threads: they share one load of the C library. The
    ports are those found when the first of them was loaded.
    """

    def __init__(self, library: str) -> None:
        self._library = _c.open_library(library)
        self._closed = False
        _loads.acquire(self._library)
        count = c_uint32(0)
        # After a successful load this failure has one cause: no port was found.
        self._library.TRELM_GetPortCount(byref(count))
        self._ports = tuple(PhysicalPort(self, instance) for instance in range(count.value))

    @property
    def ports(self) -> Tuple[PhysicalPort, ...]:
        """The physical ports, by instance number; empty if the host has none."""
        return self._ports

    @property
    def version(self) -> str:
        """The version text of the C library."""
        buffer = (c_uint8 * _c.VERSION_ROOM)()
        self._library.TRELM_GetVersion(buffer, len(buffer))
        return bytes(buffer).split(b"\0", 1)[0].decode("ascii")

    def close(self) -> None:
        """Closes the ports and releases the library. Safe to repeat."""
        if self._closed:
            return
        self._closed = True
        for port in self._ports:
            port._close()
        _loads.release(self._library)

    def __enter__(self) -> Host:
        return self

    def __exit__(
        self,
        kind: Optional[Type[BaseException]],
        value: Optional[BaseException],
        traceback: Optional[TracebackType],
    ) -> None:
        self.close()


class Port:
    """What physical and virtual ports have in common. Every method asks the driver."""

    def __init__(self, physical: PhysicalPort) -> None:
        self._physical = physical

    @property
    def npiv_index(self) -> int:
        """The index that distinguishes the port from the others of its adapter."""
        raise NotImplementedError

    @property
    def label(self) -> str:
        """The port as messages and the command line name it: "0", "0/1"."""
        raise NotImplementedError

    def info(self) -> PortInfo:
        """State, addresses and FCF of the port."""
        return self._physical._info_of(self.npiv_index, self.label)

    def statistics(self) -> Statistics:
        """The counters of the port."""
        record = _c.TRELM_PORT_STATS()
        self._call("TRELM_GetPortStats", byref(record))
        return Statistics.from_record(record)

    def targets(self) -> Tuple[Target, ...]:
        """The SCSI targets that answer. An Error carries those listed before the failure in `found`."""
        try:
            self.info()  # refreshes the number of targets, which the listing goes by
        except Error:
            pass  # keep the number known before
        try:
            self._call("TRELM_GetTgtInfo", byref(c_uint32(0)), byref(ctypes.POINTER(_c.TRELM_TGT_INFO)()))
            return ()
        except Error as error:
            if error.code != _c.STATUS_INSUFFICIENT_BUFFER:
                raise
        # There are at most as many targets as target numbers. The number of filled elements is not reported, so
        # each starts with an invalid target number.
        array = (_c.TRELM_TGT_INFO * _c.MAX_TARGETS)()
        for element in array:
            element.ScsiTgtNum = _UNFILLED_TARGET
        first = ctypes.cast(array, ctypes.POINTER(_c.TRELM_TGT_INFO))
        try:
            self._call("TRELM_GetTgtInfo", byref(c_uint32(len(array))), byref(first))
        except Error as error:
            error.found = _targets_in(array)
            raise
        return _targets_in(array)

    def luns(self, target: int) -> Tuple[Lun, ...]:
        """The LUNs of a target. An Error carries those described before the failure in `found`."""
        room, attempts_left = _FIRST_LUN_ROOM, _LIST_ATTEMPTS
        while True:
            attempts_left -= 1
            array = (_c.TRELM_LUN_INFO * room)()
            for element in array:
                _mark_unfilled(element)
            first = ctypes.cast(array, ctypes.POINTER(_c.TRELM_LUN_INFO))
            count = c_uint32(room)
            try:
                self._call("TRELM_GetLunInfo", target, byref(count), byref(first))
                return _luns_in(array)
            except Error as error:
                error.found = _luns_in(array)
                # If the array was large enough, this code is status 9 of the driver.
                grown = error.code == _c.STATUS_INSUFFICIENT_BUFFER and count.value > room
                if not grown or attempts_left == 0:
                    raise
                room = count.value

    def command(
        self,
        target: int,
        lun: int,
        cdb: Sequence[int],
        *,
        data_in: int = 0,
        data_out: bytes = b"",
        check: bool = True,
    ) -> CommandResult:
        """Sends a SCSI command and waits for it.

        `data_in` is the number of bytes to read, `data_out` what to write; a command has one of them or none.
        With `check`, a command that the device refused raises CheckCondition; without it, the sense data is
        in the result.
        """
        if data_in and data_out:
            raise ValueError("a command moves data in one direction")
        block = bytes(cdb)
        if not 1 <= len(block) <= 16:
            raise ValueError("a command descriptor block has 1 to 16 bytes")
        if not 0 <= lun < 1 << 64 or not 0 <= target < _c.MAX_TARGETS:
            raise ValueError("no such target or LUN number")
        record = _c.TRELM_SCSI_CMND()
        record.ScsiTgtNum = target
        record.ScsiLunNum = lun & 0xFFFFFFFF
        record.ScsiLunNumExt = lun >> 32
        record.Direction = _c.SCSI_DATA_IN if data_in else _c.SCSI_DATA_OUT if data_out else 0
        record.CDBLength = len(block)
        record.CDB[: len(block)] = block
        record.SenseLength = len(record.Sense)
        length = data_in or len(data_out)
        buffer = (c_uint8 * length)()
        ctypes.memmove(buffer, data_out, len(data_out))
        try:
            self._call("TRELM_SendScsiCommand", byref(record), byref(c_uint32(length)), buffer)
        except Error as error:
            error.sense = decode_sense(bytes(record.Sense))
            raise
        sense = decode_sense(bytes(record.Sense))
        if check and sense is not None and sense.is_failure:
            raise CheckCondition("TRELM_SendScsiCommand", self.label, sense)
        return CommandResult(bytes(buffer) if data_in else b"", sense)

    def _call(self, operation: str, *arguments: Any) -> None:
        self._physical._invoke(operation, self.label, self.npiv_index, *arguments)


class PhysicalPort(Port):
    """A physical port. It is opened when it is first asked and closed with its host."""

    def __init__(self, host: Host, instance: int) -> None:
        super().__init__(self)
        self.instance = instance
        self._host = host
        self._lock = threading.Lock()
        self._handle: Optional[int] = None
        self._index: Optional[int] = None

    def __repr__(self) -> str:
        return f"<trelm.PhysicalPort {self.label}>"

    @property
    def label(self) -> str:
        return str(self.instance)

    @property
    def npiv_index(self) -> int:
        """The index that the driver gave the physical port among the ports of its adapter; need not be 0."""
        if self._index is None:
            silent: Optional[Error] = None
            for index in self._indexes():
                try:
                    if not self._info_of(index, self.label).is_virtual:
                        self._index = index
                        return index
                except Error as error:
                    if silent is None:
                        silent = error
            raise silent or Error(_c.STATUS_FAILED, "TRELM_GetVNPortInfo", self.label)
        return self._index

    def adapter(self) -> AdapterInfo:
        """The adapter and the port as they were found at load; the driver is not asked."""
        record = _c.TRELM_FCOE_INFO(Version=_c.RECORD_VERSION)
        self._invoke("TRELM_GetFcoeInfo", self.label, byref(record))
        return AdapterInfo.from_record(record)

    def virtual_ports(self) -> Tuple[VirtualPort, ...]:
        """The virtual ports of the adapter, by their NPIV index."""
        physical = self.npiv_index
        return tuple(VirtualPort(self, index) for index in self._indexes() if index != physical)

    def _indexes(self) -> Iterator[int]:
        """The NPIV indexes of the physical port and its virtual ports, in ascending order."""
        expected = self.adapter().virtual_port_count + 1
        for index in range(min(expected, _MOST_PORTS) + _NPIV_SLACK):
            if expected == 0:
                return
            if self._has(index):
                expected -= 1
                yield index

    def _has(self, index: int) -> bool:
        """Whether there is a port with that index. A target listing without room ends after the look-up."""
        count, none = c_uint32(0), ctypes.POINTER(_c.TRELM_TGT_INFO)()
        library = self._host._library
        code: int = library.TRELM_GetTgtInfo(self._open(), index, byref(count), byref(none))
        return code != _c.STATUS_FAILED

    def _info_of(self, index: int, label: str) -> PortInfo:
        record = _c.TRELM_VNPORT_INFO(Version=_c.RECORD_VERSION)
        self._invoke("TRELM_GetVNPortInfo", label, index, byref(record))
        return PortInfo.from_record(record)

    def _invoke(self, operation: str, label: str, *arguments: Any) -> None:
        code: int = getattr(self._host._library, operation)(self._open(), *arguments)
        if code != _c.STATUS_OK:
            raise Error(code, operation, label)

    def _open(self) -> int:
        """The handle. All threads share one open."""
        with self._lock:
            if self._host._closed:
                raise ValueError("the host is closed")
            if self._handle is None:
                handle = c_uint32(0)
                code = self._host._library.TRELM_OpenAdapter(self.instance, byref(handle))
                if code != _c.STATUS_OK:
                    raise Error(code, "TRELM_OpenAdapter", self.label)
                self._handle = handle.value
            return self._handle

    def _close(self) -> None:
        with self._lock:
            if self._handle is not None:
                self._host._library.TRELM_CloseAdapter(self._handle)
                self._handle = None


class VirtualPort(Port):
    """A virtual (NPIV) port, reached through its physical port."""

    def __init__(self, physical: PhysicalPort, npiv_index: int) -> None:
        super().__init__(physical)
        self._npiv_index = npiv_index

    def __repr__(self) -> str:
        return f"<trelm.VirtualPort {self.label}>"

    @property
    def npiv_index(self) -> int:
        return self._npiv_index

    @property
    def label(self) -> str:
        return f"{self._physical.label}/{self._npiv_index}"

    @property
    def physical_port(self) -> PhysicalPort:
        return self._physical


def _targets_in(array: Any) -> Tuple[Target, ...]:
    return tuple(Target.from_record(each) for each in array if each.ScsiTgtNum != _UNFILLED_TARGET)


def _mark_unfilled(element: _c.TRELM_LUN_INFO) -> None:
    """The number of filled LUNs is not reported, so each starts with values that no LUN has together."""
    element.Version = _c.RECORD_VERSION
    element.ScsiLunNum = element.ScsiLunNumExt = 0xFFFFFFFF
    element.DeviceType = 0xFF
    element.Capacity = 0xFFFFFFFFFFFFFFFF


def _luns_in(array: Any) -> Tuple[Lun, ...]:
    unfilled = (0xFFFFFFFF, 0xFFFFFFFF, 0xFF, 0xFFFFFFFFFFFFFFFF)
    return tuple(
        Lun.from_record(each)
        for each in array
        if (each.ScsiLunNum, each.ScsiLunNumExt, each.DeviceType, each.Capacity) != unfilled
    )
