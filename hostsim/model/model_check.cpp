// model_check.cpp - what makes a model one that a host can be: names that are told apart, fields that fit the
// drivers' records, faults and orders that speak of ports that are there. The first mistake is told with its
// place in the host file.
#include <fmt/format.h>

#include <map>
#include <set>

#include "model.h"
#include "values.h"

namespace hostsim {
namespace {

class Checker {
  public:
    explicit Checker(const Model& model) : model_(model) {}

    std::optional<ModelProblem> run() {
        check_host();
        for (size_t a = 0; a < model_.adapters.size(); ++a) {
            check_adapter(model_.adapters[a], fmt::format("/adapters/{}", a));
        }
        check_ports();
        for (size_t d = 0; d < kDriverKinds; ++d) check_driver(static_cast<DriverKind>(d));
        for (size_t f = 0; f < model_.faults.size(); ++f) {
            check_fault(model_.faults[f], fmt::format("/faults/{}", f));
        }
        return problem_;
    }

  private:
    // Only the first mistake is kept: those after it are often its consequences.
    template <typename... Args>
    void require(bool sound, const std::string& pointer, fmt::format_string<Args...> reason, Args&&... args) {
        if (sound || problem_) return;
        problem_ = ModelProblem{pointer, fmt::format(reason, std::forward<Args>(args)...)};
    }

    void check_text(const std::string& text, size_t width, const std::string& pointer) {
        require(text.size() <= width, pointer, "the text has {} bytes, at most {} are allowed", text.size(),
                width);
        require(text.find('\0') == std::string::npos, pointer, "a zero byte is not allowed in a text");
    }

    void check_host() {
        check_text(model_.name, 64, "/name");
        check_text(model_.system_name, 64, "/system_name");
        check_text(model_.release, 64, "/release");
        check_text(model_.version, 64, "/version");
        check_text(model_.machine, 64, "/machine");
    }

    void check_adapter(const Adapter& adapter, const std::string& at) {
        check_text(adapter.manufacturer, 64, at + "/manufacturer");
        check_text(adapter.model, 32, at + "/model");
        check_text(adapter.description, 128, at + "/description");
        check_text(adapter.serial_number, 32, at + "/serial_number");
        check_text(adapter.firmware_version, 32, at + "/firmware_version");
        for (size_t p = 0; p < adapter.ports.size(); ++p) {
            check_physical_port(adapter.ports[p], fmt::format("{}/ports/{}", at, p));
        }
    }

    void check_physical_port(const PhysicalPort& physical, const std::string& at) {
        require(physical.pci_function < 8, at + "/function", "{} is no PCI function, 0 to 7 are allowed",
                physical.pci_function);
        check_port(physical, at);
        std::map<uint32_t, std::string> indexes{{physical.npiv_index.value_or(0), at}};
        for (size_t v = 0; v < physical.virtual_ports.size(); ++v) {
            const Port& port = physical.virtual_ports[v];
            const std::string place = fmt::format("{}/virtual_ports/{}", at, v);
            check_port(port, place);
            const uint32_t index = port.npiv_index.value_or(static_cast<uint32_t>(v + 1));
            const auto [other, fresh] = indexes.emplace(index, place);
            require(fresh, place + "/npiv_index",
                    "the index {} is taken by {}, each port of one adapter port needs its own", index,
                    other->second);
        }
    }

    void check_port(const Port& port, const std::string& at) {
        check_text(port.hba_name, 32, at + "/hba_name");
        std::map<uint32_t, std::string> indexes;
        std::map<uint64_t, std::string> wwpns;
        for (size_t t = 0; t < port.targets.size(); ++t) {
            const Target& target = port.targets[t];
            const std::string place = fmt::format("{}/targets/{}", at, t);
            require(target.index < kMaxTargets, place + "/index",
                    "{} is no target index, 0 to {} are allowed", target.index, kMaxTargets - 1);
            const auto [other, fresh] = indexes.emplace(target.index, place);
            require(fresh, place + "/index",
                    "the target index {} is taken by {}, each target of a port needs its own", target.index,
                    other->second);
            const auto [twin, unheard] = wwpns.emplace(target.wwpn, place);
            require(unheard || target.wwpn == 0, place + "/wwpn",
                    "the WWPN {} is taken by {}, each target of a port needs its own",
                    format_wwn(target.wwpn), twin->second);
            check_luns(target, place);
        }
    }

