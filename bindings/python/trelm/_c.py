"""The C interface as ctypes sees it: records, constants and prototypes of trelm_mgmt.h.

Names are those of the header. A test compares sizes, offsets, values and prototypes with the header itself.
"""

from __future__ import annotations

import ctypes
from ctypes import POINTER, c_uint8, c_uint16, c_uint32, c_uint64
from typing import Any, Dict, List, Tuple

STATUS_OK = 0x00000000
STATUS_BASE = 0x60000000
STATUS_FAILED = 0x60000001
STATUS_INVALID_PARAMETER = 0x60000004
STATUS_INVALID_INSTANCE = 0x60000007
STATUS_INSUFFICIENT_BUFFER = 0x60000009
STATUS_NO_MEMORY = 0x6000000A
STATUS_DRIVER_ERROR = 0x6000000B

PORTSTATE_LINKDOWN = 4
PORTSTATE_ONLINE = 8
PORTSTATE_OTHER = 0x80000000
PORTTYPE_PHYSICAL = 0
PORTTYPE_NPIV = 1
SCSI_DATA_IN = 1
SCSI_DATA_OUT = 2
SCSI_MAX_NATIVE_DATA = 262144
MAX_TARGETS = 128

RECORD_VERSION = 2  # the version whose fields this package reads
VERSION_ROOM = 64  # bytes of room for the version text


def _bytes(count: int) -> Any:
    return c_uint8 * count


class _Record(ctypes.LittleEndianStructure):
    _pack_ = 1
    _layout_ = "ms"  # newer Pythons want a packed record to name one; without bit fields all are the same


class TRELM_FCOE_INFO(_Record):
    _fields_ = [
        ("Version", c_uint32),
        ("ModelName", _bytes(32)),
        ("ModelDesc", _bytes(128)),
        ("DriverVersion", _bytes(32)),
        ("DriverDate", _bytes(32)),
        ("DriverName", _bytes(16)),
        ("DriverLoaded", c_uint8),
        ("MAC", _bytes(6)),
        ("WWNN", _bytes(8)),
        ("WWPN", _bytes(8)),
        ("MTU", c_uint32),
        ("FCFSelectionMethod", c_uint8),
        ("FriendlyName", _bytes(128)),
        ("VlanID", c_uint32),
        ("PciBusNum", c_uint16),
        ("PciDeviceNum", c_uint16),
        ("PciFunctionNum", c_uint16),
        ("VendorID", c_uint16),
        ("DeviceID", c_uint16),
        ("SubVendorID", c_uint16),
        ("SubSystemID", c_uint16),
        ("PciDomainNum", c_uint16),
        ("PciRevision", c_uint16),
        ("PhyPortNum", c_uint16),
        ("FWVersion", _bytes(32)),
        ("NpivCount", c_uint32),
        ("PCIESpeed", c_uint32),
        ("PCIEWidth", c_uint32),
        ("ChipRevId", c_uint32),
        ("MediaType", c_uint32),
        ("MFWVersion", _bytes(32)),
    ]


class TRELM_VNPORT_INFO(_Record):
    _fields_ = [
        ("Version", c_uint32),
        ("WWNN", _bytes(8)),
        ("WWPN", _bytes(8)),
        ("ParentWWPN", _bytes(8)),
        ("NPIVTag", _bytes(16)),
        ("FPMAMAC", _bytes(6)),
        ("FabricName", _bytes(8)),
        ("FcfMAC", _bytes(6)),
        ("FcfWWNN", _bytes(8)),
        ("FcfWWPN", _bytes(8)),
        ("PortFCID", c_uint32),
        ("FCMap", c_uint32),
        ("FabricVlan", c_uint16),
        ("FabricPriority", c_uint8),
        ("PortType", c_uint8),
        ("KeepAliveTimeout", c_uint32),
        ("PortSpeed", c_uint64),
        ("SwitchName", _bytes(8)),
        ("PortState", c_uint32),
        ("PortSupportedSpeed", c_uint64),
        ("TgtCount", c_uint32),
        ("FcfCount", c_uint32),
        ("NpivIndex", c_uint32),
        ("HbaName", _bytes(32)),
    ]


