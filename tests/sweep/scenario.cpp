// scenario.cpp - a program that uses every public function from load to free, with its records and arrays
// between guard bytes. Results that no failure may cause are reported as complaints.
#include <fmt/format.h>

#include <atomic>
#include <thread>

#include "../support/guarded.h"
#include "host_builders.h"
#include "sweep.h"
#include "trelm_mgmt.h"

namespace trelm::sweep {
namespace {

using hostsim::DriverKind;
using test::Guarded;
using test::GuardedBytes;

constexpr uint32_t kNoSuchHandle = 0x4711;

hostsim::Model host_of(std::initializer_list<DriverKind> kinds) {
    hostsim::Model model;
    for (const DriverKind kind : kinds) {
        model.driver(kind).presence = hostsim::Driver::Presence::present;
        hostsim::PhysicalPort& physical = hostsim::hosts::add_adapter(model, kind, 1, 1).ports[0];
        for (hostsim::Port* port : {static_cast<hostsim::Port*>(&physical), &physical.virtual_ports[0]}) {
            hostsim::hosts::add_fcf(*port);
            hostsim::hosts::add_target(*port, 0, 2);
            hostsim::hosts::add_target(*port, 3, 1);
        }
    }
    return model;
}

// The codes that a function may return besides success.
using Codes = bool (*)(uint32_t code);
bool nothing(uint32_t) { return false; }
bool failed(uint32_t code) { return code == TRELM_STATUS_FAILED; }
bool of_arguments(uint32_t code) { return failed(code) || code == TRELM_STATUS_INVALID_PARAMETER; }
bool of_driver(uint32_t code) { return code > TRELM_STATUS_BASE && code <= TRELM_STATUS_BASE + 13; }
bool of_close(uint32_t code) { return failed(code) || code < 4096; }  // an errno
bool of_open(uint32_t code) {
    return of_arguments(code) || of_close(code) || code == TRELM_STATUS_INVALID_INSTANCE;
}

struct Run {
    const SweptHost& host;
    Trail& trail;

    template <typename... Values>
    void demand(bool fulfilled, fmt::format_string<Values...> complaint, Values&&... values) {
        if (!fulfilled) complain(trail, fmt::format(complaint, std::forward<Values>(values)...));
    }
    // Checks the result of a function, which is returned, and the guards of its arguments.
    uint32_t judge(const char* function, uint32_t code, Codes allowed,
                   std::initializer_list<const GuardedBytes*> given = {}) {
        demand(code == TRELM_STATUS_OK || allowed(code), "{} returned {:#x}", function, code);
        for (const GuardedBytes* bytes : given) {
            const auto intact = bytes->guards_intact();
            demand(bool(intact), "{}: {}", function, intact.message());
        }
        return code;
    }
#define CHECK(function, arguments, ...) judge(#function, function arguments, __VA_ARGS__)

    void load() {
        Guarded<uint32_t> count;
        CHECK(TRELM_GetPortCount, (count.get()), failed);
        demand(bool(count.untouched()), "ports were counted of a library not loaded");
        for (int time = 0; time < 2; ++time) CHECK(TRELM_LoadLibrary, (), failed);
        // A virtual port counts as physical if the driver does not report its type.
        if (CHECK(TRELM_GetPortCount, (count.get()), failed, {&count}) == TRELM_STATUS_OK)
            demand(*count <= 2 * host.ports, "{} ports were counted", *count);
    }

    uint32_t open(uint32_t instance) {
        Guarded<uint32_t> handle;
        *handle = 0;
        if (CHECK(TRELM_OpenAdapter, (instance, handle.get()), of_open, {&handle})) return kNoSuchHandle;
        demand(*handle != 0, "a port was opened with handle 0");
        return *handle;
    }

    void ask(uint32_t handle, uint32_t npiv) {
        Guarded<TRELM_FCOE_INFO> fcoe;
        Guarded<TRELM_VNPORT_INFO> port;
        Guarded<TRELM_PORT_STATS> stats;
        fcoe->Version = 2;
        CHECK(TRELM_GetFcoeInfo, (handle, fcoe.get()), of_arguments, {&fcoe});
        if (CHECK(TRELM_GetVNPortInfo, (handle, npiv, port.get()), of_driver, {&port}))
            demand(bool(port.untouched()), "failed port information was written");
        if (CHECK(TRELM_GetPortStats, (handle, npiv, stats.get()), of_driver, {&stats}))
            demand(bool(stats.untouched()), "failed statistics were written");
    }

    void list(uint32_t handle, uint32_t version, uint32_t room) {
        Guarded<uint32_t> count;
        GuardedBytes array(room * sizeof(TRELM_TGT_INFO));
        auto* targets = reinterpret_cast<TRELM_TGT_INFO*>(array.data());
        *count = room;
        CHECK(TRELM_GetTgtInfo, (handle, 0, count.get(), &targets), of_driver, {&array, &count});
        array = GuardedBytes(room * TRELM_LUN_INFO_STRIDE(version));
        auto* luns = reinterpret_cast<TRELM_LUN_INFO*>(array.data());
        luns->Version = version;
        *count = room;
        CHECK(TRELM_GetLunInfo, (handle, 0, 0, count.get(), &luns), of_driver, {&array, &count});
    }

