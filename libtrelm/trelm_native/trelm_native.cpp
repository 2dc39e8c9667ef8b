// The transport over the VMkernel management interface: discovery, open and close, and one pattern for every
// request.

#include "trelm_native.h"

#include <cerrno>
#include <cstring>

#include "discovery.h"
#include "trelm_dbg.h"
#include "trelm_pool.h"

namespace {

using trelm::detail::Added;
using trelm::detail::error;
using trelm::detail::NativeDriver;
using trelm::detail::NativeOperation;
using trelm::detail::Outcome;
using trelm::detail::Piece;
using trelm::detail::trace;

// No host has more ports; a larger port count of a driver is followed up to this number.
constexpr uint64_t kMaxInstances = 65536;

// A kind of request: its callback, the size of its payload, and its log messages.
struct RequestKind {
    native_callback callback;
    uint32_t payload;
    const char* status_text;
    const char* errno_text;
    const char* alloc_text;
    bool exit_shows_result;
};

constexpr RequestKind kRequests[trelm::detail::kNativeOperations] = {
    {NATIVE_CB_PORT_INFO, sizeof(kronfc_port_info), ": Get port info callback failed, status=",
     ": Get port info callback function failed, errno=", "): port_info_cb alloc failed.", true},
    {NATIVE_CB_PORT_STATS, sizeof(kronfc_port_stats), ": Get port stats native failed, status=",
     ": Get port stats native function failed, errno=", "): pstats_cb alloc failed.", true},
    {NATIVE_CB_TGT_INFO, sizeof(kronfc_tgt_info), ": Get tgt info native failed, status=",
     ": Get tgt info native function failed, errno=", "): ptgt_cb alloc failed.", false},
    {NATIVE_CB_FCF_INFO, sizeof(kronfc_fcf_info), ": Get fcf info native failed, status=",
     ": Get fcf info native function failed, errno=", "): pfcf_cb alloc failed.", true},
    {NATIVE_CB_SCSI_CMD, sizeof(kronfc_scsi_cmd), ": send scsi cmd native failed, status=",
     ": send scsi cmd native function failed, errno=", "): pcmd_cb alloc failed.", false},
};

int invoke(const NativeDriver& driver, uint64_t callback, void* payload) {
    return vmk_MgmtUserCallbackInvokeInt(*driver.handle, 0, callback, 1, payload);
}

// ---- Discovery

// What the driver reports for one instance.
struct Instance {
    uint32_t host_no = 0;
    trelm::detail::NativePortInfo port = {};
    dorfc_pci_info pci = {};
};

// In discovery only the status in the record tells whether a call succeeded.
template <class Record>
bool ask_port(const NativeDriver& driver, uint64_t callback, uint32_t host_no, Record& out) {
    struct {
        native_cb_header header;
        Record payload;
    } __attribute__((packed)) request = {};
    request.header.host_no = host_no;
    invoke(driver, callback, &request);
    memcpy(&out, &request.payload, sizeof out);
    return request.header.status == 0;
}

bool read_instance(const NativeDriver& driver, uint32_t index, Instance& instance) {
    kronfc_hostno_cb hostno = {};
    hostno.inst = index;
    invoke(driver, NATIVE_CB_HOSTNO, &hostno);
    if (hostno.status) return false;
    instance.host_no = hostno.host_no;
    return ask_port(driver, NATIVE_CB_PORT_INFO, hostno.host_no, instance.port) &&
           ask_port(driver, NATIVE_CB_PCI_INFO, hostno.host_no, instance.pci);
}

void fill_hardware(const NativeDriver& driver, const Instance& instance, trelm_hw_info& hw) {
    const dorfc_port_info& port = instance.port.common;
    trelm::detail::copy_hardware(hw, port, instance.pci);
    memcpy(hw.model_desc, port.model_desc, sizeof hw.model_desc);
    hw.chip_rev_id = instance.pci.chip_rev_id;
    hw.native_driver = 1;
    driver.fill_hardware(hw, instance.port, instance.pci);
}

Added add_instance(const NativeDriver& driver, uint32_t index, const Instance& instance) {
    trelm_priv_db* pdb = nullptr;
    if (trelm_alloc_pdb_mem(&pdb) != 0) {
        error(driver.discovery_names.find_all, Piece(": inst=", index), " mem alloc failed, exiting");
        return Added::no_memory;
    }
    pdb->drvr_inst = index;
    pdb->host_no = instance.host_no;
    trelm::detail::copy_port(*pdb, instance.port.common);
    driver.fill_port(*pdb, instance.port);
    const Added added =
        trelm::detail::attach_hardware(driver.discovery_names, pdb, instance.pci, index,
                                       [&](trelm_hw_info& hw) { fill_hardware(driver, instance, hw); });
    if (added == Added::kept) trelm_print_priv_data(pdb);
    return added;
}

// ---- Requests

void trace_at(const char* func, uint32_t apihandle, const char* text) {
    trace(func, Piece("(", apihandle), text);
}

void trace_entry(const NativeDriver& driver, NativeOperation operation, const trelm_priv_db* pdb) {
    trace_at(driver.operation_names[operation], trelm::detail::handle_of(pdb), "): entered.");
}

Outcome no_memory(const NativeDriver& driver, NativeOperation operation, const trelm_priv_db* pdb) {
    const int err = errno;
    error(driver.operation_names[operation], Piece("(", trelm::detail::handle_of(pdb)),
          kRequests[operation].alloc_text);
    return {1, DRIVER_STATUS_NO_MEMORY, err};
}

void trace_exit(const NativeDriver& driver, NativeOperation operation, const trelm_priv_db* pdb,
                uint32_t result) {
    if (!trelm::detail::logs(trelm::detail::kTrace)) return;
    const char* func = driver.operation_names[operation];
    bool shows_result = kRequests[operation].exit_shows_result &&
                        (operation != trelm::detail::kPortInfo || driver.port_info_exit_shows_result);
    if (shows_result) {
        trace(func, Piece("(", trelm::detail::handle_of(pdb)), Piece("): exiting. ret=", result));
    } else {
        trace_at(func, trelm::detail::handle_of(pdb), "): exiting.");
    }
}

// Sends the wrapper. The status of the driver decides first, then the result of the call.
Outcome send(const NativeDriver& driver, NativeOperation operation, const trelm_priv_db* pdb,
             native_cb_header* wrapper) {
    wrapper->host_no = pdb->host_no;
    wrapper->status = 0;
    const int rc = invoke(driver, kRequests[operation].callback, wrapper);
    const uint32_t stat = wrapper->status;
    if (!stat && !rc) return {};
    const int err = errno;
    error(driver.operation_names[operation],
          stat ? Piece(kRequests[operation].status_text, stat) : Piece(kRequests[operation].errno_text, err));
    return {1, stat, err};
}

// The payload of an operation other than a SCSI command.
struct RequestRecord {
    native_cb_header header;
    uint8_t body[sizeof(kronfc_port_stats)];  // the largest payload
} __attribute__((packed));

// The part before the data, or before its address, is the same in the command records of all drivers.
constexpr size_t kScsiLead = offsetof(kronfc_scsi_cmd, data_buffer);
static_assert(kScsiLead == offsetof(dorfc_scsi_cmd, data_addr));

bool moves_data(const dorfc_scsi_cmd& cmd) {
    return cmd.direction == SCSI_DIRECTION_IN || cmd.direction == SCSI_DIRECTION_OUT;
}

// Fills a wrapper. The driver sees all of it, so everything that the command does not set must be zero. A
// block that an earlier command used is cleared, except for the parts that are overwritten.
void fill_scsi(kronfc_scsi_cmd_cb& wrapper, bool cleared, const dorfc_scsi_cmd& cmd, const uint8_t* data) {
    const uint32_t out = cmd.direction == SCSI_DIRECTION_OUT ? cmd.data_len : 0;
    kronfc_scsi_cmd& to = wrapper.cmnd;
    if (!cleared) {
        memset(&wrapper, 0, sizeof wrapper.header + kScsiLead);
        memset(to.data_buffer + out, 0, sizeof to.data_buffer - out);
    }
    to.lun_ext = cmd.lun_ext;
    to.tgt = cmd.tgt;
    to.lun = cmd.lun;
    to.direction = cmd.direction;
    to.cdb_len = cmd.cdb_len;
    memcpy(to.cdb, cmd.cdb, cmd.cdb_len);
    to.sense_len = cmd.sense_len;
    to.data_len = moves_data(cmd) ? cmd.data_len : 0;
    if (out) memcpy(to.data_buffer, data, out);
}

// Sends one SCSI command. On success `take` is called with the answer of the driver.
template <class Take>
Outcome exchange(const NativeDriver& driver, const trelm_priv_db* pdb, const dorfc_scsi_cmd& cmd,
                 const uint8_t* data, Take take) {
    trace_entry(driver, trelm::detail::kScsiCmd, pdb);
    Outcome outcome = {1, DRIVER_STATUS_INVALID, errno};
    if (cmd.cdb_len <= kScsiMaxCdb && !(moves_data(cmd) && cmd.data_len > kScsiMaxData)) {
        const trelm::detail::Pooled<kronfc_scsi_cmd_cb> wrapper;
        if (!wrapper) return no_memory(driver, trelm::detail::kScsiCmd, pdb);
        fill_scsi(*wrapper.get(), wrapper.cleared(), cmd, data);
        outcome = send(driver, trelm::detail::kScsiCmd, pdb, &wrapper->header);
        if (outcome.result == 0) take(wrapper->cmnd);
    }
    trace_exit(driver, trelm::detail::kScsiCmd, pdb, outcome.result);
    return outcome;
}

}  // namespace

