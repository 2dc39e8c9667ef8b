// Loading and freeing the library on hosts of different sizes, and the shared database that a load joins.

#include <string>

#include "host.h"
#include "measure.h"
#include "rows.h"
#include "trelm_core.h"
#include "trelm_mgmt.h"
#include "trelm_ntapi.h"
#include "trelm_pyx_ntapi.h"

namespace bench {
namespace {

constexpr uint32_t kSizes[] = {8, 64, 512, 4096};

// The bare requests of a discovery.
class BareDiscovery {
  public:
    BareDiscovery(Kind kind, uint32_t ports)
        : legacy_(kind == Kind::legacy),
          ports_(ports),
          count_(kind, RequestNumber::hba_count),
          host_no_(kind, RequestNumber::host_no),
          port_(kind, RequestNumber::port_info),
          pci_(kind, RequestNumber::pci_info) {}

    void send() {
        count_.send();
        for (uint32_t port = 0; port < ports_; ++port) {
            host_no_.send();
            port_.send();
            if (legacy_) bare_link_state_calls();
            pci_.send();
        }
    }

  private:
    bool legacy_;
    uint32_t ports_;
    Payload count_;
    Payload host_no_;
    Payload port_;
    Payload pci_;
};

void load(benchmark::State& state, Kind kind, uint32_t ports) {
    serve({.kind = kind, .count = ports, .half_virtual = true});
    BareDiscovery floor(kind, ports);
    compare(
        state,
        [] {
            expect_ok(TRELM_LoadLibrary(), "TRELM_LoadLibrary");
            expect_ok(TRELM_FreeLibrary(), "TRELM_FreeLibrary");
        },
        [&] {
            floor.send();
            bare_database_calls();
        },
        ports);
}

uint32_t discover(Kind kind) {
    uint32_t found = 0;
    switch (kind) {
        case Kind::kron:
            return trelmnt_find_all_instances("kronfc", &found);
        case Kind::pyx:
            return trelm_pyxnt_find_all_instances("ostfc", &found);
        default:
            return trelm_find_all_instances("dorfc", &found);
    }
}

// The part of a load whose cost grows with the number of ports.
void discovery(benchmark::State& state, Kind kind, uint32_t ports) {
    serve({.kind = kind, .count = ports, .half_virtual = true});
    BareDiscovery floor(kind, ports);
    compare(
        state,
        [kind] {
            expect_ok(discover(kind), "a discovery");
            trelm_free_all_pdb_mem();
            trelm_free_all_hw_info_mem();
        },
        [&] { floor.send(); }, ports);
}

void database(benchmark::State& state) {
    compare(
        state,
        [] {
            int32_t fd = 0;
            expect_ok(trelm_open_database(&fd), "trelm_open_database");
            expect_ok(trelm_close_database(fd), "trelm_close_database");
        },
        bare_database_calls);
}

}  // namespace

void add_load_rows() {
    for (const Kind kind : kKinds) {
        for (const uint32_t ports : kSizes) {
            const std::string host = std::to_string(ports) + " ports, " + name_of(kind) + ", per port";
            const int pairs = ports > 512 ? 15 : 51;
            add_row("load and free " + host, pairs,
                    [=](benchmark::State& state) { load(state, kind, ports); });
            add_row("discover and forget " + host, pairs,
                    [=](benchmark::State& state) { discovery(state, kind, ports); });
        }
    }
    add_row("shared database, open and close", 101, database);
}

}  // namespace bench
