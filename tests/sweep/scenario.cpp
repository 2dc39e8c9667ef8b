#include "scenario.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <initializer_list>

#include "../support/guarded.h"
#include "../support/loaded_host.h"
#include "hosts.h"
#include "trelm_mgmt.h"

namespace trelm::sweep {

using hostsim::DriverKind;
using test::Guarded;
using test::GuardedBytes;

namespace {

constexpr uint32_t kNoSuchHandle = 0x4711;
constexpr uint32_t kArray = 4;  // elements of arrays
constexpr uint32_t kBlock = 512;

void equip(hostsim::Port& port) {
    hostsim::hosts::add_fcf(port);
    hostsim::hosts::add_target(port, 0, 2);
    hostsim::hosts::add_target(port, 3, 1);
}

hostsim::Model host_of(std::initializer_list<DriverKind> kinds) {
    hostsim::Model model;
    for (const DriverKind kind : kinds) {
        model.driver(kind).presence = hostsim::Driver::Presence::present;
        hostsim::Adapter& adapter = hostsim::hosts::add_adapter(model, kind, 1, 1);
        equip(adapter.ports[0]);
        equip(adapter.ports[0].virtual_ports[0]);
    }
    return model;
}

// ---- What a function may return
// ----------------------------------------------------------------------------------

enum Family : unsigned {
    kFailed = 1,
    kInvalid = 2,
    kInstance = 4,
    kTooSmall = 8,
    kNoMemory = 16,
    kDriver = 32,  // any status from 1 to 13 of a driver's, or none of these
    kSystem = 64,  // a system error number
};

bool belongs(uint32_t code, unsigned families) {
    if (code == TRELM_STATUS_OK) return true;
    if ((families & kSystem) != 0 && code > 0 && code < 4096) return true;
    if ((families & kDriver) != 0 && code > TRELM_STATUS_BASE && code <= TRELM_STATUS_BASE + 13) return true;
    constexpr struct {
        Family family;
        uint32_t code;
    } kCodes[] = {{kFailed, TRELM_STATUS_FAILED},
                  {kInvalid, TRELM_STATUS_INVALID_PARAMETER},
                  {kInstance, TRELM_STATUS_INVALID_INSTANCE},
                  {kTooSmall, TRELM_STATUS_INSUFFICIENT_BUFFER},
                  {kNoMemory, TRELM_STATUS_NO_MEMORY}};
    for (const auto& row : kCodes) {
        if ((families & row.family) != 0 && code == row.code) return true;
    }
    return false;
}

class Run {
  public:
    Run(const SweptHost& host, Trail& trail) : host_(host), trail_(trail) {}

    // Judges a return code; what the function itself returned comes back.
    uint32_t check(const char* function, uint32_t code, unsigned families) {
        if (!belongs(code, families)) complain(trail_, "%s returned 0x%x", function, code);
        return code;
    }
    void guards(const char* function, const GuardedBytes& bytes) {
        const auto intact = bytes.guards_intact();
        if (!intact) complain(trail_, "%s: %s", function, intact.message());
    }
    void untouched(const char* function, uint32_t code, const GuardedBytes& bytes) {
        if (code != TRELM_STATUS_OK && !bytes.untouched())
            complain(trail_, "%s returned 0x%x and changed its record", function, code);
    }

    void before_load() {
        Guarded<uint32_t> count;
        check("TRELM_GetPortCount", TRELM_GetPortCount(count.get()), kFailed);
        if (!count.untouched()) complain(trail_, "TRELM_GetPortCount counted ports of a library not loaded");
        GuardedBytes version(13);
        if (TRELM_GetVersion(version.data(), 13) != TRELM_VERSION_NUMBER)
            complain(trail_, "TRELM_GetVersion told another version");
        guards("TRELM_GetVersion", version);
    }

