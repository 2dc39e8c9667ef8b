// errno_names.cpp - libc has the name of each number, so the number of a name is found by trying all numbers.
#include "errno_names.h"

#include <cerrno>
#include <cstring>

namespace hostsim {
namespace {

constexpr int kLast = 133;

struct SecondName {
    std::string_view name;
    int error;
};
constexpr SecondName kSecondNames[]{{"EWOULDBLOCK", EWOULDBLOCK}, {"EDEADLOCK", EDEADLOCK}};

}  // namespace

int errno_by_name(std::string_view name) {
    for (int error = 1; error <= kLast; ++error) {
        const char* const known = strerrorname_np(error);
        if (known && name == known) return error;
    }
    for (const SecondName& second : kSecondNames) {
        if (second.name == name) return second.error;
    }
    return 0;
}

std::vector<std::string_view> errno_names() {
    std::vector<std::string_view> names;
    for (int error = 1; error <= kLast; ++error) {
        if (const char* const known = strerrorname_np(error)) names.emplace_back(known);
    }
    for (const SecondName& second : kSecondNames) names.push_back(second.name);
    return names;
}

}  // namespace hostsim
