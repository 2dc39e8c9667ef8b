/*
 * The public header in a C99 program: the records have their sizes, and every function can be called and
 * fails without a load. interface_test calls this function.
 */
#include <stddef.h>

#include "trelm_mgmt.h"

/* Returns the number of unexpected results. */
int call_everything_from_c(void) {
    const uint32_t failed = TRELM_STATUS_FAILED;
    uint32_t one = 1;
    TRELM_FCOE_INFO fcoe;
    TRELM_VNPORT_INFO port;
    TRELM_PORT_STATS stats;
    TRELM_SCSI_CMND command = {0};
    TRELM_TGT_INFO target, *targets = &target;
    TRELM_LUN_INFO lun, *luns = &lun;
    int surprises = sizeof fcoe != 508 || sizeof port != 168 || sizeof target != 34 || sizeof lun != 217;
    surprises += TRELM_GetVersion(NULL, 0) != TRELM_VERSION_NUMBER || TRELM_GetPortCount(&one) != failed;
    surprises += TRELM_OpenAdapter(0, &one) != failed || TRELM_CloseAdapter(1) != failed;
    surprises += TRELM_GetFcoeInfo(1, &fcoe) != failed || TRELM_GetVNPortInfo(1, 0, &port) != failed;
    surprises +=
        TRELM_GetPortStats(1, 0, &stats) != failed || TRELM_GetTgtInfo(1, 0, &one, &targets) != failed;
    surprises += TRELM_SendScsiCommand(1, 0, &command, NULL, NULL) != failed;
    surprises += TRELM_GetLunInfo(1, 0, 0, &one, &luns) != failed || TRELM_FreeLibrary() != TRELM_STATUS_OK;
    return surprises;
}
