// The drivers, behind the same two entry points that the library calls: the management interface and ioctl().

#include "drivers.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

#include "vmkmgmt.h"

namespace bench {
namespace {

constexpr size_t kHeader = sizeof(native_cb_header);
constexpr size_t kKernelMemory = 512 * 1024;
constexpr uint64_t kKronCookie = 501;
constexpr uint64_t kNativeToNumber = NATIVE_CB_HBA_COUNT - static_cast<uint64_t>(RequestNumber::hba_count);

struct RecordSize {
    size_t native;
    size_t legacy;
};
constexpr RecordSize kSizes[] = {
    {},
    {sizeof(kronfc_hba_cnt_cb), sizeof(dorfc_hba_cnt)},
    {sizeof(kronfc_hostno_cb), sizeof(dorfc_hostno)},
    {sizeof(kronfc_pci_info_cb), sizeof(dorfc_pci_info)},
    {sizeof(kronfc_port_info_cb), sizeof(dorfc_port_info)},
    {sizeof(kronfc_port_stats_cb), sizeof(dorfc_port_stats)},
    {sizeof(kronfc_tgt_info_cb), sizeof(dorfc_tgt_info)},
    {sizeof(kronfc_fcf_info_cb), sizeof(dorfc_fcf_info)},
    {sizeof(kronfc_scsi_cmd_cb), sizeof(dorfc_scsi_cmd)},
};

Ports ports;
size_t lun_list_size;
uint8_t lun_list[8 + 8 * 2048];
// Each thread has its own kernel memory and port, so that threads contend only inside the library.
thread_local uint32_t asked_port;  // of the current request

// The memory is shared, so that a forked process copies no page of it.
class KernelMemory {
  public:
    uint8_t* get() const { return memory_; }
    ~KernelMemory() { munmap(memory_, 2 * kKernelMemory); }

  private:
    uint8_t* memory_ = static_cast<uint8_t*>(mmap(nullptr, 2 * kKernelMemory, PROT_READ | PROT_WRITE,
                                                  MAP_SHARED | MAP_ANONYMOUS | MAP_POPULATE, -1, 0));
};
uint8_t* kernel_memory() {
    thread_local const KernelMemory memory;
    return memory.get();
}
uint8_t* kernel_data() { return kernel_memory() + kKernelMemory; }

// A pipe has a lock, so each thread has its own pipes.
class Pipe {
  public:
    Pipe() {
        if (pipe2(ends_, O_CLOEXEC) != 0) abort();
    }
    ~Pipe() {
        for (const int end : ends_) close(end);
    }
    int end() const { return ends_[0]; }

