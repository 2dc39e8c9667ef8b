// scenario.cpp - what a program does with the library from load to free: every public function, with the
// records and arrays of a caller between guard bytes. What no failure may bring about is a complaint.
#include <fmt/format.h>

#include <cstdlib>

#include "../support/guarded.h"
#include "hosts.h"
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
    const auto equip = [](hostsim::Port& port) {
        hostsim::hosts::add_fcf(port);
        hostsim::hosts::add_target(port, 0, 2);
        hostsim::hosts::add_target(port, 3, 1);
    };
    for (const DriverKind kind : kinds) {
        model.driver(kind).presence = hostsim::Driver::Presence::present;
        hostsim::Adapter& adapter = hostsim::hosts::add_adapter(model, kind, 1, 1);
        equip(adapter.ports[0]);
        equip(adapter.ports[0].virtual_ports[0]);
    }
    return model;
}

// What a function may return besides success.
using Codes = bool (*)(uint32_t code);
bool nothing(uint32_t) { return false; }
bool failed(uint32_t code) { return code == TRELM_STATUS_FAILED; }
bool of_arguments(uint32_t code) { return failed(code) || code == TRELM_STATUS_INVALID_PARAMETER; }
bool of_driver(uint32_t code) { return code > TRELM_STATUS_BASE && code <= TRELM_STATUS_BASE + 13; }
bool of_close(uint32_t code) { return failed(code) || code < 4096; }  // an errno
bool of_open(uint32_t code) {
    return of_arguments(code) || of_close(code) || code == TRELM_STATUS_INVALID_INSTANCE;
}

class Run {
  public:
    Run(const SweptHost& host, Trail& trail) : host_(host), trail_(trail) {}

    // Judges what a function returned, which comes back, and the guards of what it was given.
    uint32_t check(const char* function, uint32_t code, Codes allowed,
                   std::initializer_list<const GuardedBytes*> given = {}) {
        demand(code == TRELM_STATUS_OK || allowed(code), "{} returned {:#x}", function, code);
        for (const GuardedBytes* bytes : given) {
            const auto intact = bytes->guards_intact();
            demand(bool(intact), "{}: {}", function, intact.message());
        }
        return code;
    }
    template <typename... Values>
    void demand(bool fulfilled, fmt::format_string<Values...> complaint, Values&&... values) {
        if (!fulfilled) complain(trail_, fmt::format(complaint, std::forward<Values>(values)...));
    }

    void before_load() {
        Guarded<uint32_t> count;
        GuardedBytes version(13);
        check("TRELM_GetPortCount", TRELM_GetPortCount(count.get()), failed);
        demand(bool(count.untouched()), "TRELM_GetPortCount counted ports of a library not loaded");
        demand(TRELM_GetVersion(version.data(), 13) == TRELM_VERSION_NUMBER,
               "TRELM_GetVersion told another version");
        check("TRELM_GetVersion", TRELM_STATUS_OK, nothing, {&version});
    }

    void load() {
        for (int time = 0; time < 2; ++time) check("TRELM_LoadLibrary", TRELM_LoadLibrary(), failed);
        Guarded<uint32_t> count;
        *count = 0;
        const uint32_t code = check("TRELM_GetPortCount", TRELM_GetPortCount(count.get()), failed, {&count});
        // A virtual port whose driver does not say what it is counts as a physical one.
        demand(code != TRELM_STATUS_OK || *count <= 2 * host_.ports, "TRELM_GetPortCount counted {} ports",
               *count);
    }

    uint32_t open(uint32_t instance) {
        Guarded<uint32_t> handle;
        *handle = 0;
        const uint32_t code =
            check("TRELM_OpenAdapter", TRELM_OpenAdapter(instance, handle.get()), of_open, {&handle});
        demand(code != TRELM_STATUS_OK || *handle != 0, "TRELM_OpenAdapter gave handle 0");
        return code == TRELM_STATUS_OK ? *handle : kNoSuchHandle;
    }
    void close(uint32_t handle) { check("TRELM_CloseAdapter", TRELM_CloseAdapter(handle), of_close); }

    void ask(uint32_t handle, uint32_t npiv) {
        Guarded<TRELM_FCOE_INFO> fcoe;
        fcoe->Version = 2;
        check("TRELM_GetFcoeInfo", TRELM_GetFcoeInfo(handle, fcoe.get()), of_arguments, {&fcoe});
        Guarded<TRELM_VNPORT_INFO> port;
        const uint32_t told =
            check("TRELM_GetVNPortInfo", TRELM_GetVNPortInfo(handle, npiv, port.get()), of_driver, {&port});
        demand(told == TRELM_STATUS_OK || port.untouched(), "TRELM_GetVNPortInfo failed with {:#x} half-way",
               told);
        Guarded<TRELM_PORT_STATS> stats;
        const uint32_t counted =
            check("TRELM_GetPortStats", TRELM_GetPortStats(handle, npiv, stats.get()), of_driver, {&stats});
        demand(counted == TRELM_STATUS_OK || stats.untouched(),
               "TRELM_GetPortStats failed with {:#x} half-way", counted);
    }

