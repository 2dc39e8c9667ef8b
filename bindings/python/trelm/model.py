"""The reports of the library as immutable values."""

from __future__ import annotations

import enum
from dataclasses import dataclass, fields
from typing import Any, Optional

from . import _c
from ._text import address, size_text, text


class _OpenEnum(enum.IntEnum):
    """An enumeration that keeps values without a name."""

    @classmethod
    def _missing_(cls, value: object) -> Any:
        if not isinstance(value, int):
            return None
        member = int.__new__(cls, value)
        member._name_ = f"UNKNOWN_{value:X}"
        member._value_ = value
        return member

    @property
    def words(self) -> str:
        if self.name.startswith("UNKNOWN_"):
            return f"unknown (0x{self.value:x})"
        return self.name.lower().replace("_", " ")


class PortState(_OpenEnum):
    LINK_DOWN = _c.PORTSTATE_LINKDOWN
    ONLINE = _c.PORTSTATE_ONLINE
    OTHER = _c.PORTSTATE_OTHER


class TargetState(_OpenEnum):
    UNKNOWN = 0
    NOT_PRESENT = 1
    ONLINE = 2
    OFFLINE = 3
    BLOCKED = 4
    BYPASSED = 5
    DIAGNOSTICS = 6
    LINK_DOWN = 7
    ERROR = 8
    LOOPBACK = 9
    DELETED = 10


# In ascending order of speed, which is not that of the bits.
_SPEEDS = (
    (0x1, 1),
    (0x2, 2),
    (0x8, 4),
    (0x10, 8),
    (0x4, 10),
    (0x20, 16),
    (0x80, 20),
    (0x800, 25),
    (0x40, 32),
    (0x100, 40),
    (0x200, 50),
    (0x400, 100),
)


def speed_words(bits: int) -> str:
    """One speed or several, as the driver's bits: "10 Gbit/s", "1, 10 Gbit/s"."""
    words = ", ".join(str(gigabits) for bit, gigabits in _SPEEDS if bits & bit)
    unknown = bits & ~sum(bit for bit, _ in _SPEEDS)
    parts = ([f"{words} Gbit/s"] if words else []) + ([f"unknown (0x{unknown:x})"] if unknown else [])
    return ", ".join(parts) or "unknown"


@dataclass(frozen=True)
class AdapterInfo:
    """An adapter and its physical port as they were found when the library was loaded."""

    model: str
    description: str
    driver_name: str
    driver_version: str
    driver_date: str
    driver_loaded: bool
    firmware: str
    management_firmware: str  # adapters of the kron family, else empty
    chip_revision: int
    media_type: int
    mac: str
    wwnn: str
    wwpn: str
    mtu: int  # bytes
    vlan: int
    pci_address: str  # domain:bus:device.function
    vendor_id: int
    device_id: int
    subsystem_vendor_id: int
    subsystem_id: int
    pci_revision: int
    pcie_gigatransfers: float  # GT/s of a lane; 0 unknown
    pcie_lanes: int  # 0 unknown
    physical_port_number: int  # on its adapter, from 1
    virtual_port_count: int

    @classmethod
    def from_record(cls, record: _c.TRELM_FCOE_INFO) -> AdapterInfo:
        lanes = {3: 1, 4: 2, 5: 4, 6: 8, 8: 16, 9: 32}
        return cls(
            model=text(record.ModelName),
            description=text(record.ModelDesc),
            driver_name=text(record.DriverName),
            driver_version=text(record.DriverVersion),
            driver_date=text(record.DriverDate),
            driver_loaded=record.DriverLoaded == 1,
            firmware=text(record.FWVersion),
            management_firmware=text(record.MFWVersion),
            chip_revision=record.ChipRevId,
            media_type=record.MediaType,
            mac=address(record.MAC),
            wwnn=address(record.WWNN),
            wwpn=address(record.WWPN),
            mtu=record.MTU,
            vlan=record.VlanID,
            pci_address=f"{record.PciDomainNum:04x}:{record.PciBusNum:02x}:{record.PciDeviceNum:02x}"
            f".{record.PciFunctionNum:x}",
            vendor_id=record.VendorID,
            device_id=record.DeviceID,
            subsystem_vendor_id=record.SubVendorID,
            subsystem_id=record.SubSystemID,
            pci_revision=record.PciRevision,
            pcie_gigatransfers=record.PCIESpeed / 10,
            pcie_lanes=lanes.get(record.PCIEWidth, 0),
            physical_port_number=record.PhyPortNum,
            virtual_port_count=record.NpivCount,
        )


@dataclass(frozen=True)
class Fcf:
    """The FCoE forwarder that a port is logged in to."""

    fabric_name: str
    switch_name: str
    mac: str
    fc_map: int
    priority: int
    keep_alive_timeout: int  # as the driver reports it


