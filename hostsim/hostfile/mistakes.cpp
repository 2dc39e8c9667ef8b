// mistakes.cpp - escapes control characters in every text of a host file that appears in a message.
#include "mistakes.h"

#include <fmt/format.h>

#include <algorithm>

#include "host_error.h"
#include "printable.h"

namespace hostsim {

std::string Mistakes::line(size_t offset, std::string_view pointer, std::string_view reason) const {
    const std::string_view before = text_.substr(0, std::min(offset, text_.size()));
    const auto lines = 1 + std::count(before.begin(), before.end(), '\n');
    const size_t start = before.rfind('\n') == std::string_view::npos ? 0 : before.rfind('\n') + 1;
    return printable(fmt::format("{}:{}:{}: {}{}{}", name_, lines, before.size() - start + 1, pointer,
                                 pointer.empty() ? "" : ": ", reason));
}

void Mistakes::add(size_t offset, std::string_view pointer, std::string_view reason) {
    if (found_.size() < kShown)
        found_.push_back({offset, line(offset, pointer, reason)});
    else
        more_ = true;
}

void Mistakes::raise() {
    if (found_.empty()) return;
    std::stable_sort(found_.begin(), found_.end(),
                     [](const Found& left, const Found& right) { return left.offset < right.offset; });
    std::string all;
    for (const Found& found : found_) all += (all.empty() ? "" : "\n") + found.line;
    if (more_) all += "\n" + printable(name_) + ": there are more mistakes";
    throw HostError(all);
}

}  // namespace hostsim
