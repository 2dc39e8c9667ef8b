// trelm_mgmt.hpp - a small C++ layer on the public C interface: RAII owners, results as values, failures as
// exceptions. Header-only, C++17. Needs only the standard library and libtrelm.
//
//     trelm::Library library;                                  // loads; frees at the end of its scope
//     for (uint32_t i = 0; i < library.port_count(); ++i) {
//         trelm::Adapter adapter(library, i);                  // opens; closes at the end of its scope
//         std::cout << trelm::text(adapter.info().ModelName) << '\n';
//     }
//
// A failed call throws trelm::Error with the code, the operation and the port. Destructors never throw. As
// trelm_mgmt.h says, any thread may call at any time. An object may be used by several threads at once,
// except while one of them constructs, destroys, moves or closes it.
#pragma once

#include <array>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <exception>
#include <initializer_list>
#include <iterator>
#include <optional>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

#include "trelm_mgmt.h"

namespace trelm {

// The name of a return code. Null for driver statuses without a name (TRELM_STATUS_BASE plus 2, 3 and so on)
// and for system error numbers.
inline const char* status_name(uint32_t code) {
    switch (code) {
        case TRELM_STATUS_OK:
            return "TRELM_STATUS_OK";
        case TRELM_STATUS_FAILED:
            return "TRELM_STATUS_FAILED";
        case TRELM_STATUS_INVALID_PARAMETER:
            return "TRELM_STATUS_INVALID_PARAMETER";
        case TRELM_STATUS_INVALID_INSTANCE:
            return "TRELM_STATUS_INVALID_INSTANCE";
        case TRELM_STATUS_INSUFFICIENT_BUFFER:
            return "TRELM_STATUS_INSUFFICIENT_BUFFER";
        case TRELM_STATUS_NO_MEMORY:
            return "TRELM_STATUS_NO_MEMORY";
        case TRELM_STATUS_DRIVER_ERROR:
            return "TRELM_STATUS_DRIVER_ERROR";
        default:
            return nullptr;
    }
}

// A text field as a string: up to its first zero byte or its width, without trailing blanks.
template <std::size_t Width>
std::string text(const uint8_t (&field)[Width]) {
    std::size_t length = 0;
    while (length < Width && field[length] != 0) ++length;
    while (length > 0 && field[length - 1] == ' ') --length;
    return std::string(field, field + length);
}

// A return code in words. Empty for success.
inline std::string status_words(uint32_t code) {
    switch (code) {
        case TRELM_STATUS_OK:
            return {};
        case TRELM_STATUS_FAILED:
            return "not loaded, no such port, or the driver failed";
        case TRELM_STATUS_INVALID_PARAMETER:
            return "invalid parameter";
        case TRELM_STATUS_INVALID_INSTANCE:
            return "no port has this number";
        case TRELM_STATUS_INSUFFICIENT_BUFFER:
            return "the array is too small";
        case TRELM_STATUS_NO_MEMORY:
            return "out of memory";
        case TRELM_STATUS_DRIVER_ERROR:
            return "the driver failed";
        case TRELM_STATUS_BASE + 13:
            return "driver status 13, device offline";
        default:
            if (code > TRELM_STATUS_BASE && code < TRELM_STATUS_BASE + 13)
                return "driver status " + std::to_string(code - TRELM_STATUS_BASE);
            return std::generic_category().message(static_cast<int>(code));
    }
}

// A failed call. `operation` is the name of the C function. The instance and the NPIV index are present if
// the call had them. what() contains all of it, for example "TRELM_OpenAdapter failed for port 3: no port has
// this number (0x60000007 TRELM_STATUS_INVALID_INSTANCE)".
class Error : public std::exception {
  public:
    Error(uint32_t code, const char* operation, std::optional<uint32_t> instance = {},
          std::optional<uint32_t> npiv_index = {})
        : code_(code), operation_(operation), instance_(instance), npiv_index_(npiv_index) {
        std::array<char, 16> hex{};
        std::snprintf(hex.data(), hex.size(), "0x%08X", code);
        message_ = operation_ + " failed";
        if (instance) message_ += " for port " + std::to_string(*instance);
        if (npiv_index) message_ += ", NPIV index " + std::to_string(*npiv_index);
        message_ += ": " + status_words(code) + " (" + hex.data();
        if (status_name(code) != nullptr) message_ += std::string(" ") + status_name(code);
        message_ += ")";
    }

