// From load to free: the order of discovery, the conditions of a load, the results and lines of every call in
// each state, the choice of the driver, and complete cleanup.
#include <sys/utsname.h>

#include "load.h"
#include "support/libc_replacements.h"
#include "support/port_calls.h"

static bool opens_fail_silently = false;  // without an error number

static bool uname_fails = false;

REPLACES_LIBC(int, uname, (utsname * names)) {
    const int result = NEXT_OF(uname)(names);
    return uname_fails ? -1 : result;
}

REPLACES_LIBC(int, open, (const char* path, int flags, mode_t mode)) {
    const int fd = NEXT_OF(open)(path, flags, mode);
    if (fd == -1 && opens_fail_silently) errno = 0;
    return fd;
}

namespace {

using namespace trelm::test;

// The drivers that were asked for their ports, in order.
std::string asked(const hostsim::Host& host) {
    std::string order;
    for (const hostsim::Call& call : calls_of(host, Operation::hba_count))
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
        LogCapture log;
        log.take();
        EXPECT_EQ(TRELM_LoadLibrary(), row.status);
        EXPECT_EQ(log.take_of({"TRELM_LoadLibrary", "trelm_load_lib", "trelm_check_esx"}),
                  lines("", {"TRELM_LoadLibrary: entered.", "trelm_load_lib: entered. Got uid=0",
                             "trelm_load_lib: API Version: v5.00 build2", "trelm_check_esx: entered.",
                             "trelm_check_esx: exiting", "trelm_load_lib: OS_Type=1"}) +
                      lines("trelm_load_lib: ", row.found ? Lines{} : Lines{"ERROR finding adapters."}) +
                      lines("trelm_load_lib: ", {row.status ? "exiting, rval=1" : "exiting, rval=0"}) +
                      lines("TRELM_LoadLibrary: ", {row.status  ? "load failed. rval=1"
                                                    : row.found ? "exiting."
                                                                : "no adapters found."}));
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

TEST(Load, WantsRootOnAnEsxiHost) {
    const std::string not_esxi = "ERROR - libtrelm supported for ESXi only";
    const std::string not_root = "libtrelm: ERROR - libtrelm must be loaded with root privileges.";
    for (const auto& [user, system, os_type, text] :
         {std::tuple{1000U, "VMkernel", 0, not_root}, {0U, "vmkernel", 2, not_esxi}}) {
        trelm_os_type = 0;
        hostsim::Model model = hostsim::hosts::kron_ports(1);
        model.effective_user = user, model.system_name = system;
        const hostsim::Host host(model);
        LogCapture log(kErrorLines);
        EXPECT_EQ(TRELM_LoadLibrary(), TRELM_STATUS_FAILED);
        EXPECT_EQ(trelm_os_type, os_type);
        EXPECT_THAT(log.take(),
                    ElementsAre("trelm_load_lib:" + text, "TRELM_LoadLibrary: load failed. rval=1"));
        EXPECT_TRUE(host.calls().empty());
    }
}

TEST(Load, FailsWhereTheSystemDoesNotTellItsName) {
    const hostsim::Host host(hostsim::hosts::kron_ports(1));
    uname_fails = true;
    LogCapture log(kErrorLines);
    EXPECT_EQ(TRELM_LoadLibrary(), TRELM_STATUS_FAILED);
    EXPECT_EQ(trelm_os_type, 2);
    EXPECT_THAT(log.take(), testing::Contains(testing::HasSubstr("uname() failed.")));
    uname_fails = false;
}

TEST(Load, WithoutASharedDatabaseFindsNothing) {
    const hostsim::Host host(hostsim::hosts::kron_ports(1));
    std::filesystem::create_directories(host.root() / "tmp/trelm_shared.dat");
    LogCapture log;
    EXPECT_EQ(TRELM_LoadLibrary(), TRELM_STATUS_FAILED);
    EXPECT_THAT(log.take_text(), testing::EndsWith("trelm_load_lib: ERROR setting up database.\n"
                                                   "trelm_load_lib: exiting, rval=1\n"
                                                   "TRELM_LoadLibrary: load failed. rval=1\n"));
    EXPECT_TRUE(!trelm_priv_database && !trelm_phy_info);
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

TEST_P(Lifecycle, LoadsNothingWithoutTheDatabase) {
    const auto fildes = std::exchange(trelm_shm_fildes, -1);
    uint32_t count = 4711;
    LogCapture log(kErrorLines);
    EXPECT_EQ(TRELM_GetPortCount(&count), TRELM_STATUS_FAILED);
    EXPECT_EQ(TRELM_LoadLibrary(), TRELM_STATUS_FAILED);
    EXPECT_THAT(log.take(), testing::Contains("TRELM_LoadLibrary: shared db setup failed."));
    EXPECT_EQ(count, 4711U);
    trelm_shm_fildes = fildes;
}

TEST_P(Lifecycle, CleanupClosesEveryPort) {
    for (const uint32_t instance : {0U, 1U, 1U}) open_port(instance);
    trelm_cleanup_hbas();
    for (const trelm_priv_db* pdb : registry()) {
        const trelm_hw_info& hw = *pdb->hw_info;
        EXPECT_EQ(hw.oshandle, -1);
        EXPECT_EQ(hw.apihandle, 0U);
        EXPECT_EQ(hw.open_cnt, 0U);
        EXPECT_STREQ(hw.phys_path, "");
    }
}

TEST_P(Lifecycle, CountsOpensOverManyLoadsAndLeavesNoDescriptorBehind) {
    TRELM_FreeLibrary();
    const size_t unloaded = open_descriptors();
    std::mt19937 random(20);
    for (int round = 0; round < 30; ++round) {
        ASSERT_EQ(TRELM_LoadLibrary(), TRELM_STATUS_OK);
        const size_t loaded = open_descriptors();
        std::array<uint32_t, 2> opens{};
        for (int step = 0; step < 8; ++step) {
            const uint32_t instance = random() % 2;
            uint32_t& open = opens[instance];
            if (random() % 2) {
                open += open_port(instance) == instance + 1;
            } else {
                ASSERT_EQ(TRELM_CloseAdapter(instance + 1), open ? TRELM_STATUS_OK : TRELM_STATUS_FAILED);
                open -= open > 0;
            }
            const int nodes = GetParam() == DriverKind::legacy ? (opens[0] > 0) + (opens[1] > 0) : 0;
            ASSERT_EQ(open_descriptors(), loaded + static_cast<size_t>(nodes));
        }
        ASSERT_EQ(TRELM_FreeLibrary(), TRELM_STATUS_OK);
        ASSERT_EQ(open_descriptors(), unloaded);
    }
}

TEST(LegacyPort, ReturnsTheSystemsErrorIfItsNodeCannotBeOpenedOrClosed) {
    LoadedLibrary library(two_port_host(DriverKind::legacy));
    LogCapture log(kErrorLines);
    library.host.inject(fault(Operation::open, {.error = EACCES}));
    uint32_t handle = 0;
    EXPECT_EQ(TRELM_OpenAdapter(1, &handle), uint32_t{EACCES});
    EXPECT_THAT(log.take(),
                ElementsAre("trelm_open_adapter(1): error opening adapter=13, fd=18446744073709551615",
                            "TRELM_OpenAdapter(1): open failed."));
    opens_fail_silently = true;
    library.host.inject(fault(Operation::open, {.error = EACCES}));
    EXPECT_EQ(TRELM_OpenAdapter(1, &handle), TRELM_STATUS_FAILED);
    EXPECT_EQ(handle, 0U);
    open_port(1);
    const int node = registry().at(1)->hw_info->oshandle;
    EXPECT_EQ(fcntl(node, F_GETFL) & O_ACCMODE, O_RDWR);
    EXPECT_EQ(fcntl(node, F_GETFD), FD_CLOEXEC);
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
