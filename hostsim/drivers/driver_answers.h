// driver_answers.h - the answer of a host's drivers to each operation, made from the model at the moment of
// the request. It does not depend on the kernel interface that the request came through.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "block_store.h"
#include "model.h"
#include "scsi_target.h"

namespace hostsim {

class State;

// The contents of the host's LUNs, kept for as long as the host runs. A disk that several paths reach is one
// store.
class LunStores {
  public:
    // Directories of LUNs without one of their own. An empty `memory` keeps them in the memory of this
    // process.
    LunStores(std::string file, std::string memory) : file_(std::move(file)), memory_(std::move(memory)) {}

    std::shared_ptr<BlockStore> open(const Lun& lun, uint64_t naa);

  private:
    std::shared_ptr<BlockStore> make(const Lun& lun, const std::string& id) const;

    std::string file_;
    std::string memory_;
    std::map<std::string, std::shared_ptr<BlockStore>> stores_;
};

// A request to a driver whose port has been found. `payload` is the operation's record, in and out. The data
// of a SCSI command is in the record or at the address that the record holds.
struct PortRequest {
    DriverKind driver;
    Operation operation;
    const PortRef* port;  // null for the number of ports
    std::span<uint8_t> payload;
};

class DriverAnswers {
  public:
    DriverAnswers(const Model& model, State& state, LunStores& stores)
        : model_(model), state_(state), stores_(stores) {}

    // Carries out a request and returns the driver's status.
    uint32_t run(const PortRequest& request);

  private:
    uint32_t hba_count(const PortRequest& request);
    uint32_t hostno(const PortRequest& request);
    uint32_t pci_info(const PortRequest& request);
    uint32_t port_info(const PortRequest& request);
    uint32_t port_stats(const PortRequest& request);
    uint32_t tgt_info(const PortRequest& request);
    uint32_t fcf_info(const PortRequest& request);
    uint32_t scsi(const PortRequest& request);

    template <typename Record>
    uint32_t run_scsi(const PortRef& port, Record& command);
    template <typename Record>
    void fill_port_info(const PortRef& ref, Record& info) const;

    const Model& model_;
    State& state_;
    LunStores& stores_;
};

// Bytes of an operation's payload record in the answers of one driver; 0 for an operation without one.
size_t payload_size(DriverKind driver, Operation operation);

}  // namespace hostsim
