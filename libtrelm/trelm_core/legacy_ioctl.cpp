// The transport to the legacy driver. Requests are ioctls on its character node. Each has a fixed block that
// points at the payload. One table holds what differs between the requests.

#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>

#include "legacy_driver.h"
#include "registry.h"
#include "trelm_dbg.h"
#include "trelm_system.h"

namespace {

using trelm::detail::error;
using trelm::detail::Piece;
using trelm::detail::trace;

struct RequestKind {
    dorfc_request_number number;
    const char* name;  // of the function that sends it
    const char* status_text;
    const char* errno_text;
};

constexpr RequestKind kHbaCount = {
    DORFC_GET_HBA_COUNT, "trelm_get_hba_count",
    ": Get HBA Count ioctl failed, ioctl_status=", ": Get HBA Count ioctl function failed, errno="};
constexpr RequestKind kHostNo = {
    DORFC_GET_HOSTNO, "trelm_get_hostno",
    ": Get Host number ioctl failed, ioctl_status=", ": Get Host number ioctl function failed, errno="};
constexpr RequestKind kPciInfo = {
    DORFC_GET_PCI_INFO, "trelm_get_pci_info",
    ": Get pci info ioctl failed, ioctl_status=", ": Get pci info ioctl function failed, errno="};
constexpr RequestKind kPortInfo = {
    DORFC_GET_PORT_INFO, "trelm_get_port_info",
    ": Get port info ioctl failed, ioctl_status=", ": Get port info ioctl function failed, errno="};
constexpr RequestKind kPortStats = {
    DORFC_GET_PORT_STATS, "trelm_get_port_stats",
    ": Get port stats ioctl failed, ioctl_status=", ": Get port stats ioctl function failed, errno="};
constexpr RequestKind kTgtInfo = {
    DORFC_GET_TGT_INFO, "trelm_get_tgt_info",
    ": Get tgt info ioctl failed, ioctl_status=", ": Get tgt info ioctl function failed, errno="};
constexpr RequestKind kFcfInfo = {
    DORFC_GET_FCF_INFO, "trelm_get_fcf_info",
    ": Get fcf info ioctl failed, ioctl_status=", ": Get fcf info ioctl function failed, errno="};
constexpr RequestKind kScsiCmd = {
    DORFC_SEND_SCSI_CMD, "trelm_send_scsi_cmd",
    ": send scsi cmd ioctl failed, ioctl_status=", ": send scsi cmd ioctl function failed, errno="};

// Sends a request. The status of the driver decides first, then the result of the call.
uint32_t issue(const RequestKind& request, int32_t handle, const trelm_priv_db* pdb, void* payload,
               uint32_t* stat) {
    dorfc_ioctl block;
    trelm_setup_ioctl_struct(0, payload, pdb, &block);
    const int rc = ioctl(handle, request.number, &block);
    *stat = block.status;
    if (block.status) {
        error(request.name, Piece(request.status_text, *stat));
        return 1;
    }
    if (rc) {
        error(request.name, Piece(request.errno_text, errno));
        return 1;
    }
    return 0;
}

// Sends a request for one port. `shown` is the number in its trace lines, in most cases the handle.
uint32_t issue_to_port(const RequestKind& request, uint32_t shown, int32_t handle, const trelm_priv_db* pdb,
                       void* payload, uint32_t* stat) {
    trace(request.name, Piece("(", shown), "): entered.");
    const uint32_t result = issue(request, handle, pdb, payload, stat);
    if (result == 0) trace(request.name, Piece("(", shown), "): exiting.");
    return result;
}

uint32_t issue_to_port(const RequestKind& request, int32_t handle, const trelm_priv_db* pdb, void* payload,
                       uint32_t* stat) {
    return issue_to_port(request, trelm::detail::handle_of(pdb), handle, pdb, payload, stat);
}

// Opens the node of a port that is closed. `err` receives the system error number of a failed open, which may
// be 0.
bool open_node(const char* func, trelm_hw_info& hw, uint32_t instance, uint32_t* err) {
    const int fd = trelm::detail::open_file(hw.phys_path, O_RDWR);
    if (fd == -1) {
        *err = static_cast<uint32_t>(errno);
        error(func, Piece("(", instance), Piece("): error opening adapter=", *err), Piece(", fd=", fd));
        return false;
    }
    hw.oshandle = fd;
    trelm::detail::set_handle(hw, instance + 1);
    return true;
}

}  // namespace

uint8_t trelm_charnode_exist(const char* charnode_name) {
    trace(__func__, ": entered.");
    if (!charnode_name) {
        error(__func__, ": invalid char node file.");
        return 1;
    }
    trelm::detail::Descriptor fd(trelm::detail::open_file(charnode_name, O_RDONLY));
    if (!fd) {
        error(__func__, ": file open failed.");
        return 1;
    }
    struct stat status;
    const bool is_node = fstat(fd.get(), &status) == 0 && S_ISCHR(status.st_mode);
    fd.reset();
    if (!is_node) {
        error(__func__, ": file not char node.");
        return 1;
    }
    trace(__func__, ": exiting.");
    return 0;
}

