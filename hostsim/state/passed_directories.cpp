#include "passed_directories.h"

#include <string>
#include <system_error>

#include "root_layout.h"

namespace hostsim {
namespace fs = std::filesystem;

bool is_hidden(const fs::path& directory) {
    const std::string text = directory.string();
    return text.starts_with(std::string(layout::kTmp) + "/") ||
           text.starts_with(std::string(layout::kVarTmp) + "/");
}

void PassedDirectories::add(const fs::path& directory) {
    std::error_code error;
    if (!directory.empty() && fs::is_directory(directory, error)) add_forms(directory);
}

void PassedDirectories::add_file(const fs::path& file) {
    std::error_code error;
    if (fs::is_regular_file(file, error)) add_forms(file);
}

void PassedDirectories::add_forms(const fs::path& place) {
    std::error_code error;
    for (const fs::path& form : {fs::absolute(place).lexically_normal(), fs::canonical(place, error)}) {
        std::string text = form.string();
        while (text.size() > 1 && text.back() == '/') text.pop_back();
        if (is_hidden(text)) directories_.push_back(text);
    }
}

void PassedDirectories::add_working_directory() {
    std::error_code error;
    add(fs::current_path(error));
}

}  // namespace hostsim