COUNTERS: Tuple[str, ...] = (
    "RxFCoEFrames",
    "RxFCoEBytes",
    "RxFCPFrames",
    "TxFCoEFrames",
    "TxFCoEBytes",
    "TxFCPFrames",
    "FCoEDropedFrames",
    "SequencesDropped",
    "FCCRCErrorFrames",
    "WrongFCoEVersionFrames",
    "EOFAFrames",
    "MissingFrames",
    "SequenceTimeouts",
    "ReadRequests",
    "WriteRequests",
    "ControlRequests",
    "ReadMegabytes",
    "WriteMegabytes",
    "FIPVlanNegotiations",
    "FIPFabricDiscoveries",
    "FLOGICount",
    "FDISCCount",
    "ULPTOVExpirations",
    "RECExpirations",
    "ABTSCount",
    "SRRCount",
    "ResetLUNCount",
    "ResetTargetCount",
    "SessionLevelRecoveryCount",
    "LinkFailures",
)


class TRELM_PORT_STATS(_Record):
    _fields_ = [("Version", c_uint32)] + [(name, c_uint64) for name in COUNTERS]


class TRELM_SCSI_CMND(_Record):
    _fields_ = [
        ("Version", c_uint32),
        ("ScsiLunNumExt", c_uint32),
        ("ScsiTgtNum", c_uint32),
        ("ScsiLunNum", c_uint32),
        ("Direction", c_uint8),
        ("CDBLength", c_uint8),
        ("CDB", _bytes(16)),
        ("SenseLength", c_uint16),
        ("Sense", _bytes(256)),
    ]


class TRELM_TGT_INFO(_Record):
    _fields_ = [
        ("Version", c_uint32),
        ("ScsiTgtNum", c_uint32),
        ("WWNN", _bytes(8)),
        ("WWPN", _bytes(8)),
        ("PortID", _bytes(4)),
        ("PortState", c_uint16),
        ("LunCount", c_uint32),
    ]


class TRELM_LUN_INFO(_Record):
    _fields_ = [
        ("Version", c_uint32),
        ("ScsiLunNum", c_uint32),
        ("DeviceType", c_uint8),
        ("Capacity", c_uint64),
        ("VendorName", _bytes(16)),
        ("ProductName", _bytes(32)),
        ("ProductRevision", _bytes(16)),
        ("DeviceName", _bytes(32)),
        ("VolumeName", _bytes(32)),
        ("MountPath", _bytes(64)),
        ("PhysicalDrive", c_uint32),
        ("ScsiLunNumExt", c_uint32),
    ]


_COUNT = POINTER(c_uint32)

# Every function returns uint32_t.
PROTOTYPES: Dict[str, List[Any]] = {
    "TRELM_LoadLibrary": [],
    "TRELM_FreeLibrary": [],
    "TRELM_GetVersion": [POINTER(c_uint8), c_uint32],
    "TRELM_GetPortCount": [_COUNT],
    "TRELM_OpenAdapter": [c_uint32, _COUNT],
    "TRELM_CloseAdapter": [c_uint32],
    "TRELM_GetFcoeInfo": [c_uint32, POINTER(TRELM_FCOE_INFO)],
    "TRELM_GetVNPortInfo": [c_uint32, c_uint32, POINTER(TRELM_VNPORT_INFO)],
    "TRELM_GetPortStats": [c_uint32, c_uint32, POINTER(TRELM_PORT_STATS)],
    "TRELM_SendScsiCommand": [c_uint32, c_uint32, POINTER(TRELM_SCSI_CMND), _COUNT, POINTER(c_uint8)],
    "TRELM_GetTgtInfo": [c_uint32, c_uint32, _COUNT, POINTER(POINTER(TRELM_TGT_INFO))],
    "TRELM_GetLunInfo": [c_uint32, c_uint32, c_uint32, _COUNT, POINTER(POINTER(TRELM_LUN_INFO))],
}


def open_library(name: str) -> ctypes.CDLL:
    """Loads the shared library and gives its functions their prototypes. Calls release the GIL."""
    library = ctypes.CDLL(name)
    for function_name, arguments in PROTOTYPES.items():
        function = getattr(library, function_name)
        function.argtypes = arguments
        function.restype = c_uint32
    return library
