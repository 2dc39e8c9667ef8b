/* poll.c - prints how fast the first port receives: poll [ROUNDS [MILLISECONDS]] */
#define _POSIX_C_SOURCE 200809L
#include <stdio.h>
#include <stdlib.h>
#include <time.h>
#include <trelm_mgmt.h>

static double now(void) {
    struct timespec time;
    clock_gettime(CLOCK_MONOTONIC, &time);
    return (double)time.tv_sec + (double)time.tv_nsec / 1e9;
}

/* The growth of a counter. The driver has cleared a counter that decreased; its value is taken as it is. */
static uint64_t since(uint64_t before, uint64_t after) { return after >= before ? after - before : after; }

static void poll(uint32_t handle, uint32_t npiv_index, int rounds, long milliseconds) {
    const struct timespec pause = {milliseconds / 1000, milliseconds % 1000 * 1000000};
    TRELM_PORT_STATS before = {0}, after = {0};
    double then = 0;
    while (rounds-- >= 0) {
        const uint32_t code = TRELM_GetPortStats(handle, npiv_index, &after);
        const double time = now();
        if (code != TRELM_STATUS_OK) { /* the driver may answer again: report it and continue */
            printf("no counters: code 0x%08X\n", (unsigned)code);
            then = 0;
        } else {
            if (then > 0)
                printf("%.0f frames/s, %.0f bytes/s, %llu failures of the link\n",
                       (double)since(before.RxFCoEFrames, after.RxFCoEFrames) / (time - then),
                       (double)since(before.RxFCoEBytes, after.RxFCoEBytes) / (time - then),
                       (unsigned long long)after.LinkFailures);
            before = after;
            then = time;
        }
        nanosleep(&pause, NULL);
    }
}

int main(int argc, char** argv) {
    uint32_t handle;
    if (TRELM_LoadLibrary() != TRELM_STATUS_OK || TRELM_OpenAdapter(0, &handle) != TRELM_STATUS_OK) return 1;
    poll(handle, 0, argc > 1 ? atoi(argv[1]) : 2, argc > 2 ? atol(argv[2]) : 100);
    TRELM_CloseAdapter(handle);
    TRELM_FreeLibrary();
    return 0;
}
