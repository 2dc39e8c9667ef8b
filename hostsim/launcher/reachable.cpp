#include "reachable.h"

#include <elf.h>
#include <fcntl.h>
#include <link.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cstring>

#include "descriptor.h"
#include "texts.h"

namespace hostsim {
namespace {

constexpr int kMostInterpreters = 5;  // the limit of the kernel

bool is_program(const std::string& path) {
    struct stat status {};
    return stat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode) && access(path.c_str(), X_OK) == 0;
}

std::string find_program(const std::string& command, std::string_view search_path) {
    if (command.find('/') != std::string::npos) return is_program(command) ? command : "";
    for (const std::string& directory : split(search_path, ":"))
        if (std::string path = directory + "/" + command; is_program(path)) return path;
    return "";
}

std::optional<ElfW(Ehdr)> elf_header(int file) {
    ElfW(Ehdr) header{};
    if (pread(file, &header, sizeof header, 0) != sizeof header) return std::nullopt;
    if (std::memcmp(header.e_ident, ELFMAG, SELFMAG) != 0) return std::nullopt;
    return header;
}

bool has_dynamic_linker(int file, const ElfW(Ehdr) & header) {
    for (unsigned i = 0; i < header.e_phnum; ++i) {
        ElfW(Phdr) segment{};
        const auto at = static_cast<off_t>(header.e_phoff + uint64_t{i} * header.e_phentsize);
        if (pread(file, &segment, sizeof segment, at) != sizeof segment) return true;
        if (segment.p_type == PT_INTERP) return true;
    }
    return false;
}

bool is_of_own_kind(const ElfW(Ehdr) & header) {
    const Descriptor self(open("/proc/self/exe", O_RDONLY | O_CLOEXEC));
    const auto own = elf_header(self.get());
    return !own || (own->e_ident[EI_CLASS] == header.e_ident[EI_CLASS] && own->e_machine == header.e_machine);
}

// In secure-execution mode the dynamic linker ignores LD_PRELOAD.
bool gains_rights(int file) {
    struct stat status {};
    if (fstat(file, &status) != 0) return false;
    if ((status.st_mode & S_ISUID) != 0 && status.st_uid != getuid()) return true;
    if ((status.st_mode & S_ISGID) != 0 && (status.st_mode & S_IXGRP) != 0 && status.st_gid != getgid())
        return true;
    return getuid() != 0 && fgetxattr(file, "security.capability", nullptr, 0) > 0;
}

// The interpreter in the first line of a script. execvp runs other texts with the shell.
std::string interpreter(int file) {
    char text[256]{};
    if (pread(file, text, sizeof text - 1, 0) < 2 || text[0] != '#' || text[1] != '!') return "/bin/sh";
    const char* begin = text + 2 + std::strspn(text + 2, " \t");
    return {begin, std::strcspn(begin, " \t\n")};
}

}  // namespace

std::optional<std::string> why_unreachable(const std::string& command, std::string_view search_path) {
    std::string program = find_program(command, search_path);
    for (int i = 0; i <= kMostInterpreters; ++i) {
        const Descriptor file(open(program.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
        if (!file) return std::nullopt;
        const auto header = elf_header(file.get());
        if (!header) {
            program = interpreter(file.get());
            continue;
        }
        if (!is_of_own_kind(*header)) return program + " is built for another processor architecture";
        if (!has_dynamic_linker(file.get(), *header)) return program + " is statically linked";
        if (gains_rights(file.get())) return program + " runs with rights of another user or group";
        return std::nullopt;
    }
    return std::nullopt;
}

}  // namespace hostsim
