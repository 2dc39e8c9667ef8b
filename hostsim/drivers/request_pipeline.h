// request_pipeline.h - passes a request from a kernel interface to a driver and back. The request is
// recorded. Then a fault of the model makes it fail, or the driver answers. A test may change the answer
// before the caller gets it.
#pragma once

#include <functional>
#include <mutex>
#include <optional>
#include <span>
#include <vector>

#include "driver_answers.h"
#include "driver_call.h"
#include "model.h"

namespace hostsim {

class State;

// A request that an interface has checked and copied.
struct DriverRequest {
    DriverKind driver;
    Operation operation;
    uint64_t number;                    // callback id or ioctl number
    uint64_t port = 0;                  // host number, or the index at which the driver enumerates the port
    bool port_is_index = false;         // which of the two `port` is
    std::span<const uint8_t> block{};   // recorded: the request block
    std::span<const uint8_t> record{};  // recorded: the record with it
    std::span<uint8_t> payload{};       // the operation's record, in and out
    std::span<uint8_t> data{};          // the data phase of a SCSI command
};

// The result of a request.
struct Completion {
    uint32_t status = 0;
    int result = 0;
    int error = 0;
};

class RequestPipeline {
  public:
    RequestPipeline(Model model, State& state, LunStores stores, bool recording);

    Completion serve(const DriverRequest& request);

    // Requests without a record: init, open, close. They are recorded and may fail.
    Completion pass(DriverKind driver, Operation operation, uint64_t number);

    Model model;
    std::vector<DriverCall> calls;
    std::function<void(DriverAnswer&)>* tamper = nullptr;

  private:
    Completion carry_out(const DriverRequest& request);
    const DriverCall& remember(const DriverRequest& request);

    State& state_;
    LunStores stores_;
    bool recording_;
    DriverCall last_;
};

}  // namespace hostsim