uint32_t trelm::detail::native_find_all_instances(const NativeDriver& driver, uint32_t* start_inst) {
    int rc = vmk_MgmtUserInit(driver.signature, driver.cookie, driver.handle);
    if (rc) {
        error(driver.discovery_names.find_all, Piece(": vmk init failed. rc=", rc));
        return 1;
    }
    kronfc_hba_cnt_cb answer = {};
    invoke(driver, NATIVE_CB_HBA_COUNT, &answer);
    if (answer.status) {
        error(driver.discovery_names.find_all, ": get hba count failed.");
        return 1;
    }
    const int64_t hba_cnt =
        driver.signed_count ? answer.hba_cnt : int64_t{static_cast<uint32_t>(answer.hba_cnt)};
    trace(driver.discovery_names.find_all, Piece(": Got hba_count=", hba_cnt));

    uint32_t added = 0;
    for (uint32_t index = 0; index < kMaxInstances && index < hba_cnt; ++index) {
        Instance instance;
        if (!read_instance(driver, index, instance)) continue;
        switch (add_instance(driver, index, instance)) {
            case Added::kept:
                ++added;
                break;
            case Added::dropped:
                break;
            case Added::no_memory:
                release_registry();
                return 1;
        }
    }
    *start_inst = added;
    trace(driver.discovery_names.find_all, Piece(": found ", hba_cnt, 16),
          Piece(" instances, exiting rval=", 0, 16));
    return 0;
}

