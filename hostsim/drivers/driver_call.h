// driver_call.h - a request to a driver as tests see it: the recorded call, and the answer before the caller
// gets it.
#pragma once

#include <cstdint>
#include <span>
#include <stdexcept>
#include <vector>

#include "model.h"

namespace hostsim {

// A recorded request.
struct DriverCall {
    DriverKind driver = DriverKind::kron;
    Operation operation = Operation::init;
    uint64_t number = 0;         // callback id or ioctl number
    uint64_t port = 0;           // host number, hbaselect, or the instance whose host number is asked for
    std::vector<uint8_t> block;  // the legacy driver's 64-byte request block
    std::vector<uint8_t>
        payload;  // the first 1024 bytes of the payload (native: of the record with its header)
};

// What a driver is about to answer. A test may change all of it before the caller sees it. `payload` is the
// record without header, alike for all drivers (host number and count: 4 bytes); `data` is the data phase of
// a SCSI command.
struct DriverAnswer {
    const DriverCall& call;
    std::span<uint8_t> payload;
    std::span<uint8_t> data;
    uint32_t status = 0;
    int result = 0;  // what the invocation or ioctl returns
    int error = 0;   // its errno

    template <typename Record>
    Record& as() const {
        if (payload.size() < sizeof(Record))
            throw std::length_error("the answer is shorter than this record");
        return *reinterpret_cast<Record*>(payload.data());
    }
};

}  // namespace hostsim
