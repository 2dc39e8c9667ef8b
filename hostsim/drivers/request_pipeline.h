// request_pipeline.h - the way of a request from a kernel interface to a driver and back: it is recorded,
// fails by a fault of the model or is answered, and a test may change the answer before the caller gets it.
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

// One request as an interface has checked and copied it.
struct DriverRequest {
    DriverKind driver;
    Operation operation;
    uint64_t number;                    // callback id or ioctl number
    uint64_t port = 0;                  // host number, or the index at which the driver enumerates the port
    bool port_is_index = false;         // which of the two
    std::span<const uint8_t> block{};   // to be recorded: the request block,
    std::span<const uint8_t> record{};  // and what went with it
    std::span<uint8_t> payload{};       // the operation's record, in and out
    std::span<uint8_t> data{};          // the data phase of a SCSI command
};

// How a request ended.
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
    std::vector<Call> calls;
    std::function<void(Answer&)>* tamper = nullptr;

  private:
    Completion carry_out(const DriverRequest& request);
    const Call& remember(const DriverRequest& request);

    State& state_;
    LunStores stores_;
    bool recording_;
    Call last_;
};

}  // namespace hostsim