    void list(uint32_t handle, uint32_t npiv, uint32_t version, uint32_t room) {
        Guarded<uint32_t> count;
        *count = room;
        GuardedBytes array(room * sizeof(TRELM_TGT_INFO));
        auto* targets = reinterpret_cast<TRELM_TGT_INFO*>(array.data());
        check("TRELM_GetTgtInfo", TRELM_GetTgtInfo(handle, npiv, count.get(), &targets), of_driver,
              {&array, &count});
        *count = room;
        array = GuardedBytes(room * TRELM_LUN_INFO_STRIDE(version));
        auto* luns = reinterpret_cast<TRELM_LUN_INFO*>(array.data());
        luns->Version = version;
        check("TRELM_GetLunInfo", TRELM_GetLunInfo(handle, npiv, 0, count.get(), &luns), of_driver,
              {&array, &count});
    }

    void send(uint32_t handle, uint32_t npiv, std::initializer_list<uint8_t> cdb, uint8_t direction,
              uint32_t length) {
        Guarded<TRELM_SCSI_CMND> command;
        *command = {};
        command->Direction = direction, command->CDBLength = static_cast<uint8_t>(cdb.size());
        std::copy(cdb.begin(), cdb.end(), command->CDB);
        command->SenseLength = sizeof command->Sense;
        GuardedBytes data(length);
        uint32_t moved = length;
        check("TRELM_SendScsiCommand",
              TRELM_SendScsiCommand(handle, npiv, command.get(), &moved, data.data()), of_driver,
              {&command, &data});
        demand(direction != TRELM_SCSI_DATA_OUT || data.untouched(),
               "TRELM_SendScsiCommand changed what it was to send");
        demand(moved == length, "TRELM_SendScsiCommand changed the data length");
    }

    void work(uint32_t handle, uint32_t npiv) {
        ask(handle, npiv);
        list(handle, npiv, 2, 4);
        list(handle, npiv, 1, 1);
        send(handle, npiv, {0x00, 0, 0, 0, 0, 0}, 0, 0);                                  // TEST UNIT READY
        send(handle, npiv, {0x12, 0, 0, 0, 96, 0}, TRELM_SCSI_DATA_IN, 96);               // INQUIRY
        send(handle, npiv, {0x2A, 0, 0, 0, 0, 1, 0, 0, 1, 0}, TRELM_SCSI_DATA_OUT, 512);  // WRITE(10)
        send(handle, npiv, {0x28, 0, 0, 0, 0, 1, 0, 0, 1, 0}, TRELM_SCSI_DATA_IN, 512);   // READ(10)
    }

    void free() { check("TRELM_FreeLibrary", TRELM_FreeLibrary(), failed); }

    // With the log on, some of whose calls can fail as well. It takes its flags when a port is opened.
    void use_log() {
        setenv("TRELM_API_DEBUG", "5", 1);
        const uint32_t handle = open(0);
        ask(kNoSuchHandle, 0);
        close(handle);
        free();
        setenv("TRELM_API_DEBUG", "0", 1);
    }

  private:
    const SweptHost& host_;
    Trail& trail_;
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
    Run run(host, trail);
    run.before_load();
    run.load();
    for (uint32_t instance = 0; instance <= host.ports; ++instance) {
        const uint32_t handle = run.open(instance);
        run.open(instance);
        run.work(handle, 0);
        if (instance == 0) run.ask(handle, 1);
        run.close(handle);
        run.close(handle);
    }
    run.use_log();
    run.free();
}

void use_library_again(const SweptHost& host, Trail& trail) {
    Run run(host, trail);
    run.check("afterwards TRELM_LoadLibrary", TRELM_LoadLibrary(), nothing);
    uint32_t count = 0;
    run.check("afterwards TRELM_GetPortCount", TRELM_GetPortCount(&count), nothing);
    run.demand(count == host.ports, "afterwards there were {} ports", count);
    for (uint32_t instance = 0; instance < count; ++instance) {
        uint32_t handle = 0;
        TRELM_VNPORT_INFO info = {};
        TRELM_SCSI_CMND ready = {};
        ready.CDBLength = 6;
        run.check("afterwards TRELM_OpenAdapter", TRELM_OpenAdapter(instance, &handle), nothing);
        run.check("afterwards TRELM_GetVNPortInfo", TRELM_GetVNPortInfo(handle, 0, &info), nothing);
        run.demand(info.TgtCount == 2, "afterwards a port had {} targets", +info.TgtCount);
        run.check("afterwards TRELM_SendScsiCommand",
                  TRELM_SendScsiCommand(handle, 0, &ready, nullptr, nullptr), nothing);
        run.check("afterwards TRELM_CloseAdapter", TRELM_CloseAdapter(handle), nothing);
    }
    run.check("afterwards TRELM_FreeLibrary", TRELM_FreeLibrary(), nothing);
}

}  // namespace trelm::sweep
