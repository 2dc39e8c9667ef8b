"""libtrelm from Python: the FCoE ports of converged network adapters on ESXi hosts.

    import trelm

    with trelm.load() as host:
        for port in host.ports:
            print(port.label, port.info().state.words)

Methods that ask a driver raise trelm.Error when it fails. Everything may be used from any thread: calls into
the C library release the interpreter's lock.
"""

from ._text import size_text
from .errors import DEVICE_OFFLINE, CheckCondition, Error
from .host import DEFAULT_LIBRARY, Host, PhysicalPort, Port, VirtualPort, load
from .model import (
    AdapterInfo,
    Fcf,
    Lun,
    PortInfo,
    PortState,
    Statistics,
    Target,
    TargetState,
    speed_words,
)
from .scsi import CommandResult, Sense, decode_sense

__version__ = "5.0.2"

__all__ = [
    "AdapterInfo",
    "CheckCondition",
    "CommandResult",
    "DEFAULT_LIBRARY",
    "DEVICE_OFFLINE",
    "Error",
    "Fcf",
    "Host",
    "Lun",
    "PhysicalPort",
    "Port",
    "PortInfo",
    "PortState",
    "Sense",
    "Statistics",
    "Target",
    "TargetState",
    "VirtualPort",
    "decode_sense",
    "load",
    "size_text",
    "speed_words",
]
