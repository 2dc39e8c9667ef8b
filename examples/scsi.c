/* scsi.c - sends an INQUIRY and a TEST UNIT READY to LUNs of the first port, and prints their sense data. */
#include <stdio.h>
#include <trelm_mgmt.h>

/* Key, additional sense code and qualifier of either format; 0 if there is no sense data. */
static int decode(const uint8_t* sense, int* key, int* asc, int* ascq) {
    const int format = sense[0] & 0x7f;
    if (format == 0x70) { /* fixed */
        *key = sense[2] & 0x0f;
        *asc = sense[12];
        *ascq = sense[13];
    } else if (format == 0x72) { /* descriptors */
        *key = sense[1] & 0x0f;
        *asc = sense[2];
        *ascq = sense[3];
    } else {
        return 0; /* none, or for an earlier command */
    }
    return 1;
}

/* Returns whether the command succeeded. */
static int send(uint32_t handle, TRELM_SCSI_CMND* command, uint8_t* data, uint32_t length) {
    int key, asc, ascq;
    command->SenseLength = sizeof command->Sense;
    const uint32_t code = TRELM_SendScsiCommand(handle, 0, command, &length, data);
    if (code != TRELM_STATUS_OK) {
        printf("not sent or not answered, code 0x%08X\n", (unsigned)code);
        return 0;
    }
    if (!decode(command->Sense, &key, &asc, &ascq) || key <= 1) return 1; /* 0 and 1 are no failures */
    printf("refused with sense %x/%02x/%02x\n", (unsigned)key, (unsigned)asc, (unsigned)ascq);
    return 0;
}

int main(void) {
    TRELM_SCSI_CMND inquiry = {.ScsiLunNum = 1, .CDBLength = 6, .Direction = TRELM_SCSI_DATA_IN};
    TRELM_SCSI_CMND test_unit_ready = {.ScsiLunNum = 9, .CDBLength = 6};
    uint8_t data[36] = {0};
    uint32_t handle;
    inquiry.CDB[0] = 0x12;
    inquiry.CDB[4] = sizeof data;
    if (TRELM_LoadLibrary() != TRELM_STATUS_OK || TRELM_OpenAdapter(0, &handle) != TRELM_STATUS_OK) return 1;
    if (send(handle, &inquiry, data, sizeof data))
        printf("%.8s %.16s\n", (const char*)data + 8, (const char*)data + 16);
    if (send(handle, &test_unit_ready, NULL, 0)) printf("ready\n");
    TRELM_CloseAdapter(handle);
    TRELM_FreeLibrary();
    return 0;
}
