/* storage.c - prints the targets and LUNs that the first port sees. */
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <trelm_mgmt.h>

static void print_lun(const TRELM_LUN_INFO* lun) {
    const uint64_t number = (uint64_t)lun->ScsiLunNumExt << 32 | lun->ScsiLunNum;
    printf("  LUN 0x%llx: %.8s %.16s, %llu bytes\n", (unsigned long long)number, (const char*)lun->VendorName,
           (const char*)lun->ProductName, (unsigned long long)lun->Capacity);
}

/* The number of filled elements is not reported, so each starts with values that no LUN has. */
static int is_filled(const TRELM_LUN_INFO* lun) {
    return lun->ScsiLunNum != UINT32_MAX || lun->ScsiLunNumExt != UINT32_MAX;
}

/* The list may grow between two calls, so call again with the returned number, up to four times. */
static void print_luns(uint32_t handle, uint32_t npiv_index, uint32_t target) {
    uint32_t code = TRELM_STATUS_INSUFFICIENT_BUFFER, room = 1;
    TRELM_LUN_INFO* luns = NULL;
    for (int attempt = 0; attempt < 4; ++attempt) {
        uint32_t count = room;
        free(luns);
        luns = malloc(room * sizeof *luns);
        if (luns == NULL) return;
        memset(luns, 0xff, room * sizeof *luns);
        luns[0].Version = 2;
        code = TRELM_GetLunInfo(handle, npiv_index, target, &count, &luns);
        if (code != TRELM_STATUS_INSUFFICIENT_BUFFER || count <= room) break;
        room = count;
    }
    if (code != TRELM_STATUS_OK) printf("  code 0x%08X\n", (unsigned)code);
    for (uint32_t i = 0; i < room && is_filled(&luns[i]); ++i) print_lun(&luns[i]);
    free(luns);
}

/* There are at most 128 target numbers, so an array of 128 always suffices. */
static void print_targets(uint32_t handle, uint32_t npiv_index) {
    static TRELM_TGT_INFO targets[TRELM_MAX_TARGETS];
    static const uint8_t unfilled[8];
    TRELM_TGT_INFO* array = targets;
    uint32_t count = TRELM_MAX_TARGETS;
    TRELM_VNPORT_INFO port = {.Version = 2};
    TRELM_GetVNPortInfo(handle, npiv_index, &port); /* refreshes the number of targets */
    memset(targets, 0, sizeof targets);
    const uint32_t code = TRELM_GetTgtInfo(handle, npiv_index, &count, &array);
    if (code != TRELM_STATUS_OK) printf("targets: code 0x%08X\n", (unsigned)code);
    for (uint32_t i = 0; i < TRELM_MAX_TARGETS; ++i) {
        if (memcmp(targets[i].WWPN, unfilled, sizeof unfilled) == 0) break;
        printf("target %u, %u LUNs\n", (unsigned)targets[i].ScsiTgtNum, (unsigned)targets[i].LunCount);
        print_luns(handle, npiv_index, targets[i].ScsiTgtNum);
    }
}

int main(void) {
    uint32_t handle;
    if (TRELM_LoadLibrary() != TRELM_STATUS_OK || TRELM_OpenAdapter(0, &handle) != TRELM_STATUS_OK) return 1;
    print_targets(handle, 0);
    TRELM_CloseAdapter(handle);
    TRELM_FreeLibrary();
    return 0;
}
