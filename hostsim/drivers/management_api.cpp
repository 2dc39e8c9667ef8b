// management_api.cpp - connections and callbacks. A signature must equal that of the driver in every field,
// as in a kernel: a wrong size would overrun a buffer. The driver works on a copy of the payload.
#include "management_api.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <span>
#include <string_view>
#include <vector>

#include "failed_call.h"
#include "trelm_driver_records.h"

namespace hostsim {
namespace {

struct Callback {
    uint64_t id;
    uint64_t size;        // of its one parameter
    Operation operation;  // meaningless if not invocable
    bool invocable;
};

constexpr std::array kCallbacks{
    Callback{NATIVE_CB_HBA_COUNT, sizeof(kronfc_hba_cnt_cb), Operation::hba_count, true},
    Callback{NATIVE_CB_HOSTNO, sizeof(kronfc_hostno_cb), Operation::hostno, true},
    Callback{NATIVE_CB_PCI_INFO, sizeof(kronfc_pci_info_cb), Operation::pci_info, true},
    Callback{NATIVE_CB_PORT_INFO, sizeof(kronfc_port_info_cb), Operation::port_info, true},
    Callback{NATIVE_CB_PORT_STATS, sizeof(kronfc_port_stats_cb), Operation::port_stats, true},
    Callback{NATIVE_CB_TGT_INFO, sizeof(kronfc_tgt_info_cb), Operation::tgt_info, true},
    Callback{NATIVE_CB_FCF_INFO, sizeof(kronfc_fcf_info_cb), Operation::fcf_info, true},
    Callback{NATIVE_CB_SCSI_CMD, sizeof(kronfc_scsi_cmd_cb), Operation::scsi, true},
    Callback{24, 24, Operation::init, false},
    Callback{25, 262172, Operation::init, false},
};

// A driver's management API.
struct Api {
    std::string_view name;
    DriverKind driver;
    uint64_t cookie;
    std::span<const Callback> callbacks;
};

constexpr uint32_t kApiVersion = 0x01000000;
constexpr std::string_view kVendor = "Calvexa";
const std::array kApis{
    Api{"kronnativefc", DriverKind::kron, 501, kCallbacks},
    Api{"cx_fcoe", DriverKind::pyx, 601, std::span(kCallbacks).first(8)},
};

// A name is padded with zeros to the width of its field.
bool is_name(const vmk_Name& field, std::string_view name) {
    std::array<char, sizeof field.string> expected{};
    name.copy(expected.data(), expected.size());
    return std::memcmp(field.string, expected.data(), expected.size()) == 0;
}

bool agrees(const vmk_MgmtCallbackInfo& given, const Callback& own) {
    if (given.location != VMK_MGMT_CALLBACK_KERNEL || given.callback || given.synchronous != 1) return false;
    if (given.numParms != 1 || given.callbackId != own.id) return false;
    if (given.parmSizes[0] != own.size || given.parmTypes[0] != VMK_MGMT_PARMTYPE_INOUT) return false;
    const auto is_zero = [](auto value) { return value == 0; };
    return std::all_of(given.parmSizes + 1, std::end(given.parmSizes), is_zero) &&
           std::all_of(given.parmTypes + 1, std::end(given.parmTypes), is_zero);
}

bool agrees(const vmk_MgmtApiSignature& given, const Api& api) {
    return given.version == kApiVersion && is_name(given.vendor, kVendor) &&
           given.numCallbacks == api.callbacks.size() && given.callbacks &&
           std::equal(
               api.callbacks.begin(), api.callbacks.end(), given.callbacks,
               [](const Callback& own, const vmk_MgmtCallbackInfo& info) { return agrees(info, own); });
}

const Api* find_api(const vmk_Name& name) {
    const auto found =
        std::find_if(kApis.begin(), kApis.end(), [&](const Api& api) { return is_name(name, api.name); });
    return found == kApis.end() ? nullptr : &*found;
}

const Callback* find_callback(DriverKind driver, uint64_t id) {
    for (const Api& api : kApis) {
        if (api.driver != driver) continue;
        for (const Callback& callback : api.callbacks) {
            if (callback.id == id) return &callback;
        }
    }
    return nullptr;
}

int refuse(int error) {
    errno = error;
    return error;
}

// The layout of the record of a callback. All but two begin with a header of host number and status.
struct Layout {
    size_t port = 0;  // of the field for the port; both 0 if there is none
    size_t port_width = 0;
    size_t status = 0;
    size_t payload = 0;
    size_t payload_size = 0;
};

Layout layout_of(DriverKind driver, Operation operation) {
    const size_t size = payload_size(driver, operation);
    if (operation == Operation::hba_count) {
        return {.status = offsetof(kronfc_hba_cnt_cb, status), .payload_size = size};
    }
    if (operation == Operation::hostno) {
        return {.port_width = sizeof(uint64_t),
                .status = offsetof(kronfc_hostno_cb, status),
                .payload = offsetof(kronfc_hostno_cb, host_no),
                .payload_size = size};
    }
    return {.port_width = sizeof(uint32_t),
            .status = offsetof(native_cb_header, status),
            .payload = sizeof(native_cb_header),
            .payload_size = size};
}

// The first handle. Far from 0, so that a program that passes an index instead of a handle fails.
constexpr vmk_MgmtUserHandle kFirstHandle = 0x43100001;

}  // namespace

int ManagementApi::init(const vmk_MgmtApiSignature* signature, uint64_t cookie, vmk_MgmtUserHandle* handle) {
    if (!signature || !handle) return refuse(EFAULT);
    const Api* const api = find_api(signature->name);
    if (!api || !is_present(pipeline_.model, api->driver)) return refuse(ENOENT);
    if (cookie != api->cookie || !agrees(*signature, *api)) return refuse(EINVAL);
    const Completion completion = pipeline_.pass(api->driver, Operation::init, cookie);
    if (completion.result) return fail_with(completion.error);
    if (completion.status) return static_cast<int>(completion.status);
    *handle = kFirstHandle + connections_.size();
    connections_.emplace(*handle, api->driver);
    return 0;
}

int ManagementApi::invoke(vmk_MgmtUserHandle handle, uint64_t instance, uint64_t callback,
                          uint32_t parameter_count, void* const* parameters) {
    const auto connection = connections_.find(handle);
    if (connection == connections_.end()) return fail_with(EBADF);
    if (!is_present(pipeline_.model, connection->second)) return fail_with(ENODEV);
    const Callback* const known = find_callback(connection->second, callback);
    if (!known || instance != 0 || parameter_count != 1) return fail_with(EINVAL);
    if (!known->invocable) return fail_with(EOPNOTSUPP);
    if (!parameters[0]) return fail_with(EFAULT);
    return run(connection->second, callback, parameters[0]);
}

int ManagementApi::run(DriverKind driver, uint64_t id, void* parameter) {
    const Callback& callback = *find_callback(driver, id);
    const Layout layout = layout_of(driver, callback.operation);
    std::vector<uint8_t> record(static_cast<size_t>(callback.size));
    std::memcpy(record.data(), parameter, record.size());
    uint64_t port = 0;
    std::memcpy(&port, record.data() + layout.port, layout.port_width);
    const bool is_scsi = callback.operation == Operation::scsi;
    const std::span<uint8_t> payload = std::span(record).subspan(layout.payload, layout.payload_size);
    const Completion completion = pipeline_.serve({
        .driver = driver,
        .operation = callback.operation,
        .number = id,
        .port = port,
        .port_is_index = callback.operation == Operation::hostno,
        .record = record,
        .payload = payload,
        .data = is_scsi ? payload.subspan(offsetof(kronfc_scsi_cmd, data_buffer)) : std::span<uint8_t>{},
    });
    std::memcpy(record.data() + layout.status, &completion.status, sizeof completion.status);
    if (completion.result == 0 || completion.status != 0)
        std::memcpy(parameter, record.data(), record.size());
    if (completion.result != 0) errno = completion.error;
    return completion.result;
}

}  // namespace hostsim
