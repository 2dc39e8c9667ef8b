/*
 * The public header as a C99 program sees it: every record has its size, and every function can be called and
 * fails without a load. interface_test calls what is here.
 */
#include <stddef.h>

#include "trelm_mgmt.h"

/* Returns the number of surprises. */
int call_everything_from_c(void) {
    uint32_t one = 1;
    TRELM_FCOE_INFO fcoe;
    TRELM_VNPORT_INFO port;
    TRELM_PORT_STATS stats;
    TRELM_SCSI_CMND command = {0};
    TRELM_TGT_INFO target, *targets = &target;
    TRELM_LUN_INFO lun, *luns = &lun;
    const uint32_t codes[] = {TRELM_GetPortCount(&one),
                              TRELM_OpenAdapter(0, &one),
                              TRELM_CloseAdapter(1),
                              TRELM_GetFcoeInfo(1, &fcoe),
                              TRELM_GetVNPortInfo(1, 0, &port),
                              TRELM_GetPortStats(1, 0, &stats),
                              TRELM_SendScsiCommand(1, 0, &command, NULL, NULL),
                              TRELM_GetTgtInfo(1, 0, &one, &targets),
                              TRELM_GetLunInfo(1, 0, 0, &one, &luns)};
    int surprises = TRELM_GetVersion(NULL, 0) != TRELM_VERSION_NUMBER;
    for (size_t i = 0; i < sizeof codes / sizeof *codes; ++i) surprises += codes[i] != TRELM_STATUS_FAILED;
    surprises += sizeof fcoe != 508 || sizeof port != 168 || sizeof stats != 244;
    surprises += sizeof command != 292 || sizeof target != 34 || sizeof lun != 217;
    return surprises + (TRELM_FreeLibrary() != TRELM_STATUS_OK);
}