@dataclass(frozen=True)
class PortInfo:
    """A physical or virtual port as its driver answered for it."""

    npiv_index: int
    is_virtual: bool
    hba_name: str
    wwnn: str
    wwpn: str
    parent_wwpn: str
    port_id: int  # Fibre Channel port identifier, 24 bits
    state: PortState
    speed: int  # bits, see speed_words
    supported_speeds: int
    vlan: int
    target_count: int
    fcf_count: int
    fcf: Optional[Fcf]

    @classmethod
    def from_record(cls, record: _c.TRELM_VNPORT_INFO) -> PortInfo:
        fcf = Fcf(
            fabric_name=address(record.FabricName),
            switch_name=address(record.SwitchName),
            mac=address(record.FcfMAC),
            fc_map=record.FCMap,
            priority=record.FabricPriority,
            keep_alive_timeout=record.KeepAliveTimeout,
        )
        return cls(
            npiv_index=record.NpivIndex,
            is_virtual=record.PortType == _c.PORTTYPE_NPIV,
            hba_name=text(record.HbaName),
            wwnn=address(record.WWNN),
            wwpn=address(record.WWPN),
            parent_wwpn=address(record.ParentWWPN),
            port_id=record.PortFCID,
            state=PortState(record.PortState),
            speed=record.PortSpeed,
            supported_speeds=record.PortSupportedSpeed,
            vlan=record.FabricVlan,
            target_count=record.TgtCount,
            fcf_count=record.FcfCount,
            fcf=fcf if record.FcfCount else None,
        )


@dataclass(frozen=True)
class Statistics:
    """The counters of a port since its driver last cleared them, in the order of TRELM_PORT_STATS."""

    rx_fcoe_frames: int
    rx_fcoe_bytes: int
    rx_fcp_frames: int
    tx_fcoe_frames: int
    tx_fcoe_bytes: int
    tx_fcp_frames: int
    fcoe_dropped_frames: int
    sequences_dropped: int
    fc_crc_error_frames: int
    wrong_fcoe_version_frames: int
    eofa_frames: int
    missing_frames: int
    sequence_timeouts: int
    read_requests: int
    write_requests: int
    control_requests: int
    read_megabytes: int
    write_megabytes: int
    fip_vlan_negotiations: int
    fip_fabric_discoveries: int
    flogi_count: int
    fdisc_count: int
    ulp_tov_expirations: int
    rec_expirations: int
    abts_count: int
    srr_count: int
    reset_lun_count: int
    reset_target_count: int
    session_level_recovery_count: int
    link_failures: int

    @classmethod
    def from_record(cls, record: _c.TRELM_PORT_STATS) -> Statistics:
        return cls(*(getattr(record, name) for name in _c.COUNTERS))

    def since(self, earlier: Statistics) -> Statistics:
        """The growth since `earlier`. A counter that decreased was cleared meanwhile: its value is taken as it is."""
        pairs = ((getattr(self, field.name), getattr(earlier, field.name)) for field in fields(self))
        return Statistics(*(now - then if now >= then else now for now, then in pairs))


@dataclass(frozen=True)
class Target:
    """A SCSI target that a port sees."""

    number: int  # 0 to 127, with gaps
    wwnn: str
    wwpn: str
    port_id: int  # Fibre Channel port identifier, 24 bits
    state: TargetState
    lun_count: int  # 0 also where the target did not answer

    @classmethod
    def from_record(cls, record: _c.TRELM_TGT_INFO) -> Target:
        return cls(
            number=record.ScsiTgtNum,
            wwnn=address(record.WWNN),
            wwpn=address(record.WWPN),
            port_id=int.from_bytes(bytes(record.PortID), "big"),
            state=TargetState(record.PortState),
            lun_count=record.LunCount,
        )


_DEVICE_TYPES = {
    0x00: "disk",
    0x01: "tape",
    0x02: "printer",
    0x03: "processor",
    0x04: "worm",
    0x05: "cd/dvd",
    0x07: "optical",
    0x08: "changer",
    0x0C: "storage array",
    0x0D: "enclosure",
    0x0E: "simple disk",
    0x11: "object storage",
    0x14: "zoned disk",
    0x1E: "well-known LUN",
    0x1F: "no device",
}


@dataclass(frozen=True)
class Lun:
    """A LUN of a target, described by INQUIRY and READ CAPACITY."""

    number: int  # as commands take it: the first addressing level in the lowest 16 bits
    device_type: int  # INQUIRY byte 0: peripheral qualifier and device type
    capacity: int  # bytes
    vendor: str
    product: str
    revision: str

    @classmethod
    def from_record(cls, record: _c.TRELM_LUN_INFO) -> Lun:
        return cls(
            number=record.ScsiLunNumExt << 32 | record.ScsiLunNum,
            device_type=record.DeviceType,
            capacity=record.Capacity,
            vendor=text(record.VendorName),
            product=text(record.ProductName),
            revision=text(record.ProductRevision),
        )

    @property
    def number_text(self) -> str:
        """Small numbers in decimal; others name an addressing method or several levels: in hexadecimal."""
        return str(self.number) if self.number < 256 else f"0x{self.number:x}"

    @property
    def device_type_words(self) -> str:
        kind = _DEVICE_TYPES.get(self.device_type & 0x1F, f"unknown (0x{self.device_type & 0x1F:x})")
        qualifier = self.device_type >> 5
        return kind if qualifier == 0 or kind == "no device" else f"{kind}, not connected ({qualifier})"

    @property
    def capacity_text(self) -> str:
        return size_text(self.capacity) if self.capacity else "-"
