#include "web_config.h"

#include <fmt/format.h>
#include <yaml-cpp/yaml.h>

#include <algorithm>
#include <cctype>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <set>
#include <string_view>

#include "failure.h"
#include "text.h"

namespace trelmctl::metrics {
namespace {

[[noreturn]] void fail(const std::string& path, const std::string& what) {
    Failure failure = tool_failure("WEB_CONFIG", fmt::format("{}: {}", escaped(path), what),
                                   "docs/metrics.md lists the supported keys");
    failure.operation = "reading the web configuration";
    throw CommandFailed(std::move(failure));
}

// Whether the name of a header may contain it.
bool is_token_character(unsigned char character) {
    return std::isalnum(character) != 0 ||
           (character != 0 && std::strchr("!#$%&'*+-.^_`|~", character) != nullptr);
}

// For example $2y$10$, followed by salt and hash.
bool is_bcrypt(std::string_view text) {
    constexpr std::size_t kLength = 60;
    constexpr std::size_t kBegin = 7;
    const auto is_digit = [&](std::size_t at) {
        return std::isdigit(static_cast<unsigned char>(text[at])) != 0;
    };
    return text.size() == kLength && text.starts_with("$2") && text[3] == '$' && is_digit(4) && is_digit(5) &&
           text[6] == '$' && std::all_of(text.begin() + kBegin, text.end(), [](unsigned char character) {
               return std::isalnum(character) != 0 || character == '.' || character == '/';
           });
}

// One configuration file while it is read.
class Reader {
  public:
    explicit Reader(std::string path) : path_(std::move(path)) {}

    WebConfig read() {
        const YAML::Node top = YAML::Load(text_of(path_));
        check_keys(top, "the file", {"tls_server_config", "http_server_config", "basic_auth_users"});
        if (top["tls_server_config"]) read_tls(top["tls_server_config"]);
        if (top["http_server_config"]) read_http(top["http_server_config"]);
        for (const auto& user : map_of(top, "basic_auth_users")) add_user(user.first, user.second);
        return std::move(config_);
    }

  private:
    std::string text_of(const std::filesystem::path& path) const {
        std::ifstream file(path, std::ios::binary);
        std::string text{std::istreambuf_iterator<char>(file), {}};
        if (!file) fail(path_, fmt::format("{} cannot be read", escaped(path.string())));
        return text;
    }

    void check_keys(const YAML::Node& node, std::string_view where,
                    const std::set<std::string>& known) const {
        if (node.IsNull()) return;
        if (!node.IsMap()) fail(path_, fmt::format("{} is not a map of keys", where));
        for (const auto& entry : node) {
            const auto key = entry.first.as<std::string>();
            if (!known.contains(key))
                fail(path_, fmt::format("{}: the key {} is not supported", where, escaped(key)));
        }
    }

    std::map<std::string, std::string> map_of(const YAML::Node& node, const char* key) const {
        const YAML::Node value = node[key];
        if (!value || value.IsNull()) return {};
        if (!value.IsMap()) fail(path_, fmt::format("{} is not a map of keys", key));
        return value.as<std::map<std::string, std::string>>();
    }

    std::string file_named_by(const YAML::Node& node, const char* key) const {
        if (!node[key]) fail(path_, fmt::format("tls_server_config: {} is missing", key));
        return text_of(std::filesystem::path(path_).parent_path() / node[key].as<std::string>());
    }

    void read_tls(const YAML::Node& tls) {
        check_keys(tls, "tls_server_config", {"cert_file", "key_file", "min_version", "client_auth_type"});
        if (tls["client_auth_type"] && tls["client_auth_type"].as<std::string>() != "NoClientCert")
            fail(path_, "client_auth_type must be NoClientCert: client certificates are not supported");
        config_.certificate = file_named_by(tls, "cert_file");
        config_.key = file_named_by(tls, "key_file");
        const std::string least = tls["min_version"] ? tls["min_version"].as<std::string>() : "TLS12";
        if (least != "TLS12" && least != "TLS13") fail(path_, "min_version must be TLS12 or TLS13");
        config_.priorities = least == "TLS13" ? "SECURE128:-VERS-ALL:+VERS-TLS1.3"
                                              : "SECURE128:-VERS-ALL:+VERS-TLS1.3:+VERS-TLS1.2";
    }

    void read_http(const YAML::Node& http) {
        // HTTP/1.1 is served either way, and every client of HTTP/2 speaks it.
        check_keys(http, "http_server_config", {"headers", "http2"});
        config_.headers = map_of(http, "headers");
        for (const auto& [name, value] : config_.headers) {
            if (name.empty() || !std::all_of(name.begin(), name.end(), is_token_character))
                fail(path_, fmt::format("headers: {} is not a valid header name", escaped(name)));
            if (value.find_first_of("\r\n") != std::string::npos)
                fail(path_, fmt::format("headers: {} has more than one line", escaped(name)));
        }
    }

    void add_user(const std::string& name, const std::string& hash) {
        if (name.empty() || name.find(':') != std::string::npos)
            fail(path_, "basic_auth_users: a user name is empty or contains a colon");
        if (!is_bcrypt(hash))
            fail(path_, fmt::format("basic_auth_users: {} has no bcrypt hash", escaped(name)));
        config_.users.emplace(name, hash);
    }

    std::string path_;
    WebConfig config_;
};

}  // namespace

WebConfig read_web_config(const std::string& path) {
    try {
        return Reader(path).read();
    } catch (const YAML::Exception& error) {
        fail(path, escaped(error.what()));
    }
}

}  // namespace trelmctl::metrics
