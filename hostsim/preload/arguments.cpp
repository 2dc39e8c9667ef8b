#include "arguments.h"

#include <cstring>

#include "driver_files.h"
#include "interpose.h"

namespace hostsim {

Path::Path(const char* path) noexcept : path_(path) {
    const State* state = serving_state();
    if (state == nullptr) return;
    kind_ = map_path(path, state->root(), state->passed(), mapped_);
    if (kind_ == PathKind::machine) return;
    path_ = mapped_;
    if (kind_ != PathKind::files) refresh_driver_files(kind_);
}

Look::Look(const char* path) noexcept : Path(path) {
    if (kind_ != PathKind::node) return;
    const Host* host = serving_host();
    const OwnCalls own;
    device_ = host != nullptr && host->legacy_node() == NodeKind::device;
    if (device_) path_ = "/dev/null";
}

Template::Template(char* text) noexcept : text_(text) {
    const State* state = serving_state();
    is_mapped_ =
        state != nullptr && map_path(text, state->root(), state->passed(), mapped_) != PathKind::machine;
}

Template::~Template() {
    if (!is_mapped_) return;
    const std::string_view name = std::strrchr(mapped_, '/');
    char* own_name = std::strrchr(text_, '/');
    if (name.size() == std::strlen(own_name)) name.copy(own_name, name.size());
}

void show_path(char* path) noexcept {
    const State* state = serving_state();
    if (state == nullptr || path == nullptr) return;
    const std::string_view seen = seen_path(path, state->root());
    std::memmove(path, seen.data(), seen.size() + 1);
}

}  // namespace hostsim
