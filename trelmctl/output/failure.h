// failure.h - what went wrong, in a form that both a person and a program can use: the code with its name and
// meaning, the operation, the port, and what to do about it. Also the exit statuses of the tool.
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
    std::optional<uint32_t> code;  // a library's or system's; none where the tool itself refuses
    std::string name;  // for programs: TRELM_STATUS_FAILED, EACCES, USAGE, CHECK_CONDITION and so on
    std::string meaning;
    std::string advice;     // may be empty
    std::string operation;  // a library function, or what the tool was doing; may be empty
    std::string port;       // "0" or "0/1"; empty where no port is concerned
    ExitStatus exit_status = ExitStatus::failed;
};

// Ends a command that cannot go on.
class CommandFailed : public std::exception {
  public:
    explicit CommandFailed(Failure failure) : failure_(std::move(failure)) {}
    const Failure& failure() const noexcept { return failure_; }
    const char* what() const noexcept override { return failure_.meaning.c_str(); }

  private:
    Failure failure_;
};

Failure explain(const trelm::Error& error);
// `no_port`: the load ended because no port was found.
Failure explain_load(const trelm::Error& error, bool no_port);
Failure no_ports();
Failure usage_failure(std::string meaning);
// Of the tool itself, with no port or function of the library concerned.
Failure tool_failure(std::string name, std::string meaning, std::string advice);

// How a port is named: its instance number, and its NPIV index where one was given.
std::string port_label(std::optional<uint32_t> instance, std::optional<uint32_t> npiv_index = {});

std::string sentence(const Failure& failure);
Json to_json(const Failure& failure);

}  // namespace trelmctl
