// text_file.h - replaces a file so that readers see the old text or the new one, never a part.
#pragma once

#include <string>
#include <string_view>

namespace trelmctl::metrics {

// Throws CommandFailed and leaves the file unchanged if it cannot be replaced or is not a regular file.
void replace_file(const std::string& path, std::string_view text);

}  // namespace trelmctl::metrics
