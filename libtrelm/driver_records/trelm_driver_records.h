// trelm_driver_records.h - the records that are exchanged with the three kernel drivers. They are packed and
// little-endian. The drivers fix every size and offset. Names of the legacy driver begin with dorfc_, of the
// kron driver with kronfc_, of the driver of the pyx family with cx_fcoe_. Records with the same layout are
// one struct under several names.
#pragma once

#include <cstddef>
#include <cstdint>
#include <type_traits>

// Checks the size of a record and that it has a standard layout. TRELM_AT checks the offset of a field.
#define TRELM_RECORD(record, bytes) \
    static_assert(sizeof(record) == (bytes) && std::is_standard_layout_v<record> && std::is_trivial_v<record>)
#define TRELM_AT(record, field, at) static_assert(offsetof(record, field) == (at))

// Values of port_type in the port information.
enum fc_port_type : uint16_t {
    FC_PORTTYPE_UNKNOWN = 0,
    FC_PORTTYPE_OTHER = 1,
    FC_PORTTYPE_NOTPRESENT = 2,
    FC_PORTTYPE_NPORT = 3,
    FC_PORTTYPE_NLPORT = 4,
    FC_PORTTYPE_LPORT = 5,
    FC_PORTTYPE_PTP = 6,
    FC_PORTTYPE_NPIV = 7,  // a virtual port on a physical one
};

// The link state that the native drivers report.
enum fc_port_state : uint32_t {
    FC_PORTSTATE_ONLINE = 2,
    FC_PORTSTATE_OFFLINE = 3,
    FC_PORTSTATE_LINKDOWN = 7,
};

enum pci_bus_speed : uint32_t { PCIE_SPEED_2_5GT = 20, PCIE_SPEED_5_0GT = 21, PCIE_SPEED_8_0GT = 22 };

enum pcie_link_width : uint32_t {
    PCIE_LNK_X1 = 1,
    PCIE_LNK_X2 = 2,
    PCIE_LNK_X4 = 4,
    PCIE_LNK_X8 = 8,
    PCIE_LNK_X12 = 12,
    PCIE_LNK_X16 = 16,
    PCIE_LNK_X32 = 32,
};

// Statuses of drivers. The library sets 4 and 10 itself when it cannot send a request.
enum driver_status : uint32_t {
    DRIVER_STATUS_GOOD = 0,
    DRIVER_STATUS_INVALID = 4,  // the request is malformed
    DRIVER_STATUS_NO_SUCH_PORT = 7,
    DRIVER_STATUS_NO_MEMORY = 10,
    DRIVER_STATUS_DEVICE_OFFLINE = 13  // there is no target at this index
};

// Data direction of a SCSI command record. Any other value means that there is no data phase.
enum scsi_direction : uint8_t { SCSI_DIRECTION_NONE = 0, SCSI_DIRECTION_IN = 1, SCSI_DIRECTION_OUT = 2 };

inline constexpr uint32_t kScsiMaxData = 262144;  // bytes of data area in a native SCSI command record
inline constexpr uint32_t kScsiMaxCdb = 16;
inline constexpr uint32_t kScsiMaxSense = 256;

#pragma pack(push, 1)

// ---- Requests to the legacy driver

struct dorfc_ioctl {
    char signature[8];  // "DORFC", zero-padded
    uint16_t addrmode;  // 2
    uint16_t version;   // 1
    uint16_t subcode;   // 0
    uint32_t status;    // out: 0 success
    uint16_t hbaselect;
    uint64_t ioctlstructaddr;
    uint8_t reserved3[36];
};
TRELM_RECORD(dorfc_ioctl, 64);
TRELM_AT(dorfc_ioctl, addrmode, 8);
TRELM_AT(dorfc_ioctl, version, 10);
TRELM_AT(dorfc_ioctl, subcode, 12);
TRELM_AT(dorfc_ioctl, status, 14);
TRELM_AT(dorfc_ioctl, hbaselect, 18);
TRELM_AT(dorfc_ioctl, ioctlstructaddr, 20);
TRELM_AT(dorfc_ioctl, reserved3, 28);

