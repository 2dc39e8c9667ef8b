// text_file.h - replaces a file so that readers see the old text or the new one, never a part.
#pragma once

#include <string>
#include <string_view>

namespace trelmctl::metrics {

// Throws CommandFailed; the file is then as it was. What is no regular file is not replaced.
void replace_file(const std::string& path, std::string_view text);

}  // namespace trelmctl::metrics