    uint32_t code() const noexcept { return code_; }
    const std::string& operation() const noexcept { return operation_; }
    std::optional<uint32_t> instance() const noexcept { return instance_; }
    std::optional<uint32_t> npiv_index() const noexcept { return npiv_index_; }
    const char* what() const noexcept override { return message_.c_str(); }

  private:
    uint32_t code_;
    std::string operation_;
    std::optional<uint32_t> instance_;
    std::optional<uint32_t> npiv_index_;
    std::string message_;
};

// The loaded library. A program should have only one: the first that is destroyed frees the library for the
// whole process. The constructor throws if the load fails. A host without ports is no failure, unless no
// driver answers either: that cannot be told from other failed loads.
class Library {
  public:
    Library() {
        if (const uint32_t code = TRELM_LoadLibrary(); code != TRELM_STATUS_OK) {
            throw Error(code, "TRELM_LoadLibrary");
        }
    }
    ~Library() { TRELM_FreeLibrary(); }
    Library(const Library&) = delete;
    Library& operator=(const Library&) = delete;

    // The number of physical ports of the host.
    uint32_t port_count() const {
        uint32_t count = 0;
        const uint32_t code = TRELM_GetPortCount(&count);
        // After a successful load this failure has one cause: no port was found.
        if (code == TRELM_STATUS_FAILED) return 0;
        if (code != TRELM_STATUS_OK) throw Error(code, "TRELM_GetPortCount");
        return count;
    }

    static std::string version() {
        std::array<uint8_t, 64> buffer{};
        TRELM_GetVersion(buffer.data(), static_cast<uint32_t>(buffer.size()));
        return reinterpret_cast<const char*>(buffer.data());
    }
    static uint32_t version_number() { return TRELM_GetVersion(nullptr, 0); }
    static std::string description() {
        return std::string(trelm_version_description,
                           strnlen(trelm_version_description, sizeof trelm_version_description));
    }
};

// The two numbers of a LUN as one, with the extension as the upper half. For a single-level LUN this is its
// plain number.
inline uint64_t lun_number(uint32_t number, uint32_t extension) { return uint64_t{extension} << 32 | number; }

// A command record with these values and room for all sense data. The CDB is any range of bytes with a size:
// a list in braces, a container, a C array.
template <typename Bytes = std::initializer_list<uint8_t>>
TRELM_SCSI_CMND scsi_command(uint32_t target, uint64_t lun, const Bytes& cdb,
                             uint8_t direction = TRELM_SCSI_DATA_IN) {
    TRELM_SCSI_CMND command{};
    command.ScsiTgtNum = target;
    command.ScsiLunNum = static_cast<uint32_t>(lun);
    command.ScsiLunNumExt = static_cast<uint32_t>(lun >> 32);
    command.Direction = direction;
    command.CDBLength = static_cast<uint8_t>(std::size(cdb) < 255 ? std::size(cdb) : 255);
    std::size_t i = 0;
    for (const uint8_t byte : cdb) {
        if (i < sizeof command.CDB) command.CDB[i++] = byte;
    }
    command.SenseLength = sizeof command.Sense;
    return command;
}

// An open physical port. Its virtual ports are reached through it by their NPIV index. It must be destroyed
// before its library.
class Adapter {
  public:
    Adapter(const Library& /*loaded*/, uint32_t instance) : instance_(instance) {
        check(TRELM_OpenAdapter(instance, &handle_), "TRELM_OpenAdapter");
    }
    ~Adapter() {
        if (handle_ != 0) TRELM_CloseAdapter(handle_);
    }
    Adapter(Adapter&& other) noexcept
        : instance_(other.instance_), handle_(std::exchange(other.handle_, 0)) {}
    Adapter& operator=(Adapter&& other) noexcept {
        std::swap(instance_, other.instance_);
        std::swap(handle_, other.handle_);
        return *this;
    }

