/* first_agent.c - prints the FCoE ports of this host. */
#include <stdio.h>
#include <trelm_mgmt.h>

int main(void) {
    uint32_t count = 0, handle;
    if (TRELM_LoadLibrary() != TRELM_STATUS_OK) return 1;
    TRELM_GetPortCount(&count); /* fails, and count stays 0, if there is no port */
    for (uint32_t instance = 0; instance < count; ++instance) {
        TRELM_FCOE_INFO info = {.Version = 2};
        if (TRELM_OpenAdapter(instance, &handle) != TRELM_STATUS_OK) continue;
        if (TRELM_GetFcoeInfo(handle, &info) == TRELM_STATUS_OK)
            printf("port %u: %.32s, driver %.16s\n", (unsigned)instance, (const char*)info.ModelName,
                   (const char*)info.DriverName);
        TRELM_CloseAdapter(handle);
    }
    TRELM_FreeLibrary();
    return 0;
}