    void load() {
        check("TRELM_LoadLibrary", TRELM_LoadLibrary(), kFailed);
        check("TRELM_LoadLibrary", TRELM_LoadLibrary(), kFailed);
        Guarded<uint32_t> count;
        *count = 0;
        const uint32_t code = check("TRELM_GetPortCount", TRELM_GetPortCount(count.get()), kFailed);
        guards("TRELM_GetPortCount", count);
        // A virtual port whose driver does not say what it is counts as a physical one.
        if (code == TRELM_STATUS_OK && *count > 2 * host_.ports)
            complain(trail_, "TRELM_GetPortCount counted %u ports", *count);
    }

    uint32_t open(uint32_t instance) {
        Guarded<uint32_t> handle;
        *handle = 0;
        const uint32_t code = check("TRELM_OpenAdapter", TRELM_OpenAdapter(instance, handle.get()),
                                    kFailed | kInvalid | kInstance | kSystem);
        guards("TRELM_OpenAdapter", handle);
        if (code == TRELM_STATUS_OK && *handle == 0) complain(trail_, "TRELM_OpenAdapter gave handle 0");
        return code == TRELM_STATUS_OK ? *handle : kNoSuchHandle;
    }
    void close(uint32_t handle) {
        check("TRELM_CloseAdapter", TRELM_CloseAdapter(handle), kFailed | kSystem);
    }

    void ask(uint32_t handle, uint32_t npiv) {
        Guarded<TRELM_FCOE_INFO> fcoe;
        fcoe->Version = 2;
        check("TRELM_GetFcoeInfo", TRELM_GetFcoeInfo(handle, fcoe.get()), kFailed | kInvalid);
        guards("TRELM_GetFcoeInfo", fcoe);

        Guarded<TRELM_VNPORT_INFO> port;
        const uint32_t told = check("TRELM_GetVNPortInfo", TRELM_GetVNPortInfo(handle, npiv, port.get()),
                                    kFailed | kInvalid | kDriver);
        guards("TRELM_GetVNPortInfo", port);
        untouched("TRELM_GetVNPortInfo", told, port);

        Guarded<TRELM_PORT_STATS> stats;
        const uint32_t counted = check("TRELM_GetPortStats", TRELM_GetPortStats(handle, npiv, stats.get()),
                                       kFailed | kInvalid | kNoMemory | kDriver);
        guards("TRELM_GetPortStats", stats);
        untouched("TRELM_GetPortStats", counted, stats);
    }

    void list_targets(uint32_t handle, uint32_t npiv, uint32_t room) {
        GuardedBytes array(room * sizeof(TRELM_TGT_INFO));
        auto* targets = reinterpret_cast<TRELM_TGT_INFO*>(array.data());
        Guarded<uint32_t> count;
        *count = room;
        check("TRELM_GetTgtInfo", TRELM_GetTgtInfo(handle, npiv, count.get(), &targets),
              kFailed | kInvalid | kTooSmall | kNoMemory | kDriver);
        guards("TRELM_GetTgtInfo", array);
        guards("TRELM_GetTgtInfo", count);
    }

    void list_luns(uint32_t handle, uint32_t npiv, uint32_t version, uint32_t room) {
        GuardedBytes array(room * TRELM_LUN_INFO_STRIDE(version));
        auto* luns = reinterpret_cast<TRELM_LUN_INFO*>(array.data());
        luns->Version = version;
        Guarded<uint32_t> count;
        *count = room;
        check("TRELM_GetLunInfo", TRELM_GetLunInfo(handle, npiv, 0, count.get(), &luns),
              kFailed | kInvalid | kTooSmall | kNoMemory | kDriver);
        guards("TRELM_GetLunInfo", array);
        guards("TRELM_GetLunInfo", count);
    }

