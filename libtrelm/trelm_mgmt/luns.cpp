// Listing and describing the LUNs of a target.

#include <cstring>

#include "port_call.h"
#include "scsi_commands.h"
#include "trelm_owners.h"

namespace {

using trelm::detail::fail_call;
using trelm::detail::LunAddress;
using trelm::detail::Piece;
using trelm::detail::PortCall;
using trelm::detail::read_be32;
using trelm::detail::read_be64;
using trelm::detail::send;

constexpr char kFunction[] = "TRELM_GetLunInfo";

constexpr uint32_t kInquiryRoom = 256;
constexpr uint32_t kCapacityRoom = 32;
constexpr uint32_t kTooLargeFor10 =
    0xFFFFFFFF;  // READ CAPACITY(10) returns this for devices that need READ CAPACITY(16)

// Standard INQUIRY data.
struct trelm_scsi_inq_data {
    uint8_t peripheral_device_type;
    uint8_t rmb;
    uint8_t version;
    uint8_t resp_data_format;
    uint8_t add_len;
    uint8_t sccs_reserved;
    uint8_t flags1;
    uint8_t flags2;
    uint8_t vendor_id[8];
    uint8_t product_id[16];
    uint8_t product_rev[4];
};
static_assert(sizeof(trelm_scsi_inq_data) == 36 && offsetof(trelm_scsi_inq_data, vendor_id) == 8 &&
              offsetof(trelm_scsi_inq_data, product_id) == 16 &&
              offsetof(trelm_scsi_inq_data, product_rev) == 32);

// A list entry has four levels of two bytes. The first level becomes the lowest 16 bits.
uint32_t two_levels(const uint8_t* bytes) {
    return uint32_t{bytes[2]} << 24 | uint32_t{bytes[3]} << 16 | uint32_t{bytes[0]} << 8 | bytes[1];
}

uint32_t fail_lun(const PortCall& call, const LunAddress& lun, const char* text, uint32_t status) {
    trelm::detail::error(kFunction, Piece("(", call.handle()), Piece(text, lun.lun, 16),
                         Piece(", rval=", status, 16));
    return status;
}

uint32_t fail_capacity(const PortCall& call, const LunAddress& lun, uint32_t status) {
    return fail_lun(call, lun, "): scsi read capacity cmd failed for lun=", status);
}

// The capacity in bytes.
uint32_t measure(PortCall& call, const LunAddress& lun, uint64_t& capacity) {
    uint8_t data[kCapacityRoom];
    uint32_t status = send(call, trelm::detail::kReadCapacity10, lun, data);
    if (status != TRELM_STATUS_OK) return fail_capacity(call, lun, status);
    uint64_t last_block = read_be32(data);
    uint32_t block_length = read_be32(data + 4);
    if (last_block == kTooLargeFor10) {
        trelm::detail::error_call(kFunction, call.handle(),
                                  {"): trying read capacity(16) cmd for lun=", lun.lun, 16});
        status = send(call, trelm::detail::kReadCapacity16, lun, data);
        if (status != TRELM_STATUS_OK) return fail_capacity(call, lun, status);
        last_block = read_be64(data);
        block_length = read_be32(data + 8);
    }
    capacity = (last_block + 1) * block_length;
    return TRELM_STATUS_OK;
}

// Fills the element at `info`. Elements of an earlier version have no room for the last field.
uint32_t describe(PortCall& call, const LunAddress& lun, bool version_2, TRELM_LUN_INFO* info) {
    uint8_t data[kInquiryRoom];
    uint32_t status = send(call, trelm::detail::kInquiry, lun, data);
    if (status != TRELM_STATUS_OK)
        return fail_lun(call, lun, "): send scsi inquiry cmd failed for lun=", status);
    uint64_t capacity = 0;
    status = measure(call, lun, capacity);
    if (status != TRELM_STATUS_OK) return status;

    trelm_scsi_inq_data inquiry;
    memcpy(&inquiry, data, sizeof inquiry);
    if (version_2) info->ScsiLunNumExt = lun.lun_ext;
    info->ScsiLunNum = lun.lun;
    info->Capacity = capacity;
    info->DeviceType = inquiry.peripheral_device_type;
    memcpy(info->VendorName, inquiry.vendor_id, sizeof inquiry.vendor_id);
    memcpy(info->ProductName, inquiry.product_id, sizeof inquiry.product_id);
    memcpy(info->ProductRevision, inquiry.product_rev, sizeof inquiry.product_rev);
    return TRELM_STATUS_OK;
}

}  // namespace

uint32_t TRELM_GetLunInfo(uint32_t Handle, uint32_t NpivIndex, uint32_t ScsiTgtNum, uint32_t* pLunCount,
                          TRELM_LUN_INFO** pLunInfo) {
    trelm::detail::trace(kFunction, Piece("(", Handle), Piece("): entered for NPIV=", NpivIndex),
                         Piece(" and LunCount=", pLunCount ? *pLunCount : 0));
    if (ScsiTgtNum >= TRELM_MAX_TARGETS || !pLunCount || *pLunCount == 0 || !pLunInfo || !*pLunInfo) {
        return fail_call(kFunction, Handle, trelm::detail::kInvalidParameter, TRELM_STATUS_INVALID_PARAMETER);
    }
    const trelm::detail::Heap<uint8_t> data(trelm::detail::kReportLunsRoom);
    if (!data) return fail_call(kFunction, Handle, trelm::detail::kNoDataBuffer, TRELM_STATUS_NO_MEMORY);
    PortCall call(Handle, NpivIndex);
    LunAddress lun = {ScsiTgtNum, 0, 0};
    uint32_t status = send(call, trelm::detail::kReportLuns, lun, data.get());
    if (status != TRELM_STATUS_OK) {
        return fail_call(kFunction, Handle, {"): send scsi report luns cmd failed, rval=", status, 16},
                         status);
    }
    const uint32_t announced = trelm::detail::announced_luns(data.get());
    const uint32_t luns = announced < trelm::detail::kMaxLuns ? announced : trelm::detail::kMaxLuns;
    if (luns > *pLunCount) {
        *pLunCount = luns;
        return fail_call(kFunction, Handle, "): invalid Lun Count value.", TRELM_STATUS_INSUFFICIENT_BUFFER);
    }

    const uint32_t version = (*pLunInfo)->Version;
    auto* element = reinterpret_cast<uint8_t*>(*pLunInfo);
    const uint8_t* entry = data.get() + trelm::detail::kReportLunsHeader;
    for (uint32_t i = 0; i < luns;
         ++i, entry += trelm::detail::kLunEntry, element += TRELM_LUN_INFO_STRIDE(version)) {
        lun.lun = two_levels(entry);
        lun.lun_ext = two_levels(entry + 4);
        status = describe(call, lun, version == 2, reinterpret_cast<TRELM_LUN_INFO*>(element));
        if (status != TRELM_STATUS_OK) return status;
    }
    trelm::detail::trace_call(kFunction, Handle, {trelm::detail::kExiting, TRELM_STATUS_OK});
    return TRELM_STATUS_OK;
}
