// places.h - the paths of the build tree and the source tree.
#pragma once

#include <string>

namespace trelm::test {

std::string binary_dir();
std::string source_dir();

}  // namespace trelm::test
