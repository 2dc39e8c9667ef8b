// Adapter and port information.

#include <cstring>

#include "port_call.h"
#include "transport.h"

namespace {

using trelm::detail::Call;
using trelm::detail::fail_call;
using trelm::detail::fail_request;
using trelm::detail::kEntered;
using trelm::detail::kExiting;
using trelm::detail::kInvalidParameter;
using trelm::detail::kNoPort;
using trelm::detail::PortCall;
using trelm::detail::PortStatus;
using trelm::detail::trace_call;

struct Conversion {
    uint32_t from;
    uint32_t to;
};

// Link rate in tenths of GT/s.
constexpr Conversion kPcieSpeeds[] = {{PCIE_SPEED_2_5GT, 25}, {PCIE_SPEED_5_0GT, 50}, {PCIE_SPEED_8_0GT, 80}};
// Width codes. Twelve lanes have no code.
constexpr Conversion kPcieWidths[] = {{PCIE_LNK_X1, 3}, {PCIE_LNK_X2, 4},  {PCIE_LNK_X4, 5},
                                      {PCIE_LNK_X8, 6}, {PCIE_LNK_X16, 8}, {PCIE_LNK_X32, 9}};
constexpr uint32_t kMediaType = 4;

template <size_t Rows>
uint32_t convert(const Conversion (&table)[Rows], uint32_t value) {
    for (const Conversion& row : table) {
        if (row.from == value) return row.to;
    }
    return 0;
}

template <size_t Width>
void copy_text(uint8_t (&to)[Width], const char (&from)[Width]) {
    memcpy(to, from, Width);
}

// World-wide names are numbers in the registry and bytes in public records.
void copy_wwn(uint8_t (&to)[8], uint64_t from) {
    const uint64_t bytes = __builtin_bswap64(from);
    memcpy(to, &bytes, sizeof bytes);
}

// Four numbers of at least two digits each, "08.37.30.00". Not with snprintf(), which takes several times as
// long as the rest of a call.
void write_mfw_version(uint8_t (&to)[32], uint32_t version) {
    char text[sizeof to] = {};
    char* at = text;
    for (int shift = 24; shift >= 0; shift -= 8) {
        const uint32_t number = version >> shift & 0xFF;
        if (number >= 100) *at++ = static_cast<char>('0' + number / 100);
        *at++ = static_cast<char>('0' + number / 10 % 10);
        *at++ = static_cast<char>('0' + number % 10);
        if (shift) *at++ = '.';
    }
    copy_text(to, text);
}

void fill_version_2(TRELM_FCOE_INFO& info, const trelm_hw_info& hw) {
    info.PCIESpeed = convert(kPcieSpeeds, hw.pcie_speed);
    info.PCIEWidth = convert(kPcieWidths, hw.pcie_width);
    info.ChipRevId = hw.chip_rev_id;
    info.MediaType = kMediaType;
    if (trelm::detail::transport_of(&hw).reports_mfw_version)
        write_mfw_version(info.MFWVersion, hw.mfw_version);
}

void fill(TRELM_FCOE_INFO& info, const trelm_priv_db& pdb, const trelm_hw_info& hw) {
    copy_text(info.ModelName, hw.model_name);
    copy_text(info.ModelDesc, hw.model_desc);
    copy_text(info.DriverVersion, hw.driver_version);
    copy_text(info.DriverDate, hw.driver_date);
    copy_text(info.DriverName, hw.driver_name);
    info.DriverLoaded = hw.driver_loaded;
    memcpy(info.MAC, pdb.mac, sizeof info.MAC);
    copy_wwn(info.WWNN, pdb.wwnn);
    copy_wwn(info.WWPN, pdb.wwpn);
    info.MTU = pdb.mtu;
    info.VlanID = pdb.vlan;
    info.PciBusNum = hw.pci_bus;
    info.PciDeviceNum = hw.pci_dev;
    info.PciFunctionNum = hw.pci_func;
    info.VendorID = hw.vendor_id;
    info.DeviceID = hw.device_id;
    info.SubVendorID = hw.ssvendor_id;
    info.SubSystemID = hw.ssdevice_id;
    info.PciDomainNum = hw.pci_domain;
    info.PciRevision = hw.pci_rev;
    info.PhyPortNum = hw.phy_port_number;
    copy_text(info.FWVersion, hw.fw_version);
    info.NpivCount = hw.npiv_count;
}

// Access to fields that other threads read and write at the same time.
template <class Field>
Field load(const Field& field) {
    return __atomic_load_n(&field, __ATOMIC_RELAXED);
}
template <class Field>
void store(Field& field, Field value) {
    __atomic_store_n(&field, value, __ATOMIC_RELAXED);
}

bool is_up_to_date(const trelm_priv_db& pdb, const PortStatus& now) {
    return load(pdb.port_id) == now.port_id && load(pdb.port_state) == now.port_state &&
           load(pdb.port_sup_speed) == now.port_sup_speed && load(pdb.port_speed) == now.port_speed &&
           load(pdb.tgt_cnt) == now.tgt_cnt;
}

// Writes an answer of a driver into the registry as a whole: the answers of two threads do not mix. Unchanged
// values are not written, so threads that poll the same port do not contend for the lock.
void refresh(trelm_priv_db& pdb, const PortStatus& now) {
    if (is_up_to_date(pdb, now)) return;
    const trelm::detail::RecordLock lock;
    if (!lock) return;
    store(pdb.port_id, now.port_id);
    store(pdb.port_state, now.port_state);
    store(pdb.port_sup_speed, now.port_sup_speed);
    store(pdb.port_speed, now.port_speed);
    store(pdb.tgt_cnt, now.tgt_cnt);
}

void fill(TRELM_VNPORT_INFO& info, const trelm_priv_db& pdb, const PortStatus& status,
          const dorfc_fcf_info& fcf) {
    copy_wwn(info.WWNN, pdb.wwnn);
    copy_wwn(info.WWPN, pdb.wwpn);
    copy_wwn(info.ParentWWPN, pdb.parent ? pdb.parent->wwpn : pdb.wwpn);
    copy_wwn(info.FabricName, fcf.fabric_name);
    memcpy(info.FcfMAC, fcf.fcf_mac, sizeof info.FcfMAC);
    info.FCMap = fcf.fc_map;
    info.FabricPriority = fcf.priority;
    info.KeepAliveTimeout = fcf.ka_timeout;
    copy_wwn(info.SwitchName, fcf.switch_name);
    info.PortFCID = status.port_id;
    info.FabricVlan = static_cast<uint16_t>(pdb.vlan);
    info.PortType = pdb.port_type == FC_PORTTYPE_NPIV ? TRELM_PORTTYPE_NPIV : TRELM_PORTTYPE_PHYSICAL;
    info.PortSpeed = status.port_speed;
    info.PortState = public_port_state(trelm::detail::transport_of(pdb.hw_info), status.port_state);
    info.PortSupportedSpeed = status.port_sup_speed;
    info.TgtCount = status.tgt_cnt;
    info.FcfCount = pdb.fcf_cnt;
    info.NpivIndex = pdb.npiv_index;
}

}  // namespace

