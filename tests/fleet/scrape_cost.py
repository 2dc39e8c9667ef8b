"""Measures the cost of a scrape of a large host: scrape_cost.py [PORTS [TARGETS]]

The environment names the build tree: TRELM_BUILD.
"""

from __future__ import annotations

import subprocess
import sys
import time
from typing import Any, Dict

from exporters import BUILD, Exporter


def large_host(ports: int, targets: int) -> Dict[str, Any]:
    def target(number: int) -> Dict[str, Any]:
        wwn = f"00:00:c0:5a:00:00:{number:02x}"
        return {"index": number, "wwnn": f"50:{wwn}", "wwpn": f"51:{wwn}", "luns": [{"number": 0, "capacity": "1 GiB"}]}

    def adapter(number: int) -> Dict[str, Any]:
        pci = {"address": f"0000:{number + 1:02x}:00", "vendor_id": "0x1077", "device_id": "0x8080"}
        wwn = f"00:00:c0:5a:01:00:{number:02x}"
        port = {"name": f"port-{number}", "wwnn": f"20:{wwn}", "wwpn": f"21:{wwn}", "targets": [target(each) for each in range(targets)]}
        return {"driver": "kron", "model": "Ulvard 8042", "pci": pci, "ports": [port]}

    return {"name": "large", "adapters": [adapter(number) for number in range(ports)]}


def main() -> None:
    ports = int(sys.argv[1]) if len(sys.argv) > 1 else 64
    targets = int(sys.argv[2]) if len(sys.argv) > 2 else 128
    exporter = Exporter(large_host(ports, targets), "--deadline", "60")
    try:
        exporter.get()
        times = []
        for _ in range(11):
            begin = time.monotonic()
            text = exporter.get()[2]
            times.append(time.monotonic() - begin)
        subprocess.run([BUILD / "bin/trelm-hostsim", "run", exporter.host_file, "--", BUILD / "bin/trelm-scrape-cost"], check=True)
        print(f"over HTTP: {sorted(times)[5] * 1000:.1f} ms for {len(text) / 1e6:.1f} MB of the older text format")
    finally:
        exporter.end()


if __name__ == "__main__":
    main()