// Request numbers: read and write, a 64-byte argument, type 'b', numbers 1 to 8.
constexpr uint32_t dorfc_request(uint32_t number) {
    return 0xC0000000u | (uint32_t{sizeof(dorfc_ioctl)} << 16) | (uint32_t{'b'} << 8) | number;
}
enum dorfc_request_number : uint32_t {
    DORFC_GET_HBA_COUNT = dorfc_request(1),
    DORFC_GET_HOSTNO = dorfc_request(2),
    DORFC_GET_PCI_INFO = dorfc_request(3),
    DORFC_GET_PORT_INFO = dorfc_request(4),
    DORFC_GET_PORT_STATS = dorfc_request(5),
    DORFC_GET_TGT_INFO = dorfc_request(6),
    DORFC_GET_FCF_INFO = dorfc_request(7),
    DORFC_SEND_SCSI_CMD = dorfc_request(8),
};
static_assert(DORFC_GET_HBA_COUNT == 0xC0406201u && DORFC_SEND_SCSI_CMD == 0xC0406208u);

struct dorfc_hba_cnt {
    int32_t hba_cnt;
    uint32_t reserved;
};
TRELM_RECORD(dorfc_hba_cnt, 8);
TRELM_AT(dorfc_hba_cnt, reserved, 4);

struct dorfc_hostno {
    uint32_t host_no;
    uint32_t reserved;
};
TRELM_RECORD(dorfc_hostno, 8);
TRELM_AT(dorfc_hostno, reserved, 4);

// ---- Payloads

struct dorfc_pci_info {
    uint16_t vendor_id;
    uint16_t device_id;
    uint16_t subvendor_id;
    uint16_t subsystem_id;
    uint16_t domain_num;
    uint16_t bus_num;
    uint16_t device_num;
    uint16_t function_num;
    uint16_t revision;
    uint16_t port_num;  // number of the port on its adapter
    uint32_t pcie_speed;
    uint32_t pcie_width;
    uint32_t chip_rev_id;  // native drivers; reserved in the legacy driver's
    uint8_t reserved[32];
};
using kronfc_pci_info = dorfc_pci_info;
using cx_fcoe_pci_info = dorfc_pci_info;
TRELM_RECORD(dorfc_pci_info, 64);
TRELM_AT(dorfc_pci_info, device_id, 2);
TRELM_AT(dorfc_pci_info, subvendor_id, 4);
TRELM_AT(dorfc_pci_info, subsystem_id, 6);
TRELM_AT(dorfc_pci_info, domain_num, 8);
TRELM_AT(dorfc_pci_info, bus_num, 10);
TRELM_AT(dorfc_pci_info, device_num, 12);
TRELM_AT(dorfc_pci_info, function_num, 14);
TRELM_AT(dorfc_pci_info, revision, 16);
TRELM_AT(dorfc_pci_info, port_num, 18);
TRELM_AT(dorfc_pci_info, pcie_speed, 20);
TRELM_AT(dorfc_pci_info, pcie_width, 24);
TRELM_AT(dorfc_pci_info, chip_rev_id, 28);
TRELM_AT(dorfc_pci_info, reserved, 32);

// The first fields of the port information of every driver.
#define TRELM_PORT_INFO_FIELDS \
    char manufacturer[64];     \
    char model_name[32];       \
    char model_desc[128];      \
    char serial_num[32];       \
    char driver_version[32];   \
    char driver_date[32];      \
    char driver_name[16];      \
    uint8_t driver_loaded;     \
    char fw_version[32];       \
    uint64_t wwnn;             \
    uint64_t wwpn;             \
    uint32_t portid;           \
    uint16_t port_type;        \
    uint32_t link_state;       \
    uint16_t port_sup_speed;   \
    uint16_t port_speed;       \
    uint8_t mac[6];            \
    uint32_t tgt_cnt;          \
    uint32_t fcf_cnt;          \
    uint32_t mtu;              \
    uint32_t vlan;             \
    uint32_t npiv_count;       \
    uint32_t npiv_index;

struct dorfc_port_info {
    TRELM_PORT_INFO_FIELDS
    char hba_name[32];
    uint8_t reserved[51];
};
using cx_fcoe_port_info = dorfc_port_info;

struct kronfc_port_info {
    TRELM_PORT_INFO_FIELDS
    uint32_t mfw_version;
    char hba_name[32];
    uint8_t reserved[47];
};
#undef TRELM_PORT_INFO_FIELDS