uint32_t TRELM_GetFcoeInfo(uint32_t Handle, TRELM_FCOE_INFO* pFcoeInfo) {
    trace_call(__func__, Handle, kEntered);
    const Call call;
    const trelm_priv_db* pdb = call ? trelm_get_pdb_from_user_handle(Handle) : nullptr;
    if (!pdb) return fail_call(__func__, Handle, kNoPort, TRELM_STATUS_FAILED);
    if (!pFcoeInfo) return fail_call(__func__, Handle, kInvalidParameter, TRELM_STATUS_INVALID_PARAMETER);
    if (pFcoeInfo->Version == 2) fill_version_2(*pFcoeInfo, *pdb->hw_info);
    fill(*pFcoeInfo, *pdb, *pdb->hw_info);
    trace_call(__func__, Handle, {kExiting, TRELM_STATUS_OK});
    return TRELM_STATUS_OK;
}

uint32_t TRELM_GetVNPortInfo(uint32_t Handle, uint32_t NpivIndex, TRELM_VNPORT_INFO* pVNPortInfo) {
    trace_call(__func__, Handle, kEntered);
    if (!pVNPortInfo) return fail_call(__func__, Handle, kInvalidParameter, TRELM_STATUS_INVALID_PARAMETER);
    PortCall call(Handle, NpivIndex);
    trelm_priv_db* const pdb = call.port();
    if (!pdb) return fail_call(__func__, Handle, kNoPort, TRELM_STATUS_FAILED);

    const trelm::detail::Transport& transport = trelm::detail::transport_of(pdb->hw_info);
    if (transport.calling_port_info) trace_call(__func__, Handle, transport.calling_port_info);
    PortStatus status;
    trelm::detail::Outcome outcome = ask_port_status(transport, pdb, status);
    if (outcome.failed()) return fail_request(__func__, Handle, "): port info failed, stat=", outcome);
    refresh(*pdb, status);

    dorfc_fcf_info fcf = {};
    if (pdb->fcf_cnt != 0) {
        if (transport.calling_fcf_info) trace_call(__func__, Handle, transport.calling_fcf_info);
        outcome = ask_fcf_info(transport, pdb, &fcf);
        if (outcome.failed()) return fail_request(__func__, Handle, "): fcf info failed, stat=", outcome);
    }
    if (pVNPortInfo->Version == 2) copy_text(pVNPortInfo->HbaName, pdb->hba_name);
    fill(*pVNPortInfo, *pdb, status, fcf);
    trace_call(__func__, Handle, {kExiting, TRELM_STATUS_OK});
    return TRELM_STATUS_OK;
}
