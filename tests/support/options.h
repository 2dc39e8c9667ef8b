// options.h - options of test programs. The parser costs a source seconds of compile time, so only one source includes it.
#pragma once

#include <memory>
#include <string>
#include <vector>

namespace trelm::test {

// Values keep what they hold where an option is absent.
class Options {
  public:
    explicit Options(const std::string& purpose);
    ~Options();
    Options(const Options&) = delete;
    Options& operator=(const Options&) = delete;
    Options& number(const std::string& name, unsigned& value, const std::string& meaning);
    Options& choice(const std::string& name, std::string& value, const std::vector<std::string>& allowed,
                    const std::string& meaning);
    Options& flag(const std::string& name, bool& value, const std::string& meaning);
    // Ends the process if help was asked for, or after a complaint about the arguments.
    void read(int argc, const char* const* argv);

  private:
    struct Parser;
    std::unique_ptr<Parser> parser_;
};

}  // namespace trelm::test