#define TRELM_PORT_INFO_OFFSETS(record)    \
    TRELM_RECORD(record, 512);             \
    TRELM_AT(record, model_name, 64);      \
    TRELM_AT(record, model_desc, 96);      \
    TRELM_AT(record, serial_num, 224);     \
    TRELM_AT(record, driver_version, 256); \
    TRELM_AT(record, driver_date, 288);    \
    TRELM_AT(record, driver_name, 320);    \
    TRELM_AT(record, driver_loaded, 336);  \
    TRELM_AT(record, fw_version, 337);     \
    TRELM_AT(record, wwnn, 369);           \
    TRELM_AT(record, wwpn, 377);           \
    TRELM_AT(record, portid, 385);         \
    TRELM_AT(record, port_type, 389);      \
    TRELM_AT(record, link_state, 391);     \
    TRELM_AT(record, port_sup_speed, 395); \
    TRELM_AT(record, port_speed, 397);     \
    TRELM_AT(record, mac, 399);            \
    TRELM_AT(record, tgt_cnt, 405);        \
    TRELM_AT(record, fcf_cnt, 409);        \
    TRELM_AT(record, mtu, 413);            \
    TRELM_AT(record, vlan, 417);           \
    TRELM_AT(record, npiv_count, 421);     \
    TRELM_AT(record, npiv_index, 425)
TRELM_PORT_INFO_OFFSETS(dorfc_port_info);
TRELM_PORT_INFO_OFFSETS(kronfc_port_info);
#undef TRELM_PORT_INFO_OFFSETS
TRELM_AT(dorfc_port_info, hba_name, 429);
TRELM_AT(dorfc_port_info, reserved, 461);
TRELM_AT(kronfc_port_info, mfw_version, 429);
TRELM_AT(kronfc_port_info, hba_name, 433);
TRELM_AT(kronfc_port_info, reserved, 465);

struct dorfc_port_stats {
    uint64_t rx_fcoe_frames;
    uint64_t rx_fcoe_bytes;
    uint64_t rx_fcp_frames;
    uint64_t tx_fcoe_frames;
    uint64_t tx_fcoe_bytes;
    uint64_t tx_fcp_frames;
    uint64_t fcoe_dropped_frames;
    uint64_t seq_dropped;
    uint64_t fc_crc_err_frames;
    uint64_t wrong_fcoe_ver_frames;
    uint64_t eofa_frames;
    uint64_t missing_frames;
    uint64_t seq_timeouts;
    uint64_t read_req;
    uint64_t write_req;
    uint64_t ctrl_req;
    uint64_t read_megabytes;
    uint64_t write_megabytes;
    uint64_t fip_vlan_negotiations;
    uint64_t fip_fabric_discoveries;
    uint64_t flogi_cnt;
    uint64_t fdisc_cnt;
    uint64_t ulp_tov_expirations;
    uint64_t rec_expirations;
    uint64_t abts_cnt;
    uint64_t srr_cnt;
    uint64_t reset_lun_cnt;
    uint64_t reset_tgt_cnt;
    uint64_t sess_level_recovery_cnt;
    uint64_t link_failures;
    uint64_t reserved[34];
};
using kronfc_port_stats = dorfc_port_stats;
using cx_fcoe_port_stats = dorfc_port_stats;
TRELM_RECORD(dorfc_port_stats, 512);
TRELM_AT(dorfc_port_stats, rx_fcoe_frames, 0);
TRELM_AT(dorfc_port_stats, rx_fcoe_bytes, 8);
TRELM_AT(dorfc_port_stats, rx_fcp_frames, 16);
TRELM_AT(dorfc_port_stats, tx_fcoe_frames, 24);
TRELM_AT(dorfc_port_stats, tx_fcoe_bytes, 32);
TRELM_AT(dorfc_port_stats, tx_fcp_frames, 40);
TRELM_AT(dorfc_port_stats, fcoe_dropped_frames, 48);
TRELM_AT(dorfc_port_stats, seq_dropped, 56);
TRELM_AT(dorfc_port_stats, fc_crc_err_frames, 64);
TRELM_AT(dorfc_port_stats, wrong_fcoe_ver_frames, 72);
TRELM_AT(dorfc_port_stats, eofa_frames, 80);
TRELM_AT(dorfc_port_stats, missing_frames, 88);
TRELM_AT(dorfc_port_stats, seq_timeouts, 96);
TRELM_AT(dorfc_port_stats, read_req, 104);
TRELM_AT(dorfc_port_stats, write_req, 112);
TRELM_AT(dorfc_port_stats, ctrl_req, 120);
TRELM_AT(dorfc_port_stats, read_megabytes, 128);
TRELM_AT(dorfc_port_stats, write_megabytes, 136);
TRELM_AT(dorfc_port_stats, fip_vlan_negotiations, 144);
TRELM_AT(dorfc_port_stats, fip_fabric_discoveries, 152);
TRELM_AT(dorfc_port_stats, flogi_cnt, 160);
TRELM_AT(dorfc_port_stats, fdisc_cnt, 168);
TRELM_AT(dorfc_port_stats, ulp_tov_expirations, 176);
TRELM_AT(dorfc_port_stats, rec_expirations, 184);
TRELM_AT(dorfc_port_stats, abts_cnt, 192);
TRELM_AT(dorfc_port_stats, srr_cnt, 200);
TRELM_AT(dorfc_port_stats, reset_lun_cnt, 208);
TRELM_AT(dorfc_port_stats, reset_tgt_cnt, 216);
TRELM_AT(dorfc_port_stats, sess_level_recovery_cnt, 224);
TRELM_AT(dorfc_port_stats, link_failures, 232);
TRELM_AT(dorfc_port_stats, reserved, 240);