    uint32_t instance() const noexcept { return instance_; }
    uint32_t handle() const noexcept { return handle_; }

    // Closes now, so that a failure is reported. On failure the port stays open.
    void close() {
        check(TRELM_CloseAdapter(handle_), "TRELM_CloseAdapter");
        handle_ = 0;
    }

    TRELM_FCOE_INFO info() const {
        TRELM_FCOE_INFO record{};
        record.Version = 2;
        check(TRELM_GetFcoeInfo(handle_, &record), "TRELM_GetFcoeInfo");
        return record;
    }

    TRELM_VNPORT_INFO port_info(uint32_t npiv_index) const {
        TRELM_VNPORT_INFO record{};
        record.Version = 2;
        check(TRELM_GetVNPortInfo(handle_, npiv_index, &record), "TRELM_GetVNPortInfo", npiv_index);
        return record;
    }

    TRELM_PORT_STATS stats(uint32_t npiv_index) const {
        TRELM_PORT_STATS record{};
        check(TRELM_GetPortStats(handle_, npiv_index, &record), "TRELM_GetPortStats", npiv_index);
        return record;
    }

    // Whether there is a port with that NPIV index. The driver is not asked: a target listing with a capacity
    // of 0 ends after the look-up.
    bool has_port(uint32_t npiv_index) const noexcept {
        uint32_t count = 0;
        TRELM_TGT_INFO* none = nullptr;
        return TRELM_GetTgtInfo(handle_, npiv_index, &count, &none) != TRELM_STATUS_FAILED;
    }

    // The NPIV indexes of the physical port and its virtual ports, in ascending order. Most drivers number
    // ports densely from 0 or 1. `slack` is how far beyond the number of ports to search for others.
    std::vector<uint32_t> port_indexes(uint32_t slack = 255) const {
        const uint64_t ports = uint64_t{info().NpivCount} + 1;
        constexpr uint64_t kMost = 65536;  // bounds the search if a driver reports a nonsensical count
        const uint64_t end = (ports < kMost ? ports : kMost) + slack;
        std::vector<uint32_t> found;
        for (uint32_t index = 0; index < end && found.size() < ports; ++index) {
            if (has_port(index)) found.push_back(index);
        }
        return found;
    }

    // Appends the targets that answer to `found`. Returns the status of TRELM_GetTgtInfo; on failure the
    // targets before the failing one were appended. The driver is first asked for the current number of
    // targets; if that fails, the number known before is used.
    uint32_t list_targets(uint32_t npiv_index, std::vector<TRELM_TGT_INFO>& found) const {
        TRELM_VNPORT_INFO refreshed{};
        TRELM_GetVNPortInfo(handle_, npiv_index, &refreshed);
        uint32_t count = 0;
        TRELM_TGT_INFO* array = nullptr;
        uint32_t code = TRELM_GetTgtInfo(handle_, npiv_index, &count, &array);
        if (code != TRELM_STATUS_INSUFFICIENT_BUFFER) return code;

        // There are at most TRELM_MAX_TARGETS targets, whatever number the driver announced. The function
        // does not report how many it filled, so every element is marked with an invalid target number.
        std::vector<TRELM_TGT_INFO> elements(TRELM_MAX_TARGETS);
        for (TRELM_TGT_INFO& element : elements) element.ScsiTgtNum = UINT32_MAX;
        array = elements.data();
        code = TRELM_GetTgtInfo(handle_, npiv_index, &count, &array);
        for (const TRELM_TGT_INFO& element : elements) {
            if (element.ScsiTgtNum != UINT32_MAX) found.push_back(element);
        }
        return code;
    }

