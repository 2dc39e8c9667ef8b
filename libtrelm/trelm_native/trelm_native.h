// trelm_native.h - the transport over the VMkernel management interface, common to both native drivers. A
// NativeDriver describes what is specific to each driver.
#pragma once

#include "discovery.h"
#include "vmkmgmt.h"

namespace trelm::detail {

// Operations that go to one port. Each driver has a function name for each of them.
enum NativeOperation { kPortInfo, kPortStats, kTgtInfo, kFcfInfo, kScsiCmd, kNativeOperations };

// Port information of both drivers. The records begin alike, so the common part can be read from either.
union NativePortInfo {
    dorfc_port_info common;
    cx_fcoe_port_info cx;
    kronfc_port_info kron;
};

// The result of a request. It failed if the result or the status of the driver is not 0. `error` is the errno
// of the failing call.
struct Outcome {
    uint32_t result = 0;
    uint32_t stat = 0;
    int error = 0;

    bool failed() const { return result != 0 || stat != 0; }
};

struct NativeDriver {
    vmk_MgmtApiSignature* signature;
    uint64_t cookie;
    vmk_MgmtUserHandle* handle;
    bool signed_count;  // whether the port count is a signed number
    bool port_info_exit_shows_result;

    DiscoveryNames discovery_names;
    const char* open_name;
    const char* close_name;
    const char* operation_names[kNativeOperations];

    // Fill the fields that have another place in the records of this driver or that it numbers in its own
    // way.
    void (*fill_port)(trelm_priv_db& pdb, const NativePortInfo& port);
    void (*fill_hardware)(trelm_hw_info& hw, const NativePortInfo& port, const dorfc_pci_info& pci);
};

// The entry in the callback table of a signature for a kernel callback with one in/out payload.
consteval vmk_MgmtCallbackInfo native_callback_info(uint64_t id, uint64_t payload_size) {
    return {.location = VMK_MGMT_CALLBACK_KERNEL,
            .callback = nullptr,
            .synchronous = 1,
            .numParms = 1,
            .parmSizes = {payload_size},
            .parmTypes = {VMK_MGMT_PARMTYPE_INOUT},
            .callbackId = id};
}

uint32_t native_find_all_instances(const NativeDriver& driver, uint32_t* start_inst);
uint32_t native_open_adapter(const NativeDriver& driver, trelm_priv_db* pdb, uint32_t instance,
                             uint32_t* papi_handle);
uint32_t native_close_adapter(const NativeDriver& driver, trelm_priv_db* pdb);

// Sends an operation with a payload of at most 512 bytes. On success `payload` receives the first `wanted`
// bytes of the answer.
Outcome native_request(const NativeDriver& driver, NativeOperation operation, const trelm_priv_db* pdb,
                       void* payload, size_t wanted);

// Sends a SCSI command whose data is inside the record.
Outcome native_send_scsi_cmd(const NativeDriver& driver, const trelm_priv_db* pdb, kronfc_scsi_cmd* pcmd);

// Sends a SCSI command whose data is in the caller's buffer of cmd->data_len bytes, so that it is copied only
// once. Only the fields of the record up to data_len are used; up to there the records of all drivers are
// alike. `data` receives at most its own length.
Outcome native_exchange_scsi_cmd(const NativeDriver& driver, const trelm_priv_db* pdb, dorfc_scsi_cmd* cmd,
                                 uint8_t* data);

// Passes an outcome on in the form of the exported functions.
inline uint32_t give(const Outcome& outcome, uint32_t* stat) {
    *stat = outcome.stat;
    return outcome.result;
}

extern const NativeDriver kKronDriver;
extern const NativeDriver kPyxDriver;

}  // namespace trelm::detail