uint32_t trelm_setup_ioctl_struct(uint16_t subcmd, void* resp_ptr, const trelm_priv_db* pdb,
                                  dorfc_ioctl* pfcoe) {
    if (!pfcoe) return 1;
    *pfcoe = {.signature = "DORFC",
              .addrmode = 2,
              .version = 1,
              .subcode = subcmd,
              .status = 0,
              .hbaselect = pdb ? static_cast<uint16_t>(pdb->drvr_inst) : uint16_t{0},
              .ioctlstructaddr = trelm_ptr_to_64bit(resp_ptr),
              .reserved3 = {}};
    return 0;
}

uint32_t trelm_get_hba_count(int32_t handle, int32_t* hba_count) {
    trace(__func__, ": entered.");
    dorfc_hba_cnt payload = {};
    uint32_t stat = 0;
    if (issue(kHbaCount, handle, nullptr, &payload, &stat) != 0) return 1;
    *hba_count = payload.hba_cnt;
    trace(__func__, ": exiting.");
    return 0;
}

uint32_t trelm_get_hostno(trelm_priv_db* pdb, int32_t handle, uint32_t* host_no) {
    dorfc_hostno payload = {};
    uint32_t stat = 0;
    if (issue_to_port(kHostNo, pdb->drvr_inst, handle, pdb, &payload, &stat) != 0) return 1;
    *host_no = payload.host_no;
    return 0;
}

uint32_t trelm_get_port_info(int32_t handle, trelm_priv_db* pdb, dorfc_port_info* port_info, uint32_t* stat) {
    return issue_to_port(kPortInfo, handle, pdb, port_info, stat);
}

uint32_t trelm_get_pci_info(int32_t handle, trelm_priv_db* pdb, dorfc_pci_info* pci_info, uint32_t* stat) {
    return issue_to_port(kPciInfo, handle, pdb, pci_info, stat);
}

uint32_t trelm_get_port_stats(int32_t handle, trelm_priv_db* pdb, dorfc_port_stats* pstats, uint32_t* stat) {
    return issue_to_port(kPortStats, handle, pdb, pstats, stat);
}

uint32_t trelm_get_tgt_info(int32_t handle, trelm_priv_db* pdb, dorfc_tgt_info* ptgt, uint32_t* stat) {
    return issue_to_port(kTgtInfo, handle, pdb, ptgt, stat);
}

uint32_t trelm_get_fcf_info(int32_t handle, trelm_priv_db* pdb, dorfc_fcf_info* pfcf, uint32_t* stat) {
    return issue_to_port(kFcfInfo, handle, pdb, pfcf, stat);
}

uint32_t trelm_send_scsi_cmd(int32_t handle, trelm_priv_db* pdb, dorfc_scsi_cmd* pcmd, uint32_t* stat) {
    return issue_to_port(kScsiCmd, handle, pdb, pcmd, stat);
}

uint32_t trelm_open_adapter(trelm_priv_db* pdb, uint32_t* papi_handle, uint32_t* pret_err) {
    trace(__func__, ": entered.");
    uint32_t instance = 0;
    if (!pdb || !pdb->hw_info || trelm_get_instance_from_pdb(pdb, &instance) != 0) {
        error(__func__, ": get instance failed");
        return 1;
    }
    trelm_hw_info& hw = *pdb->hw_info;
    const bool is_open = hw.open_cnt || open_node(__func__, hw, instance, pret_err);
    if (is_open) {
        ++hw.open_cnt;
        *papi_handle = hw.apihandle;
        error(__func__, Piece("(", instance), "): opened adapter instance.");
    }
    const uint32_t result = is_open ? 0 : 1;
    trace(__func__, Piece(": exiting, rval=", result));
    return result;
}

uint32_t trelm_close_adapter(trelm_priv_db* pdb, uint32_t* perr) {
    if (!pdb || !pdb->hw_info) {
        error(__func__, trelm::detail::kNoRecord);
        return 1;
    }
    trelm_hw_info& hw = *pdb->hw_info;
    trace(__func__, Piece("(", hw.apihandle), "): entered.");
    uint32_t result = 0;
    if (hw.open_cnt == 1 && close(hw.oshandle) != 0) {
        *perr = static_cast<uint32_t>(errno);
        result = 1;
    } else if (hw.open_cnt && --hw.open_cnt == 0) {
        hw.oshandle = -1;
        trelm::detail::set_handle(hw, 0);
    }
    trace(__func__, Piece("(", hw.apihandle), Piece("): exiting, rval=", result));
    return result;
}
