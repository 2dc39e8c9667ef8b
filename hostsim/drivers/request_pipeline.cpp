// request_pipeline.cpp - the steps of a request in order.
#include "request_pipeline.h"

#include <algorithm>
#include <utility>

#include "faults.h"
#include "state.h"
#include "trelm_driver_records.h"

namespace hostsim {
namespace {

constexpr size_t kRecordedPayload = 1024;

std::vector<uint8_t> first_bytes(std::span<const uint8_t> bytes, size_t limit) {
    const auto head = bytes.first(std::min(bytes.size(), limit));
    return {head.begin(), head.end()};
}

bool is_portless(Operation operation) {
    return operation == Operation::hba_count || operation == Operation::init;
}

std::optional<PortRef> find_port(const Model& model, const DriverRequest& request) {
    if (is_portless(request.operation)) return std::nullopt;
    const std::vector<PortRef> ports = driver_ports(model, request.driver);
    if (request.port_is_index) {
        if (request.port >= ports.size()) return std::nullopt;
        return ports[static_cast<size_t>(request.port)];
    }
    const auto found = std::find_if(ports.begin(), ports.end(),
                                    [&](const PortRef& ref) { return ref.host_no == request.port; });
    return found == ports.end() ? std::nullopt : std::optional(*found);
}

// The SCSI command records of all drivers begin alike, and so do their target records.
FaultSite site_of(const DriverRequest& request, const PortRef* port) {
    FaultSite site{.operation = request.operation, .driver = request.driver, .port = port};
    if (request.operation == Operation::tgt_info) {
        site.target = reinterpret_cast<const dorfc_tgt_info*>(request.payload.data())->scsi_tgt_num;
    }
    if (request.operation == Operation::scsi) {
        const auto& command = *reinterpret_cast<const dorfc_scsi_cmd*>(request.payload.data());
        site.target = command.tgt;
        site.opcode = command.cdb[0];
    }
    return site;
}

Completion failing(const FaultEffect& effect) {
    return {.status = effect.status, .result = effect.error ? -1 : 0, .error = effect.error};
}

}  // namespace

RequestPipeline::RequestPipeline(Model described, State& state, LunStores stores, bool recording)
    : model(std::move(described)), state_(state), stores_(std::move(stores)), recording_(recording) {}

Completion RequestPipeline::serve(const DriverRequest& request) {
    const DriverCall& call = remember(request);
    const Completion completion = carry_out(request);
    if (!tamper || !*tamper) return completion;
    DriverAnswer open{.call = call,
                      .payload = request.payload,
                      .data = request.data,
                      .status = completion.status,
                      .result = completion.result,
                      .error = completion.error};
    (*tamper)(open);
    return {.status = open.status, .result = open.result, .error = open.error};
}

Completion RequestPipeline::carry_out(const DriverRequest& request) {
    const std::optional<PortRef> port = find_port(model, request);
    const PortRef* const ref = port ? &*port : nullptr;
    if (const auto effect = take_fault(model, state_, site_of(request, ref))) return failing(*effect);
    if (!ref && !is_portless(request.operation)) return {.status = DRIVER_STATUS_NO_SUCH_PORT};
    DriverAnswers answers(model, state_, stores_);
    return {.status = answers.run({request.driver, request.operation, ref, request.payload})};
}

Completion RequestPipeline::pass(DriverKind driver, Operation operation, uint64_t number) {
    remember({.driver = driver, .operation = operation, .number = number});
    const auto effect = take_fault(model, state_, {.operation = operation, .driver = driver});
    return effect ? failing(*effect) : Completion{};
}

const DriverCall& RequestPipeline::remember(const DriverRequest& request) {
    last_ = DriverCall{.driver = request.driver,
                       .operation = request.operation,
                       .number = request.number,
                       .port = request.port,
                       .block = first_bytes(request.block, request.block.size()),
                       .payload = first_bytes(request.record, kRecordedPayload)};
    if (recording_) calls.push_back(last_);
    return last_;
}

}  // namespace hostsim
