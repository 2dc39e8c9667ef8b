/*
 * The public header as a C99 program sees it. The expected places stand in the interface's own words; the
 * compiler refuses this file when a record differs, and interface_test calls what is here.
 */
#include <stddef.h>

#include "trelm_mgmt.h"

#define RECORD(record, bytes) typedef char record##_has_its_size[sizeof(record) == (bytes) ? 1 : -1]
#define AT(record, field, at) \
    typedef char record##_##field##_is_in_place[offsetof(record, field) == (at) ? 1 : -1]

RECORD(TRELM_FCOE_INFO, 508);
AT(TRELM_FCOE_INFO, MAC, 245);
AT(TRELM_FCOE_INFO, VlanID, 400);
AT(TRELM_FCOE_INFO, MFWVersion, 476);
RECORD(TRELM_VNPORT_INFO, 168);
AT(TRELM_VNPORT_INFO, PortFCID, 80);
AT(TRELM_VNPORT_INFO, PortSpeed, 96);
AT(TRELM_VNPORT_INFO, HbaName, 136);
RECORD(TRELM_PORT_STATS, 244);
AT(TRELM_PORT_STATS, RxFCoEFrames, 4);
AT(TRELM_PORT_STATS, LinkFailures, 236);
RECORD(TRELM_SCSI_CMND, 292);
AT(TRELM_SCSI_CMND, SenseLength, 34);
RECORD(TRELM_TGT_INFO, 34);
AT(TRELM_TGT_INFO, LunCount, 30);
RECORD(TRELM_LUN_INFO, 217);
AT(TRELM_LUN_INFO, Capacity, 9);
AT(TRELM_LUN_INFO, ScsiLunNumExt, 213);

/* Every function can be called from C; without a load they fail as they should. Returns the number of
 * surprises. */
int call_everything_from_c(void) {
    uint32_t number = 0;
    TRELM_FCOE_INFO fcoe;
    TRELM_VNPORT_INFO port;
    TRELM_PORT_STATS stats;
    TRELM_SCSI_CMND command = {0};
    TRELM_TGT_INFO target;
    TRELM_LUN_INFO lun;
    TRELM_TGT_INFO* targets = &target;
    TRELM_LUN_INFO* luns = &lun;
    uint32_t one = 1;
    int surprises = 0;
    surprises += TRELM_GetVersion(NULL, 0) != TRELM_VERSION_NUMBER;
    surprises += TRELM_GetPortCount(&number) != TRELM_STATUS_FAILED;
    surprises += TRELM_OpenAdapter(0, &number) != TRELM_STATUS_FAILED;
    surprises += TRELM_CloseAdapter(1) != TRELM_STATUS_FAILED;
    surprises += TRELM_GetFcoeInfo(1, &fcoe) != TRELM_STATUS_FAILED;
    surprises += TRELM_GetVNPortInfo(1, 0, &port) != TRELM_STATUS_FAILED;
    surprises += TRELM_GetPortStats(1, 0, &stats) != TRELM_STATUS_FAILED;
    surprises += TRELM_SendScsiCommand(1, 0, &command, NULL, NULL) != TRELM_STATUS_FAILED;
    surprises += TRELM_GetTgtInfo(1, 0, &one, &targets) != TRELM_STATUS_FAILED;
    surprises += TRELM_GetLunInfo(1, 0, 0, &one, &luns) != TRELM_STATUS_FAILED;
    surprises += TRELM_FreeLibrary() != TRELM_STATUS_OK;
    return surprises;
}
