// places.h - where the build tree and the source tree lie.
#pragma once

#include <string>

namespace trelm::test {

std::string binary_dir();
std::string source_dir();

}  // namespace trelm::test
