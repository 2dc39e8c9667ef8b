// programs.h - a directory that is removed with its test, and programs that run in it. Their output goes to
// files, so that neither stream can block the other.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "golden.h"
#include "places.h"

namespace trelm::test {

using Words = std::vector<std::string>;
inline Words operator+(Words first, const Words& then) {
    first.insert(first.end(), then.begin(), then.end());
    return first;
}
inline Words words_of(const std::string& text) {
    std::istringstream stream(text);
    return {std::istream_iterator<std::string>(stream), {}};
}

inline const std::string kLauncher = binary_dir() + "/bin/trelm-hostsim";

struct ProgramResult {
    int status = -1;  // as in a shell
    std::string out, errors;
};

class Programs : public ::testing::Test {
  protected:
    ~Programs() override {
        std::error_code ignored;
        std::filesystem::remove_all(directory_, ignored);
    }
    std::string at(const std::string& name) const { return directory_ / name; }
    void write(const std::string& name, const std::string& text) const { std::ofstream(at(name)) << text; }

    // The output goes to the files "out" and "errors", or standard output to the given file.
    pid_t start(const Words& words, const std::string& out = "") const {
        std::vector<char*> arguments;
        for (const std::string& word : words) arguments.push_back(const_cast<char*>(word.c_str()));
        arguments.push_back(nullptr);
        const std::string files[]{"/dev/null", out.empty() ? at("out") : out, at("errors")};
        const pid_t child = fork();
        if (child != 0) return child;
        for (int i = 0; i < 3; ++i) {
            const int fd = open(files[i].c_str(), i == 0 ? O_RDONLY : O_WRONLY | O_CREAT | O_TRUNC, 0600);
            if (dup2(fd, i) != i) _exit(99);
        }
        execv(arguments[0], arguments.data());
        _exit(99);
    }
    ProgramResult finish(pid_t child) const {
        int status = 0;
        if (waitpid(child, &status, 0) != child || !WIFEXITED(status)) return {};
        return {WEXITSTATUS(status), text_of(at("out")), text_of(at("errors"))};
    }
    ProgramResult execute(const Words& words, const std::string& out = "") const {
        return finish(start(words, out));
    }

  private:
    static std::filesystem::path make_directory() {
        std::string name = (std::filesystem::temp_directory_path() / "programs-XXXXXX").string();
        return std::filesystem::canonical(mkdtemp(name.data()));
    }
    std::filesystem::path directory_ = make_directory();
};

}  // namespace trelm::test
