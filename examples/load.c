/* load.c - counts the ports of this host, loads the library again and counts them again. */
#include <stdio.h>
#include <trelm_mgmt.h>

static int load_and_count(void) {
    uint32_t count = 0;
    const uint32_t code = TRELM_LoadLibrary();
    if (code != TRELM_STATUS_OK) {
        fprintf(stderr, "TRELM_LoadLibrary failed with 0x%08X\n", (unsigned)code);
        return 1;
    }
    /* If the load found no port, the library is not loaded and this call fails. */
    if (TRELM_GetPortCount(&count) != TRELM_STATUS_OK) count = 0;
    printf("%u physical ports\n", (unsigned)count);
    return 0;
}

int main(void) {
    uint8_t version[32];
    TRELM_GetVersion(version, sizeof version);
    printf("%s: %s\n", trelm_version_description, (const char*)version);
    if (load_and_count() != 0) return 1;
    TRELM_FreeLibrary(); /* closes every port: all handles are now invalid */
    if (load_and_count() != 0) return 1;
    TRELM_FreeLibrary();
    return 0;
}