uint32_t trelm::detail::native_open_adapter(const NativeDriver& driver, trelm_priv_db* pdb, uint32_t instance,
                                            uint32_t* papi_handle) {
    trace(driver.open_name, ": entered.");
    if (!pdb || !pdb->hw_info) {
        error(driver.open_name, kNoRecord);
        return 1;
    }
    set_handle(*pdb->hw_info, instance + 1);
    ++pdb->hw_info->open_cnt;
    *papi_handle = instance + 1;
    trace(driver.open_name, ": exiting.");
    return 0;
}

uint32_t trelm::detail::native_close_adapter(const NativeDriver& driver, trelm_priv_db* pdb) {
    if (!pdb || !pdb->hw_info) {
        error(driver.close_name, kNoRecord);
        return 1;
    }
    trelm_hw_info& hw = *pdb->hw_info;
    trace_at(driver.close_name, hw.apihandle, "): entered.");
    if (hw.open_cnt == 0) return 0;
    if (--hw.open_cnt == 0) {
        hw.oshandle = -1;
        set_handle(hw, 0);
    }
    trace_at(driver.close_name, hw.apihandle, "): exiting.");
    return 0;
}

trelm::detail::Outcome trelm::detail::native_request(const NativeDriver& driver, NativeOperation operation,
                                                     const trelm_priv_db* pdb, void* payload, size_t wanted) {
    trace_entry(driver, operation, pdb);
    const Pooled<RequestRecord> request;
    if (!request) return no_memory(driver, operation, pdb);
    uint8_t* const body = request->body;
    memset(request.get(), 0, sizeof request->header + kRequests[operation].payload);
    if (operation == kTgtInfo) {
        constexpr size_t kAt = offsetof(kronfc_tgt_info, scsi_tgt_num);
        memcpy(body + kAt, static_cast<uint8_t*>(payload) + kAt, sizeof(kronfc_tgt_info::scsi_tgt_num));
    }
    const Outcome outcome = send(driver, operation, pdb, &request->header);
    if (outcome.result == 0) memcpy(payload, body, wanted);
    trace_exit(driver, operation, pdb, outcome.result);
    return outcome;
}

trelm::detail::Outcome trelm::detail::native_send_scsi_cmd(const NativeDriver& driver,
                                                           const trelm_priv_db* pdb, kronfc_scsi_cmd* pcmd) {
    const auto& lead = *reinterpret_cast<const dorfc_scsi_cmd*>(pcmd);
    const auto take = [pcmd](const kronfc_scsi_cmd& answer) { memcpy(pcmd, &answer, sizeof answer); };
    return exchange(driver, pdb, lead, pcmd->data_buffer, take);
}

trelm::detail::Outcome trelm::detail::native_exchange_scsi_cmd(const NativeDriver& driver,
                                                               const trelm_priv_db* pdb, dorfc_scsi_cmd* cmd,
                                                               uint8_t* data) {
    const uint32_t room = cmd->direction == SCSI_DIRECTION_IN ? cmd->data_len : 0;
    const auto take = [cmd, data, room](const kronfc_scsi_cmd& answer) {
        memcpy(cmd, &answer, kScsiLead);
        const uint32_t arrived = answer.data_len < room ? answer.data_len : room;
        if (arrived) memcpy(data, answer.data_buffer, arrived);
    };
    return exchange(driver, pdb, *cmd, data, take);
}
