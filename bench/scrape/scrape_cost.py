"""Measures the cost of a scrape of a large simulated host: scrape_cost.py BUILD [PORTS [TARGETS]]"""

from __future__ import annotations

import json
import subprocess
import sys
import tempfile
from pathlib import Path
from typing import Any, Dict


def large_host(ports: int, targets: int) -> Dict[str, Any]:
    def target(number: int) -> Dict[str, Any]:
        wwn = f"00:00:c0:5a:00:00:{number:02x}"
        return {"index": number, "wwnn": f"50:{wwn}", "wwpn": f"51:{wwn}", "luns": [{"number": 0, "capacity": "1 GiB"}]}

    def adapter(number: int) -> Dict[str, Any]:
        pci = {"address": f"0000:{number + 1:02x}:00", "vendor_id": "0x1077", "device_id": "0x8080"}
        wwn = f"00:00:c0:5a:01:00:{number:02x}"
        port = {"wwnn": f"20:{wwn}", "wwpn": f"21:{wwn}", "targets": [target(each) for each in range(targets)]}
        return {"driver": "kron", "model": "Ulvard 8042", "pci": pci, "ports": [port]}

    return {"name": "large", "adapters": [adapter(number) for number in range(ports)]}


def main() -> None:
    build = Path(sys.argv[1])
    ports = int(sys.argv[2]) if len(sys.argv) > 2 else 64
    targets = int(sys.argv[3]) if len(sys.argv) > 3 else 128
    with tempfile.NamedTemporaryFile("w", suffix=".json") as host:
        json.dump(large_host(ports, targets), host)
        host.flush()
        subprocess.run([build / "bin/trelm-hostsim", "run", host.name, "--", build / "bin/trelm_scrape_cost"], check=True)


if __name__ == "__main__":
    main()
