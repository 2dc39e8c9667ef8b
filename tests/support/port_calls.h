// port_calls.h - helpers for tests of the library: records byte by byte, the registry as a list, and failing
// driver requests.
#pragma once

#include <fmt/format.h>

#include <cstring>
#include <random>

#include "descriptors.h"
#include "guarded.h"
#include "loaded_host.h"
#include "log_capture.h"
#include "trelm_driver_records.h"

namespace trelm::test {

using hostsim::DriverAnswer;
using hostsim::DriverKind;
using hostsim::Operation;
using testing::Each;

// A record as bytes; each field is set at its offset.
class Bytes : public std::vector<uint8_t> {
  public:
    explicit Bytes(size_t size) : vector(size) {}
    // The initial contents of a guarded record of this size.
    static Bytes initial(size_t size) {
        Bytes bytes(size);
        for (size_t i = 0; i < size; ++i) bytes[i] = GuardedBytes::initial(i);
        return bytes;
    }
    template <std::integral Integer>
    Bytes& put(size_t offset, Integer value) {
        return copy(offset, &value, sizeof value);
    }
    // Zero-padded to the width of its field.
    Bytes& text(size_t offset, std::string text, size_t width) {
        text.resize(width);
        return copy(offset, text.data(), width);
    }
    Bytes& fill(size_t offset, int byte, size_t size) {
        return copy(offset, std::string(size, static_cast<char>(byte)).data(), size);
    }
    Bytes& copy(size_t offset, const void* from, size_t size) {
        if (offset + size > this->size()) throw std::out_of_range("the field lies outside the record");
        std::copy_n(static_cast<const uint8_t*>(from), size, data() + offset);
        return *this;
    }
    // The record at an offset. Only fields that lie within the bytes may be accessed.
    template <typename Record>
    Record& as(size_t offset = 0) {
        return *reinterpret_cast<Record*>(data() + offset);
    }
    // Lets records be compared and printed as bytes.
    const std::vector<uint8_t>& all() const { return *this; }
};

// A text field, zero-padded to its width.
template <size_t Width>
void set_text(uint8_t (&field)[Width], std::string text) {
    text.resize(Width);
    memcpy(field, text.data(), Width);
}
// A name field, most significant byte first.
inline void set_wwn(uint8_t (&field)[8], uint64_t name) {
    const uint64_t bytes = __builtin_bswap64(name);
    memcpy(field, &bytes, sizeof bytes);
}

inline std::vector<uint8_t> contents(const GuardedBytes& record) {
    return {record.data(), record.data() + record.size()};
}

inline uint32_t open_port(uint32_t instance = 0) {
    uint32_t handle = 0;
    EXPECT_EQ(TRELM_OpenAdapter(instance, &handle), TRELM_STATUS_OK);
    EXPECT_EQ(handle, instance + 1);
    return handle;
}

inline std::vector<trelm_priv_db*> registry() {
    std::vector<trelm_priv_db*> ports;
    if (!trelm_priv_database) return ports;
    trelm_dlist_start(trelm_priv_database);
    while (auto* pdb = static_cast<trelm_priv_db*>(_trelm_dlist_mark_move(trelm_priv_database, 1))) {
        ports.push_back(pdb);
    }
    return ports;
}
inline std::vector<uint32_t> instances() {
    std::vector<uint32_t> numbers;
    for (const trelm_priv_db* pdb : registry()) numbers.push_back(pdb->drvr_inst);
    return numbers;
}

// The payload of a request without the header of the driver interface.
inline std::vector<uint8_t> payload_of(const hostsim::DriverCall& call) {
    const ptrdiff_t header = call.driver == DriverKind::legacy ? 0 : 8;
    return {call.payload.begin() + header, call.payload.end()};
}

inline std::vector<hostsim::DriverCall> calls_of(const hostsim::Host& host, Operation operation) {
    std::vector<hostsim::DriverCall> calls = host.calls();
    std::erase_if(calls, [&](const hostsim::DriverCall& call) { return call.operation != operation; });
    return calls;
}

// Makes a driver answer one operation with a status, a failing call, or both.
struct DriverFailure {
    uint32_t status = 0;
    int error = 0;

    void of(hostsim::Host& host, Operation operation) const {
        host.tamper = [failure = *this, operation](DriverAnswer& answer) {
            if (answer.call.operation != operation) return;
            answer.status = failure.status;
            answer.result = failure.error ? -1 : 0;
            answer.error = failure.error;
        };
    }
};

// A fault of one request, the `occurrence`-th of its kind.
inline hostsim::Fault fault(Operation operation, DriverFailure failure, uint64_t occurrence = 1) {
    return {
        .operation = operation, .occurrence = occurrence, .status = failure.status, .error = failure.error};
}

// Passes the answer to every SCSI command to `work`. Its status is good unless `work` changes it.
template <typename Work>
void answer_scsi(hostsim::Host& host, const Work& work) {
    host.tamper = [work](DriverAnswer& answer) {
        if (answer.call.operation != Operation::scsi) return;
        answer.status = 0;
        answer.result = 0;
        work(answer, answer.as<dorfc_scsi_cmd>());
    };
}

}  // namespace trelm::test
