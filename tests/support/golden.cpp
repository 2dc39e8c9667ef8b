#include "golden.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <regex>
#include <sstream>

#include "own_calls.h"

namespace trelm::test {

namespace fs = std::filesystem;

std::string text_of(const fs::path& path) {
    std::ifstream file(path, std::ios::binary);
    std::string text;
    for (char piece[4096]; file.read(piece, sizeof piece), file.gcount() > 0;)
        text.append(piece, static_cast<std::size_t>(file.gcount()));
    return text;
}

void expect_golden(const fs::path& file, const std::string& text) {
    const hostsim::OwnCalls own;  // the file is on the machine, even if it is below /tmp
    if (std::getenv("TRELM_REFRESH_GOLDEN") != nullptr) std::ofstream(file) << text;
    EXPECT_EQ(text, text_of(file));
}

void expect_told_commands(const fs::path& file,
                          const std::function<std::string(const std::string& line)>& tell) {
    std::istringstream lines(text_of(file));
    std::string told;
    for (std::string line; std::getline(lines, line);) {
        if (line.starts_with("$ ")) told += tell(line);
    }
    expect_golden(file, told);
}

std::vector<std::string> golden_names(const fs::path& directory) {
    std::vector<std::string> names;
    for (const auto& file : fs::directory_iterator(directory)) names.push_back(file.path().stem());
    return names;
}

struct Pattern::Compiled {
    std::regex regex;
};

Pattern::Pattern(const std::string& expression) : compiled_(new Compiled{std::regex(expression)}) {}

bool Pattern::is_whole(const std::string& text) const { return std::regex_match(text, compiled_->regex); }

bool Pattern::is_in(const std::string& text) const { return std::regex_search(text, compiled_->regex); }

std::vector<std::size_t> Pattern::positions_in(const std::string& text) const {
    std::vector<std::size_t> positions;
    for (std::sregex_iterator found(text.begin(), text.end(), compiled_->regex), end; found != end; ++found)
        positions.push_back(static_cast<std::size_t>(found->position()));
    return positions;
}

std::string Pattern::replaced_in(const std::string& text, const std::string& replacement) const {
    return std::regex_replace(text, compiled_->regex, replacement);
}

}  // namespace trelm::test
