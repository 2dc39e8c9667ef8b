// Loading and freeing the library: the order of discovery, who may load, what each state answers, and that
// nothing is left behind.
#include <filesystem>

#include "support/port_calls.h"

namespace {

using namespace trelm::test;

// A driver of a host: absent, or there with so many ports.
using Ports = std::optional<size_t>;
constexpr Ports kAbsent = std::nullopt;

hostsim::Model host_with(Ports pyx, Ports legacy, Ports kron) {
    hostsim::Model model;
    for (const auto& [kind, ports] :
         {std::pair{DriverKind::pyx, pyx}, {DriverKind::legacy, legacy}, {DriverKind::kron, kron}}) {
        if (!ports) continue;
        model.driver(kind).presence = hostsim::Driver::Presence::present;
        if (*ports) hostsim::hosts::add_adapter(model, kind, *ports, 1);
    }
    return model;
}

// The drivers that were asked for their ports, in order.
std::string asked(const hostsim::Host& host) {
    std::string order;
    for (const hostsim::Call& call : host.calls()) {
        if (call.operation != Operation::hba_count) continue;
        order += std::string(order.empty() ? "" : " ") +
                 std::string(hostsim::kDriverKindNames[static_cast<size_t>(call.driver)]);
    }
    return order;
}

struct LoadCase {
    const char* name;
    Ports pyx, legacy, kron;
    uint32_t status;  // of the load
    uint32_t ports;   // 0: the library stays unloaded
    const char* asked;
};

class LoadOrder : public testing::TestWithParam<LoadCase> {};
INSTANTIATE_TEST_SUITE_P(
    , LoadOrder,
    testing::Values(LoadCase{"PyxKeepsTheLegacyDriverOut", 1, 2, 1, 0, 2, "pyx kron"},
                    LoadCase{"PyxAlone", 2, kAbsent, kAbsent, 0, 2, "pyx"},
                    LoadCase{"LegacyInThePlaceOfPyx", kAbsent, 2, 1, 0, 3, "legacy kron"},
                    LoadCase{"LegacyAlone", kAbsent, 2, kAbsent, 0, 2, "legacy"},
                    LoadCase{"KronAlone", kAbsent, kAbsent, 2, 0, 2, "kron"},
                    LoadCase{"KronBesideAnEmptyPyx", 0, 2, 1, 0, 1, "pyx kron"},
                    LoadCase{"KronBesideAnEmptyLegacy", kAbsent, 0, 1, 0, 1, "legacy kron"},
                    LoadCase{"EmptyPyxKeepsTheLegacyDriverOut", 0, 2, kAbsent, 0, 0, "pyx"},
                    LoadCase{"AllEmpty", 0, kAbsent, 0, 0, 0, "pyx kron"},
                    LoadCase{"OnlyLegacyAnswersAndIsEmpty", kAbsent, 0, kAbsent, 0, 0, "legacy"},
                    LoadCase{"OnlyKronAnswersAndIsEmpty", kAbsent, kAbsent, 0, TRELM_STATUS_FAILED, 0,
                             "kron"},
                    LoadCase{"NoDriver", kAbsent, kAbsent, kAbsent, TRELM_STATUS_FAILED, 0, ""}),
    [](const auto& load) { return load.param.name; });

TEST_P(LoadOrder, IsPyxOrLegacyAndThenKron) {
    const LoadCase& row = GetParam();
    const hostsim::Host host(host_with(row.pyx, row.legacy, row.kron));
    const Lines expected = Lines{"TRELM_LoadLibrary: entered."} +
                           lines("trelm_load_lib: ", {"entered. Got uid=0", "API Version: v5.00 build2"}) +
                           lines("trelm_check_esx: ", {"entered.", "exiting"}) +
                           Lines{"trelm_load_lib: OS_Type=1"} +
                           lines("trelm_load_lib: ", row.ports ? Lines{} : Lines{"ERROR finding adapters."}) +
                           lines("trelm_load_lib: ", {row.status ? "exiting, rval=1" : "exiting, rval=0"}) +
                           lines("TRELM_LoadLibrary: ", {row.status  ? "load failed. rval=1"
                                                         : row.ports ? "exiting."
                                                                     : "no adapters found."});
    LogCapture log;
    for (int round = 0; round < 2; ++round) {
        log.take();
        EXPECT_EQ(TRELM_LoadLibrary(), row.status);
        if (!round) {
            EXPECT_EQ(log.take_of({"TRELM_LoadLibrary", "trelm_load_lib", "trelm_check_esx"}), expected);
        }
        EXPECT_EQ(
            std::string(row.asked) + (round && !row.ports && *row.asked ? std::string(" ") + row.asked : ""),
            asked(host))
            << "a load that found no port is made anew, another is not";
        uint32_t count = 99;
        EXPECT_EQ(TRELM_GetPortCount(&count), row.ports ? TRELM_STATUS_OK : TRELM_STATUS_FAILED);
        EXPECT_EQ(count, row.ports ? row.ports : 99U);
    }
    EXPECT_EQ(TRELM_FreeLibrary(), TRELM_STATUS_OK);
}

TEST(Load, FallsBackToTheLegacyDriverWhereverThePyxDriverFails) {
    for (const auto& [operation, status] : {std::pair{Operation::init, 2U}, {Operation::hba_count, 1U}}) {
        hostsim::Model model = host_with(1, 2, 1);
        hostsim::Fault refusal = fault(operation, {.status = status});
        refusal.driver = DriverKind::pyx;
        model.faults.push_back(refusal);
        const Loaded library(model);
        uint32_t count = 0;
        EXPECT_EQ(TRELM_GetPortCount(&count), TRELM_STATUS_OK);
        EXPECT_EQ(count, 3U);
    }
}

TEST(Load, WantsRootOnAnEsxiHost) {
    struct Row {
        uint32_t user;
        const char* system;
        uint32_t status;
        const char* line;
        uint8_t os_type;
    };
    for (const Row& row :
         {Row{1000, "VMkernel", TRELM_STATUS_FAILED,
              "trelm_load_lib:libtrelm: ERROR - libtrelm must be loaded with root privileges.", 0},
          {0, "Linux", TRELM_STATUS_FAILED, "trelm_load_lib:ERROR - libtrelm supported for ESXi only", 2},
          {0, "vmkernel", TRELM_STATUS_FAILED, "trelm_load_lib:ERROR - libtrelm supported for ESXi only", 2},
          {0, "a VMkernel of its own", TRELM_STATUS_OK, nullptr, 1}}) {
        SCOPED_TRACE(row.system);
        trelm_os_type = 0;
        hostsim::Model model = hostsim::hosts::kron_ports(1);
        model.effective_user = row.user;
        model.system_name = row.system;
        const hostsim::Host host(model);
        LogCapture log(kErrorLines);
        EXPECT_EQ(TRELM_LoadLibrary(), row.status);
        EXPECT_EQ(trelm_os_type, row.os_type);
        if (row.line) {
            EXPECT_THAT(log.take(), ElementsAre(row.line, "TRELM_LoadLibrary: load failed. rval=1"));
            EXPECT_TRUE(host.calls().empty());
        }
        TRELM_FreeLibrary();
    }
}

TEST(Load, TwiceChangesNothing) {
    Loaded library(hostsim::hosts::kron_ports(2, 3));
    library.host.edit([](hostsim::Model& model) { hostsim::hosts::add_adapter(model, DriverKind::kron, 1); });
    library.host.clear_calls();
    LogCapture log;
    log.take();
    EXPECT_EQ(TRELM_LoadLibrary(), TRELM_STATUS_OK);
    EXPECT_THAT(log.take(), ElementsAre("TRELM_LoadLibrary: entered.", "TRELM_LoadLibrary: already loaded."));
    uint32_t count = 0;
    TRELM_GetPortCount(&count);
    EXPECT_EQ(count, 2U) << "ports that appear later are seen after a free and a load";
    EXPECT_TRUE(library.host.calls().empty());
    TRELM_FreeLibrary();
    TRELM_LoadLibrary();
    TRELM_GetPortCount(&count);
    EXPECT_EQ(count, 3U);
}

TEST(Load, WithoutASharedDatabaseFindsNothing) {
    const hostsim::Host host(hostsim::hosts::kron_ports(1));
    std::filesystem::create_directories(host.root() / "tmp/trelm_shared.dat");
    LogCapture log;
    EXPECT_EQ(TRELM_LoadLibrary(), TRELM_STATUS_FAILED);
    const Lines lines = log.take_of({"TRELM_LoadLibrary", "trelm_load_lib"});
    ASSERT_GE(lines.size(), 3U);
    EXPECT_THAT(Lines(lines.end() - 3, lines.end()),
                ElementsAre("trelm_load_lib: ERROR setting up database.", "trelm_load_lib: exiting, rval=1",
                            "TRELM_LoadLibrary: load failed. rval=1"));
    EXPECT_EQ(trelm_priv_database, nullptr);
    EXPECT_EQ(trelm_phy_info, nullptr);
    std::filesystem::remove_all(host.root() / "tmp/trelm_shared.dat");
    EXPECT_EQ(TRELM_LoadLibrary(), TRELM_STATUS_OK);
    EXPECT_EQ(TRELM_FreeLibrary(), TRELM_STATUS_OK);
}

TEST(Free, IsLoggedInEveryState) {
    Loaded library(hostsim::hosts::legacy_ports(1, 2));
    LogCapture log;
    open_port();
    log.take();
    EXPECT_EQ(TRELM_FreeLibrary(), TRELM_STATUS_OK);
    const Lines lines = log.take_of(
        {"TRELM_FreeLibrary", "trelm_unload_lib", "trelm_cleanup_hbas", "trelm_free_all_pdb_mem"});
    ASSERT_EQ(lines.size(), 9U);
    EXPECT_THAT(lines[4], testing::MatchesRegex("trelm_cleanup_hbas: closing handle=[0-9]+"));
    EXPECT_THAT(lines, ElementsAre("TRELM_FreeLibrary: entered.", "trelm_unload_lib: entered.",
                                   "trelm_unload_lib: lib inst=0 going to call cleanup_hbas.",
                                   "trelm_cleanup_hbas: entered. lib inst=0", lines[4],
                                   "trelm_cleanup_hbas: lib inst=0 exiting.",
                                   "trelm_unload_lib: lib inst 0 going to call close_database.",
                                   "trelm_unload_lib: exiting, rval=0", "TRELM_FreeLibrary: exiting."));
    EXPECT_EQ(TRELM_FreeLibrary(), TRELM_STATUS_OK);
    EXPECT_THAT(log.take(), ElementsAre("TRELM_FreeLibrary: entered.", "trelm_unload_lib: entered.",
                                        "trelm_unload_lib: lib inst=0 going to call cleanup_hbas.",
                                        "trelm_cleanup_hbas: entered. lib inst=0",
                                        "trelm_cleanup_hbas: api_priv_data not found, exiting",
                                        "trelm_unload_lib: inst 0 db not opened. exiting.",
                                        "trelm_free_all_pdb_mem: no memory allocated for api_priv_data.",
                                        "trelm_free_all_hw_info_mem: no memory allocated for api_phy_info.",
                                        "TRELM_FreeLibrary: exiting."));
}

TEST(PortCount, NeedsALoadedLibraryBeforeAResult) {
    const hostsim::Host host(hostsim::hosts::kron_ports(2, 3));
    LogCapture log;
    log.take();
    uint32_t count = 7;
    EXPECT_EQ(TRELM_GetPortCount(nullptr), TRELM_STATUS_FAILED);
    TRELM_LoadLibrary();
    log.take();
    EXPECT_EQ(TRELM_GetPortCount(nullptr), TRELM_STATUS_INVALID_PARAMETER);
    EXPECT_EQ(TRELM_GetPortCount(&count), TRELM_STATUS_OK);
    EXPECT_EQ(count, 2U);
    const int32_t descriptor = trelm_shm_fildes;
    trelm_shm_fildes = -1;
    EXPECT_EQ(TRELM_GetPortCount(nullptr), TRELM_STATUS_FAILED);
    trelm_shm_fildes = descriptor;
    TRELM_FreeLibrary();
    EXPECT_THAT(log.take_of("TRELM_GetPortCount"),
                ElementsAre("TRELM_GetPortCount: entered.", "TRELM_GetPortCount: invalid parameter.",
                            "TRELM_GetPortCount: entered.", "TRELM_GetPortCount: exiting. cnt=2",
                            "TRELM_GetPortCount: entered.",
                            "TRELM_GetPortCount: error in shared database setup. Exiting."));
    EXPECT_EQ(TRELM_GetPortCount(&count), TRELM_STATUS_FAILED);
    EXPECT_EQ(log.take().back(), "TRELM_GetPortCount: no adapters found.");
}

TEST(Version, FitsTheCallersBuffer) {
    EXPECT_EQ(TRELM_GetVersion(nullptr, 0), 0x05000200U);
    EXPECT_EQ(TRELM_GetVersion(nullptr, 100), 0x05000200U);
    const std::string text = "v5.00 build2";
    for (const uint32_t size : {0U, 1U, 2U, 12U, 13U, 14U, 100U}) {
        GuardedBytes buffer(100);
        Bytes expected = Bytes::initial(100);
        if (size) expected.text(0, text.substr(0, size - 1), std::min<size_t>(size, 13));
        EXPECT_EQ(TRELM_GetVersion(buffer.data(), size), 0x05000200U);
        EXPECT_EQ(contents(buffer), expected.all()) << size;
    }
    const hostsim::Host host(hostsim::hosts::empty());
    LogCapture log;
    log.take();
    TRELM_GetVersion(nullptr, 0);
    EXPECT_THAT(log.take(),
                ElementsAre("TRELM_GetVersion: entered.", "TRELM_GetVersion: exiting. version=5000200h"));
}

// A thousand loads with the legacy driver, which opens files, in four processes at once; fewer with the
// others.
struct LoadsCase {
    const char* name;
    DriverKind kind;
};
class ManyLoads : public testing::TestWithParam<LoadsCase> {};
INSTANTIATE_TEST_SUITE_P(
    , ManyLoads,
    testing::Values(LoadsCase{"kron", DriverKind::kron}, LoadsCase{"pyx", DriverKind::pyx},
                    LoadsCase{"legacy1", DriverKind::legacy}, LoadsCase{"legacy2", DriverKind::legacy},
                    LoadsCase{"legacy3", DriverKind::legacy}, LoadsCase{"legacy4", DriverKind::legacy}),
    [](const auto& loads) { return loads.param.name; });

TEST_P(ManyLoads, LeaveNoDescriptorBehind) {
    const bool legacy = GetParam().kind == DriverKind::legacy;
    const hostsim::Host host(hostsim::hosts::ports(GetParam().kind, 2, 1));
    const int rounds = legacy ? 250 : 50;
    size_t before = 0;
    for (int round = 0; round < rounds; ++round) {
        ASSERT_EQ(TRELM_LoadLibrary(), TRELM_STATUS_OK);
        if (round % 3 == 0) open_port(1);
        ASSERT_EQ(TRELM_FreeLibrary(), TRELM_STATUS_OK);
        if (round == 0) before = open_descriptors();
    }
    EXPECT_EQ(open_descriptors(), before);
}

}  // namespace
