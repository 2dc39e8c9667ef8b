// Discovery of the legacy driver's ports into the registry.

#include <fcntl.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "trelm_core.h"
#include "trelm_core/discovery.h"
#include "trelm_core/location_index.h"
#include "trelm_dbg.h"
#include "trelm_system.h"

namespace {

using trelm::detail::error;
using trelm::detail::Piece;
using trelm::detail::trace;

constexpr char kFunc[] = "trelm_find_all_instances";
constexpr char kModelDesc[] = "Calvexa 10G FCoE Adapter";

constexpr uint32_t kMaxIndex = 65535;         // a request selects the port with 16 bits
constexpr unsigned kMaxFailuresInARow = 256;  // host numbers; a driver that fails so often has no more ports

using NodePath = char[sizeof trelm_hw_info::phys_path];

void report(int fd, const char* text, uint32_t stat) {
    const int err = errno;
    error(kFunc, Piece("(", fd, 16), Piece(text, stat, 16), Piece(" errno=", err, 16));
}

// Leaves the port's fields zero where the driver does not answer; such a port counts as a physical one.
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

enum class Step { kKept, kDropped, kFailed, kNoMemory };

// Gives the port the hardware record that belongs to it: a virtual port that of its physical port, a physical
// one its own.
Step attach_hardware(const NodePath& path, trelm_priv_db* pdb, const dorfc_port_info& port,
                     const dorfc_pci_info& pci, uint16_t instance) {
    if (pdb->port_type == FC_PORTTYPE_NPIV) {
        pdb->hw_info = trelm_get_hw_info_inst(&pci);
        pdb->parent = trelm_get_parent_port(&pci);
        return Step::kKept;
    }
    trelm_hw_info* hw = nullptr;
    if (trelm_alloc_hw_info_mem(&hw) != 0) {
        error(kFunc, Piece(": inst=", instance, 16), " hw info mem alloc failed, exiting");
        return Step::kNoMemory;
    }
    fill_hardware(*hw, path, port, pci);
    pdb->hw_info = hw;
    if (trelm::detail::is_supported_device(hw->device_id)) {
        trelm::detail::index_newest_port();
        return Step::kKept;
    }
    trelm_free_hw_info_element(hw);
    trelm_free_pdb_element(pdb);
    return Step::kDropped;
}

Step add_port(int fd, const NodePath& path, uint32_t index, uint16_t instance) {
    trelm_priv_db* pdb = nullptr;
    if (trelm_alloc_pdb_mem(&pdb) != 0) {
        error(kFunc, Piece(": inst=", instance, 16), " mem alloc failed, exiting");
        return Step::kNoMemory;
    }
    pdb->drvr_inst = index;
    if (trelm_get_hostno(pdb, fd, &pdb->host_no) != 0) {
        error(kFunc, ": host no failed.");
        trelm_free_pdb_element(pdb);
        return Step::kFailed;
    }
    dorfc_port_info port = {};
    dorfc_pci_info pci = {};
    read_port_info(fd, pdb, port);
    const Step step =
        read_pci_info(fd, pdb, pci) ? attach_hardware(path, pdb, port, pci, instance) : Step::kKept;
    if (step == Step::kKept) trelm_print_priv_data(pdb);
    return step;
}

// Walks the driver's indexes until it has accounted for all its ports. False when memory ran out.
bool add_ports(int fd, const NodePath& path, int32_t hba_count, uint16_t& instance) {
    const trelm::detail::LocationIndex index_of_locations;
    unsigned failures = 0;
    for (uint32_t index = 0; hba_count > 0 && index <= kMaxIndex && failures < kMaxFailuresInARow; ++index) {
        const Step step = add_port(fd, path, index, instance);
        if (step == Step::kNoMemory) return false;
        if (step == Step::kKept) ++instance;
        if (step == Step::kFailed) {
            ++failures;
        } else {
            failures = 0;
            --hba_count;
        }
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
