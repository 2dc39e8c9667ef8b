#include "fresh_host.h"

namespace trelmctl {

const LoadedHost* FreshHost::get() {
    if (std::chrono::steady_clock::now() - loaded_ >= most_age_) {
        try {
            load();
        } catch (const CommandFailed&) {
            host_.reset();
        }
    }
    return host_.get();
}

void FreshHost::load() {
    loaded_ = std::chrono::steady_clock::now();
    host_.reset();
    host_ = std::make_unique<LoadedHost>();
}

}  // namespace trelmctl
