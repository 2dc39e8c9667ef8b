// web_config.h - a web configuration file in the format of the Prometheus exporter toolkit: TLS, users with
// their bcrypt hashes, and headers of responses. An unsupported key is refused, so that nobody relies on
// protection that is not there.
#pragma once

#include <map>
#include <string>

namespace trelmctl::metrics {

struct WebConfig {
    std::string certificate;                     // PEM, with the chain; empty: no TLS
    std::string key;                             // PEM
    std::string priorities;                      // protocol versions and ciphers, for the TLS library
    std::map<std::string, std::string> users;    // bcrypt hash by name; empty: everyone is admitted
    std::map<std::string, std::string> headers;  // of every response
};

// Paths in the file are relative to its directory. Throws CommandFailed.
WebConfig read_web_config(const std::string& path);

}  // namespace trelmctl::metrics