    void send(uint32_t handle, uint32_t npiv, std::initializer_list<uint8_t> cdb, uint8_t direction,
              uint32_t length) {
        Guarded<TRELM_SCSI_CMND> command;
        *command = {};
        command->Direction = direction;
        command->CDBLength = static_cast<uint8_t>(cdb.size());
        memcpy(command->CDB, cdb.begin(), cdb.size());
        command->SenseLength = sizeof command->Sense;
        GuardedBytes data(length);
        uint32_t moved = length;
        check("TRELM_SendScsiCommand",
              TRELM_SendScsiCommand(handle, npiv, command.get(), &moved, data.data()),
              kFailed | kInvalid | kNoMemory | kDriver);
        guards("TRELM_SendScsiCommand", command);
        guards("TRELM_SendScsiCommand", data);
        if (direction == TRELM_SCSI_DATA_OUT && !data.untouched())
            complain(trail_, "TRELM_SendScsiCommand changed what it was to send");
        if (moved != length) complain(trail_, "TRELM_SendScsiCommand changed the data length");
    }

    void work(uint32_t handle, uint32_t npiv) {
        ask(handle, npiv);
        list_targets(handle, npiv, kArray);
        list_targets(handle, npiv, 1);
        list_luns(handle, npiv, 2, kArray);
        list_luns(handle, npiv, 1, 1);
        send(handle, npiv, {0x00, 0, 0, 0, 0, 0}, 0, 0);                     // TEST UNIT READY
        send(handle, npiv, {0x12, 0, 0, 0, 96, 0}, TRELM_SCSI_DATA_IN, 96);  // INQUIRY
        send(handle, npiv, {0x2A, 0, 0, 0, 0, 1, 0, 0, 1, 0}, TRELM_SCSI_DATA_OUT, kBlock);  // WRITE(10)
        send(handle, npiv, {0x28, 0, 0, 0, 0, 1, 0, 0, 1, 0}, TRELM_SCSI_DATA_IN, kBlock);   // READ(10)
    }

    void free() { check("TRELM_FreeLibrary", TRELM_FreeLibrary(), kFailed); }

    // With the log on, some of whose calls can fail as well. It takes its flags when a port is opened.
    void use_log() {
        setenv("TRELM_API_DEBUG", "5", 1);
        const uint32_t handle = open(0);
        ask(kNoSuchHandle, 0);
        close(handle);
        free();
        setenv("TRELM_API_DEBUG", "0", 1);
    }

    // Where nothing fails.
    void expect(const char* function, uint32_t code) {
        if (code != TRELM_STATUS_OK) complain(trail_, "afterwards %s returned 0x%x", function, code);
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

void complain(Trail& trail, const char* format, ...) {
    if (trail.complaint[0] != '\0') return;
    va_list arguments;
    va_start(arguments, format);
    vsnprintf(trail.complaint, sizeof trail.complaint, format, arguments);
    va_end(arguments);
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
    run.expect("TRELM_LoadLibrary", TRELM_LoadLibrary());
    uint32_t count = 0;
    run.expect("TRELM_GetPortCount", TRELM_GetPortCount(&count));
    if (count != host.ports) complain(trail, "afterwards there were %u ports", count);
    for (uint32_t instance = 0; instance < count; ++instance) {
        uint32_t handle = 0;
        run.expect("TRELM_OpenAdapter", TRELM_OpenAdapter(instance, &handle));
        TRELM_VNPORT_INFO info = {};
        run.expect("TRELM_GetVNPortInfo", TRELM_GetVNPortInfo(handle, 0, &info));
        if (info.TgtCount != 2) complain(trail, "afterwards a port had %u targets", info.TgtCount);
        TRELM_SCSI_CMND test_unit_ready = {};
        test_unit_ready.CDBLength = 6;
        run.expect("TRELM_SendScsiCommand",
                   TRELM_SendScsiCommand(handle, 0, &test_unit_ready, nullptr, nullptr));
        run.expect("TRELM_CloseAdapter", TRELM_CloseAdapter(handle));
    }
    run.expect("TRELM_FreeLibrary", TRELM_FreeLibrary());
}

}  // namespace trelm::sweep
