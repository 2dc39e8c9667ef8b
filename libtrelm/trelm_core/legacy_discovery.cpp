// Discovery of the legacy driver's ports into the registry.

#include <fcntl.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "discovery.h"
#include "legacy_driver.h"
#include "registry.h"
#include "trelm_dbg.h"
#include "trelm_system.h"

namespace {

using trelm::detail::Added;
using trelm::detail::error;
using trelm::detail::Piece;
using trelm::detail::trace;

constexpr char kFunc[] = "trelm_find_all_instances";
constexpr trelm::detail::DiscoveryNames kNames = {kFunc, "trelm_get_hw_info_inst", "trelm_get_parent_port"};
constexpr char kModelDesc[] = "Calvexa 10G FCoE Adapter";

constexpr uint32_t kMaxIndex = 65535;  // a request selects the port with 16 bits
constexpr unsigned kMaxFailuresInARow =
    256;  // requests for a host number; after that the driver has no more ports

using NodePath = char[sizeof trelm_hw_info::phys_path];

void report(int fd, const char* text, uint32_t stat) {
    const int err = errno;
    error(kFunc, Piece("(", fd, 16), Piece(text, stat, 16), Piece(" errno=", err, 16));
}

// If the driver does not answer, the fields stay zero and the port counts as physical.
void read_port_info(int fd, trelm_priv_db* pdb, dorfc_port_info& port) {
    uint32_t stat = 0;
    if (trelm_get_port_info(fd, pdb, &port, &stat) != 0) {
        report(fd, "): get port info ioctl failed. stat=", stat);
        port = {};
        return;
    }
    trelm::detail::copy_port(*pdb, port);
    TRELM_COPY(*pdb, port, hba_name);
    trelm_get_dorfc_link_state(pdb);
}

bool read_pci_info(int fd, trelm_priv_db* pdb, dorfc_pci_info& pci) {
    uint32_t stat = 0;
    if (trelm_get_pci_info(fd, pdb, &pci, &stat) == 0) return true;
    report(fd, "): get pci info ioctl failed. stat=", stat);
    return false;
}

void fill_hardware(trelm_hw_info& hw, const NodePath& path, const dorfc_port_info& port,
                   const dorfc_pci_info& pci) {
    trelm::detail::copy_hardware(hw, port, pci);
    memcpy(hw.phys_path, path, sizeof hw.phys_path);
    memcpy(hw.model_desc, kModelDesc, sizeof kModelDesc);
    hw.phy_port_number = static_cast<uint8_t>(pci.port_num);
    hw.native_driver = 0;
}

// Fills the record of a new port. If its PCI location cannot be read, the port has no hardware record.
Added read_port(int fd, const NodePath& path, trelm_priv_db* pdb, uint16_t instance) {
    dorfc_port_info port = {};
    dorfc_pci_info pci = {};
    read_port_info(fd, pdb, port);
    if (!read_pci_info(fd, pdb, pci)) return Added::kept;
    return trelm::detail::attach_hardware(kNames, pdb, pci, instance,
                                          [&](trelm_hw_info& hw) { fill_hardware(hw, path, port, pci); });
}

// `has_number` receives whether the driver gave the port a host number.
Added add_port(int fd, const NodePath& path, uint32_t index, uint16_t instance, bool& has_number) {
    trelm_priv_db* pdb = nullptr;
    if (trelm_alloc_pdb_mem(&pdb) != 0) {
        error(kFunc, Piece(": inst=", instance, 16), " mem alloc failed, exiting");
        return Added::no_memory;
    }
    pdb->drvr_inst = index;
    has_number = trelm_get_hostno(pdb, fd, &pdb->host_no) == 0;
    if (!has_number) {
        error(kFunc, ": host no failed.");
        trelm_free_pdb_element(pdb);
        return Added::dropped;
    }
    const Added added = read_port(fd, path, pdb, instance);
    if (added == Added::kept) trelm_print_priv_data(pdb);
    return added;
}

// Asks for one index after another until all ports of the count were found. False when memory is exhausted.
bool add_ports(int fd, const NodePath& path, int32_t hba_count, uint16_t& instance) {
    unsigned failures = 0;
    for (uint32_t index = 0; hba_count > 0 && index <= kMaxIndex && failures < kMaxFailuresInARow; ++index) {
        bool has_number = false;
        const Added added = add_port(fd, path, index, instance, has_number);
        if (added == Added::no_memory) return false;
        if (added == Added::kept) ++instance;
        failures = has_number ? 0 : failures + 1;
        if (has_number) --hba_count;
    }
    return true;
}

}  // namespace

uint32_t trelm_find_all_instances(const char* driver_name, uint32_t* start_inst) {
    trace(kFunc, ": entered for ", driver_name);
    NodePath path = {};
    snprintf(path, sizeof path, "/dev/char/vmkdriver/%s", driver_name);
    if (trelm_charnode_exist(path) != 0) {
        error(kFunc, ": not found: ", path);
        return 1;
    }
    trelm::detail::Descriptor fd(trelm::detail::open_file(path, O_RDWR));
    if (!fd) {
        error(kFunc, ": char device open error.");
        return 1;
    }
    int32_t hba_count = 0;
    if (trelm_get_hba_count(fd.get(), &hba_count) != 0) {
        error(kFunc, ": hba count failed.");
        return 1;
    }
    trace(kFunc, Piece(": Got hba_count=", hba_count));
    if (hba_count <= 0) return 0;
    auto instance = static_cast<uint16_t>(*start_inst);
    if (!add_ports(fd.get(), path, hba_count, instance)) {
        trelm::detail::release_registry();
        return 1;
    }
    fd.reset();
    if (instance != *start_inst) *start_inst = instance;
    trace(kFunc, Piece(": found ", instance, 16), Piece(" instances, exiting ret=", 0, 16));
    return 0;
}