    std::vector<TRELM_TGT_INFO> targets(uint32_t npiv_index) const {
        std::vector<TRELM_TGT_INFO> found;
        check(list_targets(npiv_index, found), "TRELM_GetTgtInfo", npiv_index);
        return found;
    }

    // Appends the LUNs of the target to `found`. Returns the status of TRELM_GetLunInfo; on failure the LUNs
    // before the failing one were appended.
    uint32_t list_luns(uint32_t npiv_index, uint32_t target, std::vector<TRELM_LUN_INFO>& found) const {
        std::vector<TRELM_LUN_INFO> elements(16);
        uint32_t code = TRELM_STATUS_INSUFFICIENT_BUFFER;
        // The list may grow between two calls. The number of attempts is bounded.
        for (int attempt = 0; attempt < 4; ++attempt) {
            for (TRELM_LUN_INFO& element : elements) element = unfilled_lun();
            uint32_t count = static_cast<uint32_t>(elements.size());
            TRELM_LUN_INFO* array = elements.data();
            code = TRELM_GetLunInfo(handle_, npiv_index, target, &count, &array);
            // If the array was large enough, the code is driver status 9.
            if (code != TRELM_STATUS_INSUFFICIENT_BUFFER || count <= elements.size()) break;
            elements.resize(count);
        }
        for (const TRELM_LUN_INFO& element : elements) {
            if (is_unfilled(element)) break;
            found.push_back(element);
        }
        return code;
    }

    std::vector<TRELM_LUN_INFO> luns(uint32_t npiv_index, uint32_t target) const {
        std::vector<TRELM_LUN_INFO> found;
        check(list_luns(npiv_index, target, found), "TRELM_GetLunInfo", npiv_index);
        return found;
    }

    // Sends a command. `length` bytes move to or from `data` in the direction of the record. The sense data
    // is in the record whether the call returns or throws. A CHECK CONDITION does not throw: the caller must
    // look at the sense data.
    void send(uint32_t npiv_index, TRELM_SCSI_CMND& command, uint8_t* data = nullptr,
              uint32_t length = 0) const {
        check(TRELM_SendScsiCommand(handle_, npiv_index, &command, &length, data), "TRELM_SendScsiCommand",
              npiv_index);
    }

    // Sends a command that does not read.
    void send(uint32_t npiv_index, TRELM_SCSI_CMND& command, const uint8_t* data, uint32_t length) const {
        if (command.Direction == TRELM_SCSI_DATA_IN)
            check(TRELM_STATUS_INVALID_PARAMETER, "TRELM_SendScsiCommand", npiv_index);
        send(npiv_index, command, const_cast<uint8_t*>(data), length);
    }

  private:
    void check(uint32_t code, const char* operation, std::optional<uint32_t> npiv_index = {}) const {
        if (code != TRELM_STATUS_OK) throw Error(code, operation, instance_, npiv_index);
    }

    // The function does not report how many LUNs it filled, so each element starts with values that no LUN
    // has.
    static TRELM_LUN_INFO unfilled_lun() {
        TRELM_LUN_INFO mark{};
        mark.Version = 2;
        mark.ScsiLunNum = UINT32_MAX;
        mark.ScsiLunNumExt = UINT32_MAX;
        mark.DeviceType = UINT8_MAX;
        mark.Capacity = UINT64_MAX;
        return mark;
    }
    static bool is_unfilled(const TRELM_LUN_INFO& element) {
        return element.ScsiLunNum == UINT32_MAX && element.ScsiLunNumExt == UINT32_MAX &&
               element.DeviceType == UINT8_MAX && element.Capacity == UINT64_MAX;
    }

    uint32_t instance_;
    uint32_t handle_ = 0;
};

}  // namespace trelm
