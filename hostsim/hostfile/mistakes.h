// mistakes.h - collects the mistakes in a host file as lines "NAME:LINE:COLUMN: /json/pointer: reason".
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace hostsim {

class Mistakes {
  public:
    static constexpr size_t kShown = 10;

    Mistakes(std::string name, std::string_view text) : name_(std::move(name)), text_(text) {}

    // `offset` is a place in the text; an empty pointer is left out.
    void add(size_t offset, std::string_view pointer, std::string_view reason);
    // Throws a HostError that shows up to ten of them in the order of their places, if there are any.
    void raise();

    std::string line(size_t offset, std::string_view pointer, std::string_view reason) const;

  private:
    struct Found {
        size_t offset;
        std::string line;
    };

    std::string name_;
    std::string_view text_;
    std::vector<Found> found_;
    bool more_ = false;
};

}  // namespace hostsim
