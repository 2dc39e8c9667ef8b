"""first_agent.py - prints the FCoE ports of this host."""

import trelm

with trelm.load() as host:
    for port in host.ports:
        adapter = port.adapter()
        print(f"port {port.label}: {adapter.model}, driver {adapter.driver_name}")
