// drivers.h - the drivers that the library is measured against. They do what the platform does for an in/out
// parameter and nothing else: enter the kernel once, copy the whole payload in and copy it out again. What
// they answer is enough for discovery and for listing LUNs; everything else comes back as it was sent.
#pragma once

#include <cstddef>
#include <cstdint>

#include "trelm_driver_records.h"

namespace bench {

enum class Kind { kron, pyx, legacy };
inline constexpr Kind kKinds[] = {Kind::kron, Kind::pyx, Kind::legacy};
inline constexpr const char* kKindNames[] = {"kron", "pyx", "legacy"};
inline const char* name_of(Kind kind) { return kKindNames[static_cast<size_t>(kind)]; }

// The ports of one driver; the other drivers are absent or serve none. Of half_virtual hosts every second
// port is a virtual one on the port before it.
struct Ports {
    Kind kind = Kind::kron;
    uint32_t count = 1;
    bool half_virtual = false;
    uint32_t targets = 0;
    uint32_t luns = 0;
};
void serve(const Ports& ports);
const Ports& served();

// What the drivers are asked, numbered as their requests are.
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

// A payload for one request, as the driver takes it, and the bare call that sends it.
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

// A SCSI command whose payload is prepared, with the one copy of user data that cannot be avoided.
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

// Has the memory that payloads of this thread are copied to mapped in this process.
void touch_kernel_memory();

}  // namespace bench
