/* open_ports.c - opens every port of this host, and prints which cannot be opened and why. */
#include <stdio.h>
#include <string.h>
#include <trelm_mgmt.h>

static void tell(uint32_t instance, uint32_t code) {
    if (code < TRELM_STATUS_BASE) /* the open of a legacy driver's character node failed */
        printf("port %u: %s\n", (unsigned)instance, strerror((int)code));
    else
        printf("port %u: code 0x%08X\n", (unsigned)instance, (unsigned)code);
}

int main(void) {
    uint32_t count = 0;
    if (TRELM_LoadLibrary() != TRELM_STATUS_OK || TRELM_GetPortCount(&count) != TRELM_STATUS_OK) return 1;
    for (uint32_t instance = 0; instance < count; ++instance) {
        uint32_t handle = 0;
        const uint32_t code = TRELM_OpenAdapter(instance, &handle);
        if (code != TRELM_STATUS_OK) {
            tell(instance, code);
            continue;
        }
        printf("port %u has handle %u\n", (unsigned)instance, (unsigned)handle);
        TRELM_CloseAdapter(handle);
    }
    TRELM_FreeLibrary();
    return 0;
}
