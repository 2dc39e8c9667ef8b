/*
 * slow_driver.c - stands before the management interface of a simulated host: a call for a driver instance waits
 * as long as the file "hang-INSTANCE" is in the directory that SLOW_DRIVER names.
 */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <stdarg.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

typedef int Invoke(uint64_t handle, uint64_t instance, uint64_t callback, uint32_t count, ...);

__attribute__((visibility("default"))) int vmk_MgmtUserCallbackInvokeInt(uint64_t handle, uint64_t instance,
                                                                         uint64_t callback, uint32_t count,
                                                                         ...) {
    va_list arguments;
    char path[4096];
    void* parameter;
    Invoke* next;

    va_start(arguments, count);
    parameter = va_arg(arguments, void*); /* no callback takes more than one */
    va_end(arguments);
    snprintf(path, sizeof path, "%s/hang-%u", getenv("SLOW_DRIVER"), (unsigned)instance);
    while (access(path, F_OK) == 0) usleep(10000);
    *(void**)&next = dlsym(RTLD_NEXT, "vmk_MgmtUserCallbackInvokeInt");
    return next(handle, instance, callback, count, parameter);
}
