// golden.h - texts in files that a test compares with what it gets. After an intended change `./dev golden`
// writes the files again. Read the difference before you commit it.
#pragma once

#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace trelm::test {

// What can be read of a file: a file of /proc ends with an error when its process does.
std::string text_of(const std::filesystem::path& path);

void expect_golden(const std::filesystem::path& file, const std::string& text);

// Compares the file with what `tell` returns for each of its command lines, which begin with "$ ".
void expect_told_commands(const std::filesystem::path& file,
                          const std::function<std::string(const std::string& line)>& tell);

// The names of the files of a directory, without ".txt".
std::vector<std::string> golden_names(const std::filesystem::path& directory);

// A regular expression. <regex> costs a source seconds of compile time, so only one source includes it.
class Pattern {
  public:
    explicit Pattern(const std::string& expression);
    bool is_whole(const std::string& text) const;
    bool is_in(const std::string& text) const;
    // The positions at which it begins in the text.
    std::vector<std::size_t> positions_in(const std::string& text) const;
    std::string replaced_in(const std::string& text, const std::string& replacement) const;

  private:
    struct Compiled;
    std::shared_ptr<const Compiled> compiled_;
};

}  // namespace trelm::test