    void check_luns(const Target& target, const std::string& at) {
        std::set<uint32_t> numbers;
        for (size_t l = 0; l < target.luns.size(); ++l) {
            const Lun& lun = target.luns[l];
            const std::string place = fmt::format("{}/luns/{}", at, l);
            check_lun(lun, place);
            for (uint32_t n = 0; n < lun.count && !problem_; ++n) {
                require(numbers.insert(lun.number + n).second, place + "/number",
                        "the LUN {} stands twice on this target, each LUN needs a number of its own",
                        lun.number + n);
            }
        }
    }

    void check_lun(const Lun& lun, const std::string& at) {
        const uint32_t limit = lun.addressing == Lun::Addressing::peripheral ? 255 : 16383;
        require(lun.count >= 1 && lun.count <= 16384, at + "/count",
                "{} is no count of LUNs, 1 to 16384 are allowed", lun.count);
        require(lun.number <= limit && lun.count - 1 <= limit - lun.number, at + "/number",
                "LUN {} is out of range, up to {} is allowed{}", uint64_t{lun.number} + lun.count - 1, limit,
                limit == 255 ? " with peripheral addressing" : "");
        require(lun.block_size == 512 || lun.block_size == 4096, at + "/block_size",
                "{} is no block size, 512 and 4096 are allowed", lun.block_size);
        require(lun.block_count > 0, at + "/block_count", "a LUN needs at least one block");
        require(lun.device_type < 32, at + "/device_type", "{} is no device type, 0 to 31 are allowed",
                lun.device_type);
        check_text(lun.vendor, 8, at + "/vendor");
        check_text(lun.product, 16, at + "/product");
        check_text(lun.revision, 4, at + "/revision");
        check_text(lun.serial, 32, at + "/serial_number");
        require(lun.directory.empty() || lun.backing == Lun::Backing::file, at + "/directory",
                "only a LUN whose backing is \"file\" has a directory");
        check_paths(lun, at);
    }

    // Paths to one disk must agree on what it is.
    void check_paths(const Lun& lun, const std::string& at) {
        if (lun.naa == 0) return;
        require(lun.count == 1, at + "/naa", "one NAA id cannot name {} LUNs, leave it out", lun.count);
        const auto [first, fresh] = disks_.emplace(lun.naa, std::pair{&lun, at});
        const Lun& other = *first->second.first;
        require(fresh || (other.block_count == lun.block_count && other.block_size == lun.block_size),
                at + "/naa",
                "the LUN at {} has the same NAA id and another capacity or block size; paths to one disk "
                "must agree",
                first->second.second);
        require(fresh || (other.backing == lun.backing && other.directory == lun.directory), at + "/naa",
                "the LUN at {} has the same NAA id and another backing; paths to one disk must agree",
                first->second.second);
    }

    static std::string pointer_of(const PortRef& ref) {
        const std::string at = fmt::format("/adapters/{}/ports/{}", ref.adapter_index, ref.port_index);
        return ref.is_virtual ? fmt::format("{}/virtual_ports/{}", at, ref.virtual_index) : at;
    }

    void check_ports() {
        std::map<uint64_t, std::string> wwpns;
        std::map<uint32_t, std::string> host_numbers;
        std::map<std::string, std::string> names;
        for (const PortRef& ref : all_ports(model_)) {
            const std::string at = pointer_of(ref);
            const auto [twin, unheard] = wwpns.emplace(ref.wwpn, at);
            require(unheard, at + "/wwpn", "the WWPN {} is taken by {}, each port of the host needs its own",
                    format_wwn(ref.wwpn), twin->second);
            const auto [other, fresh] = host_numbers.emplace(ref.host_no, at);
            require(fresh, at + "/host_no",
                    "the host number {} is taken by {}, each port of the host needs its own", ref.host_no,
                    other->second);
            if (ref.port->name.empty()) continue;
            const auto [namesake, new_name] = names.emplace(ref.port->name, at);
            require(new_name, at + "/name",
                    "the name \"{}\" is taken by {}, each port of the host needs its own", ref.port->name,
                    namesake->second);
        }
    }

