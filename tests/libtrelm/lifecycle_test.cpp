// From load to free: the order of discovery, the conditions of a load, the choice of the driver, and complete
// cleanup.
#include <sys/utsname.h>

#include "load.h"
#include "support/libc_replacements.h"
#include "support/port_calls.h"
#include "support/story.h"

static bool opens_fail_silently = false;  // without an error number
static std::vector<int> node_flags;       // of the opens of the legacy node
static bool uname_fails = false;

REPLACES_LIBC(int, uname, (utsname * names)) {
    const int result = NEXT_OF(uname)(names);
    return uname_fails ? -1 : result;
}

REPLACES_LIBC(int, open, (const char* path, int flags, mode_t mode)) {
    const int fd = NEXT_OF(open)(path, flags, mode);
    if (fd == -1 && opens_fail_silently) errno = 0;
    if (strcmp(path, "/dev/char/vmkdriver/dorfc") == 0) node_flags.push_back(flags);
    return fd;
}

namespace {

using namespace trelm::test;

// The drivers that were asked for their ports, in order.
std::string asked(const hostsim::Host& host) {
    std::string order;
    for (const hostsim::DriverCall& call : calls_of(host, Operation::hba_count))
        order.append(hostsim::kDriverKindNames.at(static_cast<size_t>(call.driver))).append(" ");
    return order;
}

TEST(Load, TriesPyxOrLegacyAndThenKron) {
    struct Row {
        std::array<int, 3> ports;  // of the kron, pyx and legacy driver; -1: absent
        uint32_t status, found;    // if nothing is found, the library stays unloaded
        std::string asked;
    };
    for (const Row& row : {Row{{1, 1, 2}, 0, 2, "pyx kron "},
                           {{1, -1, 2}, 0, 3, "legacy kron "},
                           {{-1, -1, 2}, 0, 2, "legacy "},
                           {{2, -1, -1}, 0, 2, "kron "},
                           {{1, 0, 2}, 0, 1, "pyx kron "},
                           {{1, -1, 0}, 0, 1, "legacy kron "},
                           {{-1, 0, 2}, 0, 0, "pyx "},
                           {{-1, -1, 0}, 0, 0, "legacy "},
                           {{0, -1, -1}, TRELM_STATUS_FAILED, 0, "kron "},
                           {{-1, -1, -1}, TRELM_STATUS_FAILED, 0, ""}}) {
        SCOPED_TRACE(testing::PrintToString(row.ports));
        hostsim::Model model;
        model.system_name = "a VMkernel of its own";
        for (const DriverKind kind : {DriverKind::kron, DriverKind::pyx, DriverKind::legacy}) {
            const int ports = row.ports.at(static_cast<size_t>(kind));
            if (ports == -1) continue;
            model.driver(kind).presence = hostsim::Driver::Presence::present;
            if (ports) hostsim::hosts::add_adapter(model, kind, static_cast<size_t>(ports), 1);
        }
        const hostsim::Host host(model);
        EXPECT_EQ(TRELM_LoadLibrary(), row.status);
        EXPECT_EQ(asked(host), row.asked);
        EXPECT_EQ(TRELM_LoadLibrary(), row.status);
        EXPECT_EQ(asked(host), row.found ? row.asked : row.asked + row.asked)
            << "a load that found no port is made anew, another is not";
        uint32_t count = 99;
        EXPECT_EQ(TRELM_GetPortCount(&count), row.found ? TRELM_STATUS_OK : TRELM_STATUS_FAILED);
        EXPECT_EQ(count, row.found ? row.found : 99U);
        EXPECT_EQ(TRELM_FreeLibrary(), TRELM_STATUS_OK);
    }
}

using GoldenLoad = GoldenStory;
TRELM_IN_EACH_CATEGORY(GoldenLoad);

TEST_P(GoldenLoad, TellsWhyItFails) {
    const auto edit_and_tell = [this](const char* what, void (*edit)(hostsim::Model&)) {
        host.edit(edit);
        story.tell(std::string("TRELM_LoadLibrary(), ") + what, TRELM_LoadLibrary);
        TELL(trelm_os_type);
        TELL(trelm_priv_database != nullptr);
    };
    edit_and_tell("a user other than root", [](hostsim::Model& model) { model.effective_user = 1000; });
    edit_and_tell("a system other than ESXi",
                  [](hostsim::Model& model) { model.effective_user = 0, model.system_name = "vmkernel"; });
    uname_fails = true;
    edit_and_tell("a system without a name", [](hostsim::Model& model) { model.system_name = "VMkernel"; });
    uname_fails = false;
    edit_and_tell("no ports", [](hostsim::Model&) {});
    EXPECT_TRUE(calls_of(host, Operation::hostno).empty());
    std::filesystem::create_directory("/tmp/trelm_shared.dat");
    edit_and_tell("no shared file",
                  [](hostsim::Model& model) { hostsim::hosts::add_adapter(model, DriverKind::kron, 1); });
    std::filesystem::remove("/tmp/trelm_shared.dat");
    edit_and_tell("nothing amiss", [](hostsim::Model&) {});
    uint32_t count = 4711;
    const auto fildes = std::exchange(trelm_shm_fildes, -1);
    TELL(TRELM_LoadLibrary());
    TELL((TRELM_GetPortCount(&count), count));
    TELL(TRELM_GetPortCount(&count));
    trelm_shm_fildes = fildes;
    TRELM_FreeLibrary();
    story.expect_golden("loads");
}

using Lifecycle = OnEachDriver;
TRELM_ON_EACH_DRIVER(Lifecycle);

TEST_P(Lifecycle, ReadsTheDebugFlagsOnlyAtLoadsAndOpens) {
    uint32_t handle = 0, count = 0;
    const std::pair<const char*, std::function<void()>> calls[] = {
        {"4", [&] { TRELM_GetPortCount(&count); }},
        {"10", [&] { TRELM_LoadLibrary(); }},
        {"20", [&] { TRELM_OpenAdapter(0, &handle); }},
        {"40", [&] { TRELM_CloseAdapter(handle); }},
        {"80", [&] { TRELM_FreeLibrary(); }}};
    std::vector<uint32_t> flags;
    for (const auto& [value, call] : calls) {
        setenv("TRELM_API_DEBUG", value, 1);
        call();
        flags.push_back(trelm_debug);
    }
    EXPECT_THAT(flags, ElementsAre(0, 0x10, 0x20, 0x20, 0x20));
}

TEST(LegacyPort, ReturnsTheSystemsErrorIfItsNodeCannotBeOpenedOrClosed) {
    LoadedLibrary library(two_port_host(DriverKind::legacy));
    library.host.inject(fault(Operation::open, {.error = EACCES}));
    uint32_t handle = 0;
    EXPECT_EQ(TRELM_OpenAdapter(1, &handle), uint32_t{EACCES});
    opens_fail_silently = true;
    library.host.inject(fault(Operation::open, {.error = EACCES}));
    EXPECT_EQ(TRELM_OpenAdapter(1, &handle), TRELM_STATUS_FAILED);
    EXPECT_EQ(handle, 0U);
    open_port(1);
    const int node = registry().at(1)->hw_info->oshandle;
    EXPECT_EQ(node_flags[0], O_RDONLY | O_CLOEXEC) << "to see whether there is a node";
    node_flags[0] = node_flags[1];
    EXPECT_THAT(node_flags, testing::Each(O_RDWR | O_CLOEXEC));
    library.host.inject(fault(Operation::close, {.error = EIO}));
    EXPECT_EQ(TRELM_CloseAdapter(2), uint32_t{EIO});
    put_back(node);
    EXPECT_EQ(TRELM_CloseAdapter(2), TRELM_STATUS_OK) << "what could not be closed stays open";
}

// The device of a native port decides which driver serves it.
TEST(DriverOfAPort, FollowsFromItsDevice) {
    hostsim::Model model = hostsim::hosts::empty();
    for (const DriverKind kind : {DriverKind::kron, DriverKind::pyx}) {
        for (const uint16_t device : {0x8080, 0x8180, 0x165C, 0x1662, 0x16A1})
            hostsim::hosts::add_adapter(model, kind, 1).device_id = device;
    }
    const LoadedLibrary library(model);
    LogCapture log;
    for (uint32_t instance = 0; instance < 10; ++instance) {
        const uint16_t device = trelm_get_pdb_from_user_instance(instance)->hw_info->device_id;
        const bool kron = device == 0x8080 || device == 0x8180 || device == 0x165C;
        log.take();
        open_port(instance);
        EXPECT_THAT(log.take().at(1), testing::StartsWith(kron ? "trelmnt_" : "trelm_pyxnt_"));
    }
}

TEST(Version, FitsTheCallersBuffer) {
    for (const uint32_t size : {0U, 1U, 2U, 12U, 13U, 14U, 100U}) {
        GuardedBytes buffer(100);
        Bytes expected = Bytes::initial(100);
        if (size)
            expected.text(0, std::string("v5.00 build2").substr(0, size - 1), std::min<size_t>(size, 13));
        EXPECT_EQ(TRELM_GetVersion(buffer.data(), size), 0x05000200U);
        EXPECT_EQ(contents(buffer), expected.all()) << size;
    }
}

}  // namespace