  private:
    int ends_[2];
};
int system_call_end() {
    thread_local const Pipe pipe;
    return pipe.end();
}

void enter_kernel() {
    int waiting;
    syscall(SYS_ioctl, system_call_end(), FIONREAD, &waiting);
}

void put_be32(uint8_t* to, uint32_t value) {
    for (int i = 0; i < 4; ++i) to[i] = static_cast<uint8_t>(value >> (24 - 8 * i));
}

void prepare_lun_list(uint32_t luns) {
    memset(lun_list, 0, sizeof lun_list);
    put_be32(lun_list, luns * 8);
    for (uint32_t lun = 0; lun < luns; ++lun) {
        lun_list[8 + 8 * lun] = static_cast<uint8_t>(lun < 256 ? 0 : 0x40 | lun >> 8);
        lun_list[9 + 8 * lun] = static_cast<uint8_t>(lun);
    }
    lun_list_size = 8 + 8 * size_t{luns};
}

bool is_virtual(uint32_t port) { return ports.half_virtual && port % 2 == 1; }
uint32_t physical_of(uint32_t port) { return ports.half_virtual ? port / 2 : port; }

void answer_pci(dorfc_pci_info& pci) {
    constexpr uint16_t kDeviceIds[] = {0x8080, 0x16A1, 0x168E};
    const uint32_t physical = physical_of(asked_port);
    pci.vendor_id = 0x1077;
    pci.device_id = kDeviceIds[static_cast<size_t>(ports.kind)];
    pci.bus_num = static_cast<uint16_t>(physical / 256);
    pci.device_num = static_cast<uint16_t>(physical / 8 % 32);
    pci.function_num = static_cast<uint16_t>(physical % 8);
}

void answer_port(dorfc_port_info& port) {
    memcpy(port.model_name, "Ulvard 8042", 12);
    port.wwnn = 0x200002CA1E000000u + physical_of(asked_port);
    port.wwpn = 0x200102CA1E000000u + asked_port;
    port.port_type = is_virtual(asked_port) ? FC_PORTTYPE_NPIV : FC_PORTTYPE_NPORT;
    port.npiv_index = is_virtual(asked_port);
    port.link_state = FC_PORTSTATE_ONLINE;
    port.tgt_cnt = ports.targets;
    port.fcf_cnt = 1;
}

constexpr uint8_t kReportLuns = 0xA0;

void answer_native_scsi(kronfc_scsi_cmd& command) {
    if (command.cdb[0] == kReportLuns) memcpy(command.data_buffer, lun_list, lun_list_size);
}

void answer_legacy_scsi(const dorfc_scsi_cmd& command) {
    auto* data = reinterpret_cast<uint8_t*>(command.data_addr);
    if (command.direction == SCSI_DIRECTION_OUT) {
        memcpy(kernel_data(), data, command.data_len);
    } else if (command.direction == SCSI_DIRECTION_IN) {
        const uint8_t* from = command.cdb[0] == kReportLuns ? lun_list : kernel_data();
        memcpy(data, from, command.data_len);
    }
}

// `record` is the payload after its header. It has the same layout for all drivers, except where two types
// are named.
void answer(RequestNumber request, bool native, uint8_t* record) {
    switch (request) {
        case RequestNumber::pci_info:
            return answer_pci(*reinterpret_cast<dorfc_pci_info*>(record));
        case RequestNumber::port_info:
            return answer_port(*reinterpret_cast<dorfc_port_info*>(record));
        case RequestNumber::scsi_cmd:
            return native ? answer_native_scsi(*reinterpret_cast<kronfc_scsi_cmd*>(record))
                          : answer_legacy_scsi(*reinterpret_cast<const dorfc_scsi_cmd*>(record));
        default:
            return;
    }
}

void answer_native(RequestNumber request, uint8_t* payload, bool serves) {
    const int32_t count = serves ? static_cast<int32_t>(ports.count) : 0;
    if (request == RequestNumber::hba_count) {
        reinterpret_cast<kronfc_hba_cnt_cb*>(payload)->hba_cnt = count;
    } else if (request == RequestNumber::host_no) {
        auto* host = reinterpret_cast<kronfc_hostno_cb*>(payload);
        host->host_no = static_cast<uint32_t>(host->inst);
    } else {
        asked_port = reinterpret_cast<native_cb_header*>(payload)->host_no;
        answer(request, true, payload + kHeader);
    }
}

void answer_legacy(RequestNumber request, uint8_t* payload) {
    const bool serves = ports.kind == Kind::legacy;
    if (request == RequestNumber::hba_count) {
        reinterpret_cast<dorfc_hba_cnt*>(payload)->hba_cnt = serves ? static_cast<int32_t>(ports.count) : 0;
    } else if (request == RequestNumber::host_no) {
        reinterpret_cast<dorfc_hostno*>(payload)->host_no = asked_port;
    } else {
        answer(request, false, payload);
    }
}

int legacy_request(uint32_t number, dorfc_ioctl* user_block) {
    enter_kernel();
    dorfc_ioctl block;
    memcpy(&block, user_block, sizeof block);
    auto* user = reinterpret_cast<void*>(block.ioctlstructaddr);
    const size_t size = kSizes[number].legacy;
    memcpy(kernel_memory(), user, size);
    asked_port = block.hbaselect;
    answer_legacy(static_cast<RequestNumber>(number), kernel_memory());
    memcpy(user, kernel_memory(), size);
    memcpy(user_block, &block, sizeof block);
    return 0;
}

}  // namespace

void serve(const Ports& now) {
    ports = now;
    prepare_lun_list(now.luns);
}
const Ports& served() { return ports; }

void touch_kernel_memory() { memset(kernel_memory(), 0, 2 * kKernelMemory); }

Payload::Payload(Kind kind, RequestNumber request, uint32_t port) : kind_(kind), request_(request) {
    const auto number = static_cast<uint32_t>(request);
    const bool native = kind != Kind::legacy;
    const RecordSize size = kSizes[number];
    memory_ = static_cast<uint8_t*>(calloc(1, native ? size.native : size.legacy));
    if (!memory_) throw std::bad_alloc();
    const bool has_header = native && request > RequestNumber::host_no;
    record_ = memory_ + (has_header ? kHeader : 0);
    if (has_header) reinterpret_cast<native_cb_header*>(memory_)->host_no = port;
    memcpy(block_.signature, "DORFC", 6);
    block_.hbaselect = static_cast<uint16_t>(port);
    block_.ioctlstructaddr = reinterpret_cast<uintptr_t>(memory_);
}

Payload::~Payload() { free(memory_); }

void Payload::send() {
    const auto number = static_cast<uint32_t>(request_);
    if (kind_ == Kind::legacy) {
        ioctl(-1, dorfc_request(number), &block_);
    } else {
        vmk_MgmtUserCallbackInvokeInt(static_cast<uint64_t>(kind_) + 1, 0, number + kNativeToNumber, 1,
                                      memory_);
    }
}

ScsiPayload::ScsiPayload(Kind kind, uint8_t direction, uint8_t operation_code, uint8_t* data, uint32_t length)
    : kind_(kind),
      payload_(kind, RequestNumber::scsi_cmd),
      direction_(direction),
      data_(data),
      length_(length) {
    auto& command = payload_.as<dorfc_scsi_cmd>();
    command.direction = direction;
    command.cdb_len = 16;
    command.cdb[0] = operation_code;
    command.sense_len = kScsiMaxSense;
    command.data_len = length;
    if (kind == Kind::legacy) command.data_addr = reinterpret_cast<uintptr_t>(data);
}

void ScsiPayload::send() {
    const bool copies = kind_ != Kind::legacy;
    uint8_t* area = payload_.as<kronfc_scsi_cmd>().data_buffer;
    if (copies && direction_ == SCSI_DIRECTION_OUT) memcpy(area, data_, length_);
    payload_.send();
    if (copies && direction_ == SCSI_DIRECTION_IN) memcpy(data_, area, length_);
}

}  // namespace bench

