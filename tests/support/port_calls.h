// port_calls.h - what tests of the per-port functions share: records written down byte by byte, the names
// that each transport logs, and the ways in which a driver request can fail.
#pragma once

#include <fmt/format.h>
#include <gtest/gtest.h>

#include <cstring>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "guarded.h"
#include "host.h"
#include "trelm_mgmt.h"

namespace trelm::test {

using Lines = std::vector<std::string>;

// A record as bytes, each field put at its offset.
class Bytes : public std::vector<uint8_t> {
  public:
    explicit Bytes(size_t size) : vector(size) {}
    // What a guarded record of this size holds before a call.
    static Bytes initial(size_t size) {
        Bytes bytes(size);
        for (size_t i = 0; i < size; ++i) bytes[i] = GuardedBytes::initial(i);
        return bytes;
    }
    template <typename Integer>
    Bytes& put(size_t offset, Integer value) {
        return copy(offset, &value, sizeof value);
    }
    // Zero-padded to the width of its field.
    Bytes& text(size_t offset, std::string text, size_t width) {
        text.resize(width);
        return copy(offset, text.data(), width);
    }
    // Most significant byte first.
    Bytes& wwn(size_t offset, uint64_t name) { return put(offset, __builtin_bswap64(name)); }
    Bytes& copy(size_t offset, const void* from, size_t size) {
        if (offset + size > this->size()) throw std::out_of_range("the field lies outside the record");
        std::memcpy(data() + offset, from, size);
        return *this;
    }
    // So that records are compared, and shown, as bytes.
    const std::vector<uint8_t>& all() const { return *this; }
};

inline std::vector<uint8_t> to_vector(std::span<const uint8_t> bytes) { return {bytes.begin(), bytes.end()}; }
inline std::vector<uint8_t> contents(const GuardedBytes& record) {
    return {record.data(), record.data() + record.size()};
}

// With what the functions of a driver's transport begin.
inline std::string transport(hostsim::DriverKind kind) {
    static constexpr const char* kPrefixes[hostsim::kDriverKinds]{"trelmnt_", "trelm_pyxnt_", "trelm_"};
    return kPrefixes[static_cast<size_t>(kind)];
}

inline uint32_t open_port(uint32_t instance = 0) {
    uint32_t handle = 0;
    EXPECT_EQ(TRELM_OpenAdapter(instance, &handle), TRELM_STATUS_OK);
    EXPECT_EQ(handle, instance + 1);
    return handle;
}

// The payload of a request without what the driver's interface puts before it.
inline std::vector<uint8_t> payload_of(const hostsim::Call& call) {
    const size_t header = call.driver == hostsim::DriverKind::legacy ? 0 : 8;
    return {call.payload.begin() + static_cast<std::ptrdiff_t>(header), call.payload.end()};
}

inline std::vector<hostsim::Call> calls_of(const hostsim::Host& host, hostsim::Operation operation) {
    std::vector<hostsim::Call> calls = host.calls();
    std::erase_if(calls, [&](const hostsim::Call& call) { return call.operation != operation; });
    return calls;
}

// A driver that answers one kind of request with a status, with a failing call, or with both.
struct Failure {
    uint32_t status = 0;
    int error = 0;

    void of(hostsim::Host& host, hostsim::Operation operation) const {
        host.tamper = [failure = *this, operation](hostsim::Answer& answer) {
            if (answer.call.operation != operation) return;
            answer.status = failure.status;
            answer.result = failure.error ? -1 : 0;
            answer.error = failure.error;
        };
    }
};

// One request that goes wrong, the `occurrence`-th of its kind.
inline hostsim::Fault fault(hostsim::Operation operation, Failure failure, uint64_t occurrence = 1) {
    hostsim::Fault fault;
    fault.operation = operation;
    fault.status = failure.status;
    fault.error = failure.error;
    fault.occurrence = occurrence;
    return fault;
}

// Has the driver fail one kind of request in every way; `call` is to return what the public function then
// returns. The status of a driver counts before what its call returns.
template <typename Call>
void expect_failures_translated(hostsim::Host& host, hostsim::Operation operation, const Call& call) {
    std::vector<std::pair<Failure, uint32_t>> rows{
        {{14, 0}, 0x6000000B},         {{255, 0}, 0x6000000B}, {{0x80000000, 0}, 0x6000000B},
        {{0xFFFFFFFF, 0}, 0x6000000B}, {{0, EIO}, 0x6000000B}, {{5, EIO}, 0x60000005},
        {{99, EIO}, 0x6000000B}};
    for (uint32_t status = 1; status <= 13; ++status) rows.push_back({{status, 0}, 0x60000000 + status});
    for (const auto& [failure, code] : rows) {
        failure.of(host, operation);
        EXPECT_EQ(call(), code) << "status " << failure.status << ", errno " << failure.error;
    }
    host.tamper = nullptr;
}

}  // namespace trelm::test
