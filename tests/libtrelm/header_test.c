/*
 * The public header in a C99 program. The compiler checks its declarations; the records must have the sizes that
 * they have in C++. interface_test calls this function.
 */
#include <stddef.h>

#include "trelm_mgmt.h"

int is_usable_from_c(void) {
    return sizeof(TRELM_FCOE_INFO) == 508 && sizeof(TRELM_VNPORT_INFO) == 168 &&
           sizeof(TRELM_TGT_INFO) == 34 && sizeof(TRELM_LUN_INFO) == 217 &&
           TRELM_GetVersion(NULL, 0) == TRELM_VERSION_NUMBER;
}