    void send(uint32_t handle, const std::vector<uint8_t>& cdb, uint8_t direction, uint32_t length) {
        Guarded<TRELM_SCSI_CMND> command;
        *command = {};
        command->Direction = direction, command->CDBLength = static_cast<uint8_t>(cdb.size());
        std::copy(cdb.begin(), cdb.end(), command->CDB);
        command->SenseLength = sizeof command->Sense;
        GuardedBytes data(length);
        uint32_t moved = length;
        CHECK(TRELM_SendScsiCommand, (handle, 0, command.get(), &moved, data.data()), of_driver,
              {&command, &data});
        demand(direction != TRELM_SCSI_DATA_OUT || data.untouched(), "what was to be sent was changed");
        demand(moved == length, "a data length was changed");
    }

    // With an instance that may not exist.
    void work(uint32_t instance) {
        const uint32_t handle = open(instance);
        open(instance);
        ask(handle, 0);
        list(handle, 2, 4);
        list(handle, 1, 1);
        send(handle, {0x00, 0, 0, 0, 0, 0}, 0, 0);                                  // TEST UNIT READY
        send(handle, {0x12, 0, 0, 0, 96, 0}, TRELM_SCSI_DATA_IN, 96);               // INQUIRY
        send(handle, {0x2A, 0, 0, 0, 0, 1, 0, 0, 1, 0}, TRELM_SCSI_DATA_OUT, 512);  // WRITE(10)
        send(handle, {0x28, 0, 0, 0, 0, 1, 0, 0, 1, 0}, TRELM_SCSI_DATA_IN, 512);   // READ(10)
        if (instance == 0) ask(handle, 1);
        for (int time = 0; time < 2; ++time) CHECK(TRELM_CloseAdapter, (handle), of_close);
    }

    // With the log on, whose calls can fail too. Its flags are read when a port is opened.
    void use_log() {
        setenv("TRELM_API_DEBUG", "5", 1);
        const uint32_t handle = open(0);
        ask(kNoSuchHandle, 0);
        CHECK(TRELM_CloseAdapter, (handle), of_close);
        CHECK(TRELM_FreeLibrary, (), failed);
        setenv("TRELM_API_DEBUG", "0", 1);
    }

    // A run in which nothing fails.
    void work_well() {
        uint32_t count = 0;
        CHECK(TRELM_LoadLibrary, (), nothing);
        CHECK(TRELM_GetPortCount, (&count), nothing);
        demand(count == host.ports, "afterwards there were {} ports", count);
        for (uint32_t instance = 0; instance < count; ++instance) {
            uint32_t handle = 0;
            TRELM_VNPORT_INFO info = {};
            TRELM_SCSI_CMND ready = {};
            ready.CDBLength = 6;
            CHECK(TRELM_OpenAdapter, (instance, &handle), nothing);
            CHECK(TRELM_GetVNPortInfo, (handle, 0, &info), nothing);
            demand(info.TgtCount == 2, "afterwards a port had {} targets", +info.TgtCount);
            CHECK(TRELM_SendScsiCommand, (handle, 0, &ready, nullptr, nullptr), nothing);
            CHECK(TRELM_CloseAdapter, (handle), nothing);
        }
        CHECK(TRELM_FreeLibrary, (), nothing);
    }
};

// A thread that calls continuously while calls of the other thread fail.
class Bystander {
  public:
    ~Bystander() {
        leaves_ = true;
        thread_.join();
    }

  private:
    void call() {
        while (!leaves_) {
            uint32_t count = 0;
            TRELM_FCOE_INFO fcoe;
            TRELM_VNPORT_INFO port{};
            TRELM_PORT_STATS stats;
            TRELM_GetPortCount(&count);
            TRELM_GetFcoeInfo(1, &fcoe);
            TRELM_GetVNPortInfo(1, 0, &port);
            TRELM_GetPortStats(1, 1, &stats);
            std::this_thread::yield();
        }
    }

    std::atomic<bool> leaves_ = false;
    std::thread thread_{[this] { call(); }};
};

}  // namespace

const SweptHost kHosts[kSweptHosts] = {
    {"native",
     [] {
         return host_of({DriverKind::kron, DriverKind::pyx});
     },
     2},
    {"legacy", [] { return host_of({DriverKind::legacy}); }, 1},
};

void complain(Trail& trail, const std::string& what) {
    if (trail.complaint[0] == '\0') what.copy(trail.complaint, sizeof trail.complaint - 1);
}

void use_library(const SweptHost& host, Trail& trail) {
    setenv("TRELM_API_DEBUG", "0", 1);
    const Bystander bystander;
    Run run{host, trail};
    run.load();
    for (uint32_t instance = 0; instance <= host.ports; ++instance) run.work(instance);
    run.use_log();
    run.CHECK(TRELM_FreeLibrary, (), failed);
}

void use_library_again(const SweptHost& host, Trail& trail) { Run{host, trail}.work_well(); }

}  // namespace trelm::sweep