struct dorfc_tgt_info {
    uint32_t scsi_bus_num;
    uint32_t scsi_tgt_num;  // in: index of the target, from 0
    uint64_t wwnn;
    uint64_t wwpn;
    uint32_t portid;
    uint16_t port_state;
    uint8_t reserved[34];
};
using kronfc_tgt_info = dorfc_tgt_info;
using cx_fcoe_tgt_info = dorfc_tgt_info;
TRELM_RECORD(dorfc_tgt_info, 64);
TRELM_AT(dorfc_tgt_info, scsi_tgt_num, 4);
TRELM_AT(dorfc_tgt_info, wwnn, 8);
TRELM_AT(dorfc_tgt_info, wwpn, 16);
TRELM_AT(dorfc_tgt_info, portid, 24);
TRELM_AT(dorfc_tgt_info, port_state, 28);
TRELM_AT(dorfc_tgt_info, reserved, 30);

struct dorfc_fcf_info {
    uint32_t fcf_num;
    uint64_t switch_name;
    uint64_t fabric_name;
    uint32_t fc_map;
    uint16_t vfid;
    uint8_t fcf_mac[6];
    uint8_t fcoe_mac[6];
    uint8_t flogi_sent;
    uint8_t priority;
    uint16_t flags;
    uint32_t ka_timeout;
    uint8_t fcf_selected;
    uint8_t reserved[17];
};
using kronfc_fcf_info = dorfc_fcf_info;
using cx_fcoe_fcf_info = dorfc_fcf_info;
TRELM_RECORD(dorfc_fcf_info, 64);
TRELM_AT(dorfc_fcf_info, switch_name, 4);
TRELM_AT(dorfc_fcf_info, fabric_name, 12);
TRELM_AT(dorfc_fcf_info, fc_map, 20);
TRELM_AT(dorfc_fcf_info, vfid, 24);
TRELM_AT(dorfc_fcf_info, fcf_mac, 26);
TRELM_AT(dorfc_fcf_info, fcoe_mac, 32);
TRELM_AT(dorfc_fcf_info, flogi_sent, 38);
TRELM_AT(dorfc_fcf_info, priority, 39);
TRELM_AT(dorfc_fcf_info, flags, 40);
TRELM_AT(dorfc_fcf_info, ka_timeout, 42);
TRELM_AT(dorfc_fcf_info, fcf_selected, 46);
TRELM_AT(dorfc_fcf_info, reserved, 47);

// The first fields of the SCSI command of every driver.
#define TRELM_SCSI_CMD_FIELDS     \
    uint32_t lun_ext;             \
    uint32_t tgt;                 \
    uint32_t lun;                 \
    uint8_t direction;            \
    uint8_t cdb_len;              \
    uint8_t cdb[kScsiMaxCdb];     \
    uint16_t sense_len;           \
    uint8_t sense[kScsiMaxSense]; \
    uint32_t data_len;

struct dorfc_scsi_cmd {
    TRELM_SCSI_CMD_FIELDS
    uint64_t data_addr;  // of the buffer that the driver reads or writes in place
    uint8_t reserved[20];
};

struct kronfc_scsi_cmd {
    TRELM_SCSI_CMD_FIELDS
    uint8_t data_buffer[kScsiMaxData];  // the data itself
};
using cx_fcoe_scsi_cmd = kronfc_scsi_cmd;
#undef TRELM_SCSI_CMD_FIELDS

