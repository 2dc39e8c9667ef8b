/* virtual_ports.c - prints the physical port and the virtual ports of every adapter. */
#include <stdio.h>
#include <trelm_mgmt.h>

static void print_port(const TRELM_VNPORT_INFO* port) {
    printf("  NPIV index %u: %s port, HBA %.32s, WWPN ", (unsigned)port->NpivIndex,
           port->PortType == TRELM_PORTTYPE_NPIV ? "virtual" : "physical", (const char*)port->HbaName);
    for (int i = 0; i < 8; ++i) printf("%s%02x", i ? ":" : "", port->WWPN[i]);
    printf(", %s\n", port->PortState == TRELM_PORTSTATE_ONLINE ? "online" : "not online");
}

/* Drivers number the ports of an adapter freely, so search for them. The number of virtual ports shows when
 * all are found; the bound ends the search if the driver counts wrongly. */
static void print_ports_of(uint32_t handle) {
    TRELM_FCOE_INFO adapter = {.Version = 2};
    if (TRELM_GetFcoeInfo(handle, &adapter) != TRELM_STATUS_OK) return;
    printf("%.32s\n", (const char*)adapter.ModelName);
    const uint32_t wanted = adapter.NpivCount < 1024 ? adapter.NpivCount + 1 : 1024;
    for (uint32_t index = 0, found = 0; found < wanted && index < wanted + 255; ++index) {
        TRELM_VNPORT_INFO port = {.Version = 2};
        const uint32_t code = TRELM_GetVNPortInfo(handle, index, &port);
        if (code == TRELM_STATUS_FAILED) continue; /* no port has this index */
        ++found;
        if (code == TRELM_STATUS_OK)
            print_port(&port);
        else
            printf("  NPIV index %u: code 0x%08X\n", (unsigned)index, (unsigned)code);
    }
}

int main(void) {
    uint32_t count = 0, handle;
    if (TRELM_LoadLibrary() != TRELM_STATUS_OK || TRELM_GetPortCount(&count) != TRELM_STATUS_OK) return 1;
    for (uint32_t instance = 0; instance < count; ++instance) {
        if (TRELM_OpenAdapter(instance, &handle) != TRELM_STATUS_OK) continue;
        print_ports_of(handle);
        TRELM_CloseAdapter(handle);
    }
    TRELM_FreeLibrary();
    return 0;
}
