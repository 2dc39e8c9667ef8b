// failure.h - a failure in a form for people and programs: code, name, meaning, operation, port and advice.
// Also the exit statuses of the tool.
#pragma once

#include <cstdint>
#include <exception>
#include <optional>
#include <string>
#include <utility>

#include "json.h"
#include "trelm_mgmt.hpp"

namespace trelmctl {

enum class ExitStatus : int { done = 0, failed = 1, usage = 2, no_ports = 3 };

struct Failure {
    std::optional<uint32_t> code;  // of the library or the system; none if the tool itself refuses
    std::string name;  // for programs: TRELM_STATUS_FAILED, EACCES, USAGE, CHECK_CONDITION and so on
    std::string meaning;
    std::string advice;     // may be empty
    std::string operation;  // a library function, or what the tool was doing; may be empty
    std::string port;       // "0" or "0/1"; empty if no port is concerned
    ExitStatus exit_status = ExitStatus::failed;
};

// Ends a command that cannot continue.
class CommandFailed : public std::exception {
  public:
    explicit CommandFailed(Failure failure) : failure_(std::move(failure)) {}
    const Failure& failure() const noexcept { return failure_; }
    const char* what() const noexcept override { return failure_.meaning.c_str(); }

  private:
    Failure failure_;
};

Failure explain(const trelm::Error& error);
// `no_port`: the load failed because no port was found.
Failure explain_load(const trelm::Error& error, bool no_port);
Failure no_ports();
Failure usage_failure(std::string meaning);
// A failure of the tool itself, without a port or a function of the library.
Failure tool_failure(std::string name, std::string meaning, std::string advice);

// The name of a port: its instance number, and its NPIV index if one was given.
std::string port_label(std::optional<uint32_t> instance, std::optional<uint32_t> npiv_index = {});

std::string sentence(const Failure& failure);
Json to_json(const Failure& failure);

}  // namespace trelmctl