#define TRELM_SCSI_CMD_OFFSETS(record) \
    TRELM_AT(record, tgt, 4);          \
    TRELM_AT(record, lun, 8);          \
    TRELM_AT(record, direction, 12);   \
    TRELM_AT(record, cdb_len, 13);     \
    TRELM_AT(record, cdb, 14);         \
    TRELM_AT(record, sense_len, 30);   \
    TRELM_AT(record, sense, 32);       \
    TRELM_AT(record, data_len, 288)
TRELM_SCSI_CMD_OFFSETS(dorfc_scsi_cmd);
TRELM_SCSI_CMD_OFFSETS(kronfc_scsi_cmd);
#undef TRELM_SCSI_CMD_OFFSETS
TRELM_RECORD(dorfc_scsi_cmd, 320);
TRELM_AT(dorfc_scsi_cmd, data_addr, 292);
TRELM_AT(dorfc_scsi_cmd, reserved, 300);
TRELM_RECORD(kronfc_scsi_cmd, 262436);
TRELM_AT(kronfc_scsi_cmd, data_buffer, 292);

// ---- What the callbacks of the native drivers take: the payloads behind a header

struct kronfc_hba_cnt_cb {
    int32_t hba_cnt;
    int32_t status;
};
TRELM_RECORD(kronfc_hba_cnt_cb, 8);
TRELM_AT(kronfc_hba_cnt_cb, status, 4);

struct cx_fcoe_hba_cnt_cb {
    uint32_t hba_cnt;
    uint32_t status;
};
TRELM_RECORD(cx_fcoe_hba_cnt_cb, 8);
TRELM_AT(cx_fcoe_hba_cnt_cb, status, 4);

struct kronfc_hostno_cb {
    uint64_t inst;  // in
    uint32_t host_no;
    uint32_t status;
};
using cx_fcoe_hostno_cb = kronfc_hostno_cb;
TRELM_RECORD(kronfc_hostno_cb, 16);
TRELM_AT(kronfc_hostno_cb, host_no, 8);
TRELM_AT(kronfc_hostno_cb, status, 12);

// The header of the callbacks for one port.
struct native_cb_header {
    uint32_t host_no;  // in
    uint32_t status;   // out: 0 success
};
TRELM_RECORD(native_cb_header, 8);
TRELM_AT(native_cb_header, status, 4);

#define TRELM_PORT_CALLBACK(record, payload_type, payload, bytes) \
    struct record {                                               \
        native_cb_header header;                                  \
        payload_type payload;                                     \
    };                                                            \
    TRELM_RECORD(record, bytes);                                  \
    TRELM_AT(record, payload, 8)
TRELM_PORT_CALLBACK(kronfc_pci_info_cb, kronfc_pci_info, pci, 72);
TRELM_PORT_CALLBACK(kronfc_port_info_cb, kronfc_port_info, port, 520);
TRELM_PORT_CALLBACK(cx_fcoe_port_info_cb, cx_fcoe_port_info, port, 520);
TRELM_PORT_CALLBACK(kronfc_port_stats_cb, kronfc_port_stats, stats, 520);
TRELM_PORT_CALLBACK(kronfc_tgt_info_cb, kronfc_tgt_info, tgt, 72);
TRELM_PORT_CALLBACK(kronfc_fcf_info_cb, kronfc_fcf_info, fcf, 72);
TRELM_PORT_CALLBACK(kronfc_scsi_cmd_cb, kronfc_scsi_cmd, cmnd, 262444);
#undef TRELM_PORT_CALLBACK
using cx_fcoe_pci_info_cb = kronfc_pci_info_cb;
using cx_fcoe_port_stats_cb = kronfc_port_stats_cb;
using cx_fcoe_tgt_info_cb = kronfc_tgt_info_cb;
using cx_fcoe_fcf_info_cb = kronfc_fcf_info_cb;
using cx_fcoe_scsi_cmd_cb = kronfc_scsi_cmd_cb;

#pragma pack(pop)

// Callbacks of the native drivers' management APIs.
enum native_callback : uint64_t {
    NATIVE_CB_HBA_COUNT = 16,
    NATIVE_CB_HOSTNO = 17,
    NATIVE_CB_PCI_INFO = 18,
    NATIVE_CB_PORT_INFO = 19,
    NATIVE_CB_PORT_STATS = 20,
    NATIVE_CB_TGT_INFO = 21,
    NATIVE_CB_FCF_INFO = 22,
    NATIVE_CB_SCSI_CMD = 23,
};

#undef TRELM_RECORD
#undef TRELM_AT
