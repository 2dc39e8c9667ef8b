// drivers.h - the drivers that the library is measured with. Like the platform, they enter the kernel once
// and copy the whole in/out payload in and out, and they do nothing else. Their answers suffice for discovery
// and LUN listings; all other payloads come back unchanged.
#pragma once

#include <cstddef>
#include <cstdint>

#include "trelm_driver_records.h"

namespace bench {

enum class Kind { kron, pyx, legacy };
inline constexpr Kind kKinds[] = {Kind::kron, Kind::pyx, Kind::legacy};
inline constexpr const char* kKindNames[] = {"kron", "pyx", "legacy"};
inline const char* name_of(Kind kind) { return kKindNames[static_cast<size_t>(kind)]; }

// The ports of one driver. The other drivers are absent or serve none. With half_virtual every second port is
// a virtual port on the port before it.
struct Ports {
    Kind kind = Kind::kron;
    uint32_t count = 1;
    bool half_virtual = false;
    uint32_t targets = 0;
    uint32_t luns = 0;
};
void serve(const Ports& ports);
const Ports& served();

// The requests to the drivers, with the numbers of the legacy driver.
enum class RequestNumber : uint32_t {
    hba_count = 1,
    host_no,
    pci_info,
    port_info,
    port_stats,
    tgt_info,
    fcf_info,
    scsi_cmd
};

// A payload for one request in the form that the driver takes, and the bare call that sends it.
class Payload {
  public:
    Payload(Kind kind, RequestNumber request, uint32_t port = 0);
    ~Payload();
    Payload(const Payload&) = delete;
    Payload& operator=(const Payload&) = delete;

    void send();
    template <class Record>
    Record& as() {
        return *reinterpret_cast<Record*>(record_);
    }

  private:
    Kind kind_;
    RequestNumber request_;
    uint8_t* memory_;
    uint8_t* record_;
    dorfc_ioctl block_{};
};

// A SCSI command with a prepared payload, and the one copy of user data that cannot be avoided.
class ScsiPayload {
  public:
    ScsiPayload(Kind kind, uint8_t direction, uint8_t operation_code, uint8_t* data, uint32_t length);
    void send();

  private:
    Kind kind_;
    Payload payload_;
    uint8_t direction_;
    uint8_t* data_;
    uint32_t length_;
};

// Touches the memory that payloads of this thread are copied to, so that it is mapped.
void touch_kernel_memory();

}  // namespace bench
