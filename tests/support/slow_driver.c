/*
 * slow_driver.c - stands before the management interface of a simulated host: a request to the port with SCSI
 * host number N waits as long as the file "hang-N" is in the directory that SLOW_DRIVER names. Requests that
 * go to no port, such as for the number of ports, wait for "hang-0".
 */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <inttypes.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

typedef int Invoke(uint64_t handle, uint64_t instance, uint64_t callback, uint32_t count, ...);

__attribute__((visibility("default"))) int vmk_MgmtUserCallbackInvokeInt(uint64_t handle, uint64_t instance,
                                                                         uint64_t callback, uint32_t count,
                                                                         ...) {
    va_list arguments;
    char path[4096];
    void* request; /* begins with the host number */
    Invoke* next;

    va_start(arguments, count);
    request = va_arg(arguments, void*); /* no callback takes more than one */
    va_end(arguments);
    snprintf(path, sizeof path, "%s/hang-%" PRIu32, getenv("SLOW_DRIVER"), *(const uint32_t*)request);
    while (access(path, F_OK) == 0) usleep(10000);
    *(void**)&next = dlsym(RTLD_NEXT, "vmk_MgmtUserCallbackInvokeInt");
    return next(handle, instance, callback, count, request);
}