    void check_driver(DriverKind kind) {
        const Driver& driver = model_.driver(kind);
        const std::string at = fmt::format("/drivers/{}", kDriverKindNames[static_cast<size_t>(kind)]);
        require(driver.presence != Driver::Presence::no_device || kind == DriverKind::legacy, at + "/state",
                "only the legacy driver has a node that may be no device; \"present\" and \"absent\" are "
                "allowed");
        check_text(driver.name, 16, at + "/name");
        check_text(driver.version, 32, at + "/version");
        check_text(driver.date, 32, at + "/date");
        const auto count = driver.reported_port_count;
        require(!count || (*count >= INT32_MIN && *count <= UINT32_MAX), at + "/port_count",
                "the count does not fit 32 bits");
        const std::vector<PortRef> ports = driver_ports(model_, kind);
        std::set<uint64_t> placed;
        for (size_t i = 0; i < driver.order.size(); ++i) {
            const std::string place = fmt::format("{}/order/{}", at, i);
            const PortRef* const ref = find(ports, driver.order[i]);
            require(ref, place, "the driver has no port \"{}\"; a port's name or WWPN is allowed",
                    driver.order[i]);
            require(!ref || placed.insert(ref->wwpn).second, place,
                    "the port \"{}\" stands twice in the order", driver.order[i]);
        }
    }

    static const PortRef* find(const std::vector<PortRef>& ports, const std::string& name) {
        for (const PortRef& ref : ports) {
            if (is_named(ref, name)) return &ref;
        }
        return nullptr;
    }

    void check_fault(const Fault& fault, const std::string& at) {
        const Operation op = fault.operation;
        const bool node = op == Operation::open || op == Operation::close;
        const bool portless = node || op == Operation::init || op == Operation::hba_count;
        require(fault.port.empty() || !portless, at + "/port", "this operation is asked of no port");
        require(fault.port.empty() || find(all_ports(model_), fault.port), at + "/port",
                "the host has no port \"{}\"; a port's name or WWPN is allowed", fault.port);
        require(!fault.target || op == Operation::tgt_info || op == Operation::scsi, at + "/target",
                "only \"tgt_info\" and \"scsi\" go to a target");
        require(!fault.target || *fault.target < kMaxTargets, at + "/target",
                "{} is no target index, 0 to {} are allowed", fault.target.value_or(0), kMaxTargets - 1);
        require(!fault.opcode || op == Operation::scsi, at + "/opcode",
                "only \"scsi\" carries an operation code");
        require(fault.occurrence >= 1, at + "/occurrence", "occurrences are counted from 1");
        require(fault.count >= 1, at + "/count",
                "a fault happens at least once; a number or \"always\" is allowed");
        require(fault.status != 0 || fault.error != 0, at,
                "a fault needs a \"status\", an \"errno\" or both");
        require(!node || fault.status == 0, at + "/status",
                "opening and closing the node fails with an \"errno\" only");
        check_fault_driver(fault, node, at);
    }

    void check_fault_driver(const Fault& fault, bool node, const std::string& at) {
        const bool legacy = fault.driver == DriverKind::legacy;
        require(!node || !fault.driver || legacy, at + "/driver",
                "only the legacy driver has a node to open and close");
        require(fault.operation != Operation::init || !legacy, at + "/driver",
                "the legacy driver has no management interface to initialise");
    }

    const Model& model_;
    std::optional<ModelProblem> problem_;
    std::map<uint64_t, std::pair<const Lun*, std::string>> disks_;
};

}  // namespace

std::optional<ModelProblem> find_problem(const Model& model) { return Checker(model).run(); }

}  // namespace hostsim
