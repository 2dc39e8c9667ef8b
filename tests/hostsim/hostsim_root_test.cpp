// hostsim_root_test.cpp - the root directory of a host on a machine with hostile users: which directories are
// accepted. golden/roots.txt and golden/killed_hosts.txt show what commands can show.
#include <gmock/gmock.h>

#include <system_error>

#include "host.h"
#include "host_builders.h"
#include "support/libc_replacements.h"
#include "support/programs.h"

static bool disk_is_full = false;

REPLACES_LIBC(int, posix_fallocate, (int fd, off_t offset, off_t size)) {
    return disk_is_full ? ENOSPC : NEXT_OF(posix_fallocate)(fd, offset, size);
}

namespace {

namespace fs = std::filesystem;
using testing::AllOf;
using testing::HasSubstr;
using namespace trelm::test;

class HostsimRoot : public Programs {
  protected:
    HostsimRoot() { write("host.json", R"({"name": "esx-root", "adapters": []})"); }
    Words run_on(const std::string& root, const Words& command) const {
        return Words{kLauncher, "run", at("host.json"), "--root", root, "--"} + command;
    }
};

TEST_F(HostsimRoot, IsNeverInADirectoryOfAnotherUser) {
    fs::create_directory(at("others"));
    if (chown(at("others").c_str(), 65534, 65534) != 0) GTEST_SKIP() << "this user cannot act for another";
    const std::pair<const char*, const char*> refused[]{{"others", "belongs to another user (uid 65534)"},
                                                        {"others/new/root", "above the root"}};
    for (const auto& [root, reason] : refused) {
        const ProgramResult outcome = execute(run_on(at(root), {"touch", at("ran")}));
        EXPECT_EQ(outcome.status, 125) << root;
        EXPECT_THAT(outcome.errors, AllOf(HasSubstr(at("others") + ": "), HasSubstr(reason)));
    }
    EXPECT_TRUE(fs::is_empty(at("others")) && !fs::exists(at("ran")));
}

// Runs as an unprivileged user, who cannot harm the machine if the check fails.
TEST_F(HostsimRoot, IsNeverTheMachinesOwn) {
    fs::permissions(at(""), fs::perms(0755));
    const Words harmless{"/usr/bin/setpriv", "--reuid=65534", "--regid=65534", "--clear-groups"};
    for (const char* root : {"/", "//", "/tmp/.."}) {
        const Words command = run_on(root, {"true"});
        const ProgramResult outcome = execute(getuid() == 0 ? harmless + command : command);
        EXPECT_EQ(outcome.status, 125) << root;
        EXPECT_THAT(outcome.errors, HasSubstr("the machine's own root")) << root;
    }
}

// A host without room for its shared file would later end with a bus error.
TEST_F(HostsimRoot, IsNotMadeOnAFullDisk) {
    const std::string temporary = at("temporary");
    fs::create_directory(temporary);
    setenv("TMPDIR", temporary.c_str(), 1);
    disk_is_full = true;
    EXPECT_THROW(hostsim::Host{hostsim::hosts::empty()}, std::system_error);
    disk_is_full = false;
    EXPECT_TRUE(fs::is_empty(temporary));
}

}  // namespace
