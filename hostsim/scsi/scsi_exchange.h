// scsi_exchange.h - carries the SCSI command of a driver record to a target and the reply back into the
// record. The native records hold the data, the legacy record its address.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <span>

#include "scsi_target.h"
#include "trelm_driver_records.h"

namespace hostsim {

// A reservation conflict is a SCSI status. Sense data does not show it and the drivers' records have no field
// for it, so the drivers answer with it in place of their own status.
inline constexpr uint32_t kStatusReserved = 0x18;

inline uint8_t* scsi_data(kronfc_scsi_cmd& command) { return command.data_buffer; }
inline uint8_t* scsi_data(dorfc_scsi_cmd& command) {
    return reinterpret_cast<uint8_t*>(static_cast<uintptr_t>(command.data_addr));
}

// Whether the data fits the record, or has an address.
inline bool scsi_data_sound(const kronfc_scsi_cmd& command) { return command.data_len <= kScsiMaxData; }
inline bool scsi_data_sound(const dorfc_scsi_cmd& command) {
    return command.data_addr != 0 || command.data_len == 0;
}

template <typename Record>
ScsiRequest scsi_request(Record& command) {
    ScsiRequest request;
    std::copy_n(command.cdb, std::min<size_t>(command.cdb_len, kScsiMaxCdb), request.cdb.begin());
    if (command.direction == SCSI_DIRECTION_IN) request.data_in = {scsi_data(command), command.data_len};
    if (command.direction == SCSI_DIRECTION_OUT) request.data_out = {scsi_data(command), command.data_len};
    return request;
}

// Stores the reply in the record: sense data as far as it fits, and the number of bytes moved in data_len.
template <typename Record>
void store_scsi_reply(Record& command, const ScsiReply& reply) {
    const bool has_sense = reply.status == ScsiStatus::check_condition;
    const size_t room = std::min<size_t>(command.sense_len, kScsiMaxSense);
    command.sense_len = static_cast<uint16_t>(has_sense ? std::min(room, reply.sense.size()) : 0);
    std::copy_n(reply.sense.begin(), command.sense_len, command.sense);
    command.data_len = static_cast<uint32_t>(reply.transferred);
}

// Runs the command of the record and returns the status of the driver. A CHECK CONDITION is a successful
// exchange.
template <typename Record>
uint32_t exchange_scsi(const ScsiTarget& target, Record& command) {
    const bool has_data = command.direction == SCSI_DIRECTION_IN || command.direction == SCSI_DIRECTION_OUT;
    if (command.cdb_len > kScsiMaxCdb || (has_data && !scsi_data_sound(command)))
        return DRIVER_STATUS_INVALID;
    const ScsiReply reply = target.run(command.lun, command.lun_ext, scsi_request(command));
    store_scsi_reply(command, reply);
    if (reply.status == ScsiStatus::reservation_conflict) return kStatusReserved;
    return DRIVER_STATUS_GOOD;
}

}  // namespace hostsim
