// host_file.cpp - host files of any content: taken, or refused with a message that begins with the file's
// name.
#include "host_file.h"

#include "host_error.h"
#include "target.h"

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    try {
        hostsim::parse_host({reinterpret_cast<const char*>(data), size}, "host.json", "/");
    } catch (const hostsim::HostError& error) {
        REQUIRE(std::string_view(error.what()).starts_with("host.json:"));
    }
    return 0;
}
