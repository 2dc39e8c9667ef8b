// web_config.h - a web configuration file, in the format of the Prometheus exporter toolkit: TLS, users with
// their bcrypt hashes, and headers of responses. A key that would not be carried out is refused, so that nobody
// takes for protected what is not.
#pragma once

#include <map>
#include <string>

namespace trelmctl::metrics {

struct WebConfig {
    std::string certificate;                     // PEM, with its chain; empty: no TLS
    std::string key;                             // PEM
    std::string priorities;                      // of the TLS library
    std::map<std::string, std::string> users;    // bcrypt hash by name; none: everybody is let in
    std::map<std::string, std::string> headers;  // of every response
};

// Paths in the file are relative to its directory. Throws CommandFailed.
WebConfig read_web_config(const std::string& path);

}  // namespace trelmctl::metrics