// ---- The entry points

using namespace bench;

extern "C" int vmk_MgmtUserInit(vmk_MgmtApiSignature*, uint64_t cookie, vmk_MgmtUserHandle* handle) {
    const Kind kind = cookie == kKronCookie ? Kind::kron : Kind::pyx;
    if (kind != served().kind) return 1;
    *handle = static_cast<uint64_t>(kind) + 1;
    return 0;
}

extern "C" int vmk_MgmtUserCallbackInvokeInt(vmk_MgmtUserHandle handle, uint64_t, uint64_t callback,
                                             uint32_t count, ...) {
    va_list arguments;
    va_start(arguments, count);
    void* user = va_arg(arguments, void*);
    va_end(arguments);
    enter_kernel();
    const uint64_t number = callback - kNativeToNumber;
    const size_t size = kSizes[number].native;
    memcpy(kernel_memory(), user, size);
    answer_native(static_cast<RequestNumber>(number), kernel_memory(),
                  handle == static_cast<uint64_t>(served().kind) + 1);
    memcpy(user, kernel_memory(), size);
    return 0;
}

extern "C" int ioctl(int fd, unsigned long request, ...) noexcept {
    va_list arguments;
    va_start(arguments, request);
    void* argument = va_arg(arguments, void*);
    va_end(arguments);
    const auto number = static_cast<uint32_t>(request & 0xFF);
    if (request == dorfc_request(number) && number <= static_cast<uint32_t>(RequestNumber::scsi_cmd)) {
        return legacy_request(number, static_cast<dorfc_ioctl*>(argument));
    }
    return static_cast<int>(syscall(SYS_ioctl, fd, request, argument));
}
