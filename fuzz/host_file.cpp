// host_file.cpp - host files with any content are accepted, or refused with lines that begin with the name of
// the file and contain no control characters.
#include "host_file.h"

#include "host_error.h"
#include "target.h"

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    try {
        hostsim::parse_host({reinterpret_cast<const char*>(data), size}, "host.json", "/");
    } catch (const hostsim::HostError& error) {
        const std::string_view message = error.what();
        REQUIRE(message.starts_with("host.json:"));
        REQUIRE(std::none_of(message.begin(), message.end(),
                             [](char c) { return (c >= 0 && c < ' ' && c != '\n') || c == 0x7F; }));
    }
    return 0;
}
