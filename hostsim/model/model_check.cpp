// model_check.cpp - checks a model. The tables of fields give the allowed values of each single field. The
// other checks are about agreement between fields: unique names, paths to one disk, and faults and orders
// that name ports of the host.
#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <bitset>
#include <map>
#include <unordered_map>

#include "field.h"
#include "printable.h"
#include "values.h"

namespace hostsim {
namespace {

constexpr size_t index_of(DriverKind kind) { return static_cast<size_t>(kind); }

// Problems in the order in which they are found, up to a limit for each severity.
class Problems {
  public:
    explicit Problems(size_t limit) : limit_(limit) {}

    template <typename... Args>
    void require(bool sound, const std::string& pointer, fmt::format_string<Args...> reason, Args&&... args) {
        if (!sound)
            add(ModelProblem::Severity::error, pointer, fmt::format(reason, std::forward<Args>(args)...));
    }
    template <typename... Args>
    void expect(bool usual, const std::string& pointer, fmt::format_string<Args...> reason, Args&&... args) {
        if (!usual)
            add(ModelProblem::Severity::warning, pointer, fmt::format(reason, std::forward<Args>(args)...));
    }
    bool any_error() const { return found_[static_cast<size_t>(ModelProblem::Severity::error)] > 0; }

    std::vector<ModelProblem> take() && { return std::move(problems_); }

  private:
    void add(ModelProblem::Severity severity, const std::string& pointer, std::string reason) {
        if (found_[static_cast<size_t>(severity)]++ < limit_)
            problems_.push_back({severity, pointer, std::move(reason)});
    }

    size_t limit_;
    std::array<size_t, 2> found_{};
    std::vector<ModelProblem> problems_;
};

// Records the first use of each key and reports an error for every other use.
template <typename Key>
class Unique {
  public:
    template <typename... Args>
    void take(Problems& problems, const Key& key, const std::string& at, const std::string& member,
              fmt::format_string<Args...> what, Args&&... args) {
        const auto [first, fresh] = places_.emplace(key, at);
        if (!fresh)
            problems.require(false, at + member, "{} is taken by {}",
                             fmt::format(what, std::forward<Args>(args)...), first->second);
    }

  private:
    std::map<Key, std::string> places_;
};

// ---- Single fields

class FieldCheck {
  public:
    explicit FieldCheck(Problems& problems) : problems_(problems) {}

    void check(const FieldTable& table, const void* record, const std::string& at) {
        // The tables return non-const members, because the reader sets them.
        for_each_field(table, const_cast<void*>(record),
                       [&](const FieldTable& owner, const Field& field, void* holder) {
                           check_field(owner, field, holder, fmt::format("{}/{}", at, field.key));
                       });
        check_keys(table, record, at);
    }

  private:
    void check_field(const FieldTable& table, const Field& field, void* owner, const std::string& at) {
        if (field.object) check(*field.table, field.object(owner), at);
        if (field.element) {
            for (size_t i = 0; i < field.size(owner); ++i)
                check(*field.table, field.element(owner, i), fmt::format("{}/{}", at, i));
        }
        if (field.get && is_given(table, field, owner)) check_value(field, field.get(owner), at);
    }

    // A field with its default value was not given, so it is not checked.
    static bool is_given(const FieldTable& table, const Field& field, const void* owner) {
        const FieldValue value = field.get(owner);
        return !std::holds_alternative<std::monostate>(value) && value != field.get(table.defaults());
    }

    void check_value(const Field& field, const FieldValue& value, const std::string& at) {
        if (const auto* text = std::get_if<std::string>(&value)) {
            problems_.require(text->size() <= field.high, at, "the text has {} bytes, at most {} are allowed",
                              text->size(), field.high);
            problems_.require(text->find('\0') == std::string::npos, at,
                              "a zero byte is not allowed in a text");
        }
        const auto* number = std::get_if<uint64_t>(&value);
        if (!number) return;
        const auto is_word = [&](const Word& word) { return word.number == *number; };
        const bool known = std::any_of(field.allowed_words.begin(), field.allowed_words.end(), is_word);
        const bool in_range = field.is_only_reported || (*number >= field.low && *number <= field.high);
        switch (field.type) {
            case FieldType::number:
                problems_.require(field.allowed_words.empty() ? in_range : known, at,
                                  "{} is out of range; a number from {} to {} is allowed", *number, field.low,
                                  field.high);
                break;
            case FieldType::word:
            case FieldType::words:
                problems_.require(known || (field.high > 0 && in_range), at, "{} is out of range", *number);
                break;
            case FieldType::pci_location:
                problems_.require((*number & 0xFF) < 32, at, "a PCI device is a number from 0 to 31");
                break;
            default:
                break;
        }
    }

    // Checks of the keys of one object together.
    void check_keys(const FieldTable& table, const void* record, const std::string& at) {
        const auto given = [&](std::string_view key) {
            return std::any_of(table.fields.begin(), table.fields.end(), [&](const Field& field) {
                return field.key == key && field.get && is_given(table, field, record);
            });
        };
        const auto [one, other] = table.at_least_one;
        problems_.require(one.empty() || given(one) || given(other), at,
                          "\"{}\", \"{}\" or both must be given", one, other);
        for (const Condition& condition : table.conditions) {
            problems_.require(!given(condition.key) || holds(table, condition, record),
                              fmt::format("{}/{}", at, condition.key), "{}", condition.reason);
        }
    }

    static bool holds(const FieldTable& table, const Condition& condition, const void* record) {
        const auto& field = *std::find_if(table.fields.begin(), table.fields.end(),
                                          [&](const Field& other) { return other.key == condition.other; });
        const FieldValue value = field.get(record);
        return std::any_of(field.allowed_words.begin(), field.allowed_words.end(), [&](const Word& word) {
            return value == FieldValue(word.number) &&
                   std::find(condition.words.begin(), condition.words.end(), word.name) !=
                       condition.words.end();
        });
    }

    Problems& problems_;
};

// ---- Targets and LUNs

class TargetCheck {
  public:
    explicit TargetCheck(Problems& problems) : problems_(problems) {}

    void check(const Port& port, const std::string& at) {
        Unique<uint32_t> indexes;
        Unique<uint64_t> wwpns;
        for (size_t t = 0; t < port.targets.size(); ++t) {
            const Target& target = port.targets[t];
            const std::string place = fmt::format("{}/targets/{}", at, t);
            indexes.take(problems_, target.index, place, "/index", "the target index {}", target.index);
            if (target.wwpn)
                wwpns.take(problems_, target.wwpn, place, "/wwpn", "the WWPN {}", format_wwn(target.wwpn));
            check_luns(target, place);
        }
    }

  private:
    void check_luns(const Target& target, const std::string& at) {
        std::map<uint32_t, size_t> by_number;
        for (size_t l = 0; l < target.luns.size(); ++l) {
            const Lun& lun = target.luns[l];
            const std::string place = fmt::format("{}/luns/{}", at, l);
            check_lun(lun, place);
            const auto [next, fresh] = by_number.emplace(lun.number, l);
            const Lun* const above =
                fresh && std::next(next) != by_number.end() ? &target.luns[std::next(next)->second] : nullptr;
            const Lun* const below = !fresh                      ? &target.luns[next->second]
                                     : next != by_number.begin() ? &target.luns[std::prev(next)->second]
                                                                 : nullptr;
            const bool below_reaches = below && lun.number - below->number < below->count;
            const bool reaches_above = above && above->number - lun.number < lun.count;
            problems_.require(!below_reaches && !reaches_above, place + "/number",
                              "the target has LUN {} already, each LUN needs a number of its own",
                              below_reaches || !above ? lun.number : above->number);
        }
    }

    void check_lun(const Lun& lun, const std::string& at) {
        const uint32_t limit = lun.addressing == Lun::Addressing::peripheral ? 255 : 16383;
        problems_.require(uint64_t{lun.number} + lun.count <= uint64_t{limit} + 1, at + "/number",
                          "LUN {} is out of range, up to {} is allowed{}",
                          uint64_t{lun.number} + lun.count - 1, limit,
                          limit == 255 ? " with peripheral addressing" : "");
        problems_.require(lun.block_count > 0, at + "/block_count", "a LUN needs at least one block");
        check_paths(lun, at);
    }

    // Paths to one disk must describe the same disk.
    void check_paths(const Lun& lun, const std::string& at) {
        if (lun.naa == 0) return;
        problems_.require(lun.count == 1, at + "/naa", "one NAA id cannot name {} LUNs, leave it out",
                          lun.count);
        const auto [first, fresh] = disks_.emplace(lun.naa, std::pair{&lun, at});
        const Lun& other = *first->second.first;
        problems_.require(
            fresh || (other.block_count == lun.block_count && other.block_size == lun.block_size),
            at + "/naa",
            "the LUN at {} has the same NAA id and another capacity or block size; paths to one "
            "disk must agree",
            first->second.second);
        problems_.require(
            fresh || (other.backing == lun.backing && other.directory == lun.directory), at + "/naa",
            "the LUN at {} has the same NAA id and another backing; paths to one disk must agree",
            first->second.second);
    }

    Problems& problems_;
    std::unordered_map<uint64_t, std::pair<const Lun*, std::string>> disks_;
};

// ---- Adapters

// The device ids that programs know, and by which they choose between the native drivers.
constexpr uint16_t kKronDevices[]{0x165C, 0x8080, 0x8180};
constexpr uint16_t kOtherDevices[]{0x1662, 0x1663, 0x168A, 0x168E, 0x16A1, 0x16A2, 0x16A4, 0x16A5, 0x16AE};

bool is_one_of(std::span<const uint16_t> ids, uint16_t id) {
    return std::find(ids.begin(), ids.end(), id) != ids.end();
}

class AdapterCheck {
  public:
    explicit AdapterCheck(Problems& problems) : problems_(problems), targets_(problems) {}

    void check(const Adapter& adapter, const std::string& at) {
        check_device(adapter, at);
        const auto location = std::tuple(adapter.pci_domain, adapter.pci_bus, adapter.pci_device);
        const auto [other, fresh] = locations_.emplace(location, at);
        problems_.expect(
            fresh, at + "/pci/address",
            "the PCI location {:04x}:{:02x}:{:02x} is taken by {}; programs take the two for one",
            adapter.pci_domain, adapter.pci_bus, adapter.pci_device, other->second);
        std::map<uint16_t, std::string> functions;
        for (size_t p = 0; p < adapter.ports.size(); ++p) {
            const PhysicalPort& port = adapter.ports[p];
            const std::string place = fmt::format("{}/ports/{}", at, p);
            const auto [twin, unused] = functions.emplace(port.pci_function, place);
            problems_.expect(unused, place + "/function",
                             "the PCI function {} is taken by {}; programs take the two for one",
                             port.pci_function, twin->second);
            check_port(port, place);
        }
    }

  private:
    void check_device(const Adapter& adapter, const std::string& at) {
        const std::string place = at + "/pci/device_id";
        const bool is_kron = is_one_of(kKronDevices, adapter.device_id);
        const bool is_known = is_kron || is_one_of(kOtherDevices, adapter.device_id);
        problems_.expect(is_known, place,
                         "programs know no device {:#06x} and pass it over; they know {:#06x} and {:#06x}",
                         adapter.device_id, fmt::join(kKronDevices, ", "), fmt::join(kOtherDevices, ", "));
        if (!is_known) return;
        problems_.expect(adapter.driver != DriverKind::kron || is_kron, place,
                         "programs do not ask the kron driver for device {:#06x}; {:#06x} are its devices",
                         adapter.device_id, fmt::join(kKronDevices, ", "));
        problems_.expect(adapter.driver != DriverKind::pyx || !is_kron, place,
                         "programs ask the kron driver for device {:#06x}; {:#06x} are those of pyx",
                         adapter.device_id, fmt::join(kOtherDevices, ", "));
    }

    void check_port(const PhysicalPort& physical, const std::string& at) {
        Unique<uint32_t> indexes;
        const uint32_t own = physical.npiv_index.value_or(0);
        indexes.take(problems_, own, at, "/npiv_index", "the NPIV index {}", own);
        targets_.check(physical, at);
        for (size_t v = 0; v < physical.virtual_ports.size(); ++v) {
            const Port& port = physical.virtual_ports[v];
            const std::string place = fmt::format("{}/virtual_ports/{}", at, v);
            const uint32_t index = port.npiv_index.value_or(static_cast<uint32_t>(v + 1));
            indexes.take(problems_, index, place, "/npiv_index", "the NPIV index {}", index);
            targets_.check(port, place);
        }
    }

    Problems& problems_;
    TargetCheck targets_;
    std::map<std::tuple<uint16_t, uint16_t, uint16_t>, std::string> locations_;
};

// ---- Names of ports

std::string pointer_of(const PortRef& ref) {
    const std::string at = fmt::format("/adapters/{}/ports/{}", ref.adapter_index, ref.port_index);
    return ref.is_virtual ? fmt::format("{}/virtual_ports/{}", at, ref.virtual_index) : at;
}

class PortNames {
  public:
    PortNames(const Model& model, Problems& problems) : ports_(all_ports(model)) {
        Unique<uint64_t> wwpns;
        Unique<uint32_t> host_numbers;
        Unique<std::string> names;
        Unique<std::string> hba_names;
        for (const PortRef& ref : ports_) {
            const std::string at = pointer_of(ref);
            wwpns.take(problems, ref.wwpn, at, "/wwpn", "the WWPN {}", format_wwn(ref.wwpn));
            host_numbers.take(problems, ref.host_no, at, "/host_no", "the host number {}", ref.host_no);
            const std::string hba_name =
                ref.port->hba_name.empty() ? fmt::format("vmhba{}", ref.host_no) : ref.port->hba_name;
            hba_names.take(problems, hba_name, at, "/hba_name", "the name \"{}\"", shortened(hba_name));
            by_wwpn_.emplace(ref.wwpn, &ref);
            if (ref.port->name.empty()) continue;
            names.take(problems, ref.port->name, at, "/name", "the name \"{}\"", shortened(ref.port->name));
            by_name_.emplace(ref.port->name, &ref);
        }
        for (const PortRef& ref : ports_) {
            const auto wwpn = parse_wwn(ref.port->name);
            problems.require(!wwpn || *wwpn == ref.wwpn || !by_wwpn_.contains(*wwpn),
                             pointer_of(ref) + "/name", "the name reads as the WWPN of {}",
                             wwpn ? place_of(*wwpn) : "");
        }
    }

    const PortRef* find(const std::string& text) const {
        if (const auto named = by_name_.find(text); named != by_name_.end()) return named->second;
        const auto wwpn = parse_wwn(text);
        const auto found = wwpn ? by_wwpn_.find(*wwpn) : by_wwpn_.end();
        return found == by_wwpn_.end() ? nullptr : found->second;
    }

    const std::vector<PortRef>& ports() const { return ports_; }

  private:
    std::string place_of(uint64_t wwpn) const {
        const auto found = by_wwpn_.find(wwpn);
        return found == by_wwpn_.end() ? "" : pointer_of(*found->second);
    }

    std::vector<PortRef> ports_;
    std::unordered_map<std::string, const PortRef*> by_name_;
    std::unordered_map<uint64_t, const PortRef*> by_wwpn_;
};

void check_order(const Model& model, DriverKind kind, const PortNames& names, Problems& problems) {
    const std::string at = fmt::format("/drivers/{}/order", kDriverKindNames[index_of(kind)]);
    const auto& order = model.driver(kind).order;
    Unique<uint64_t> placed;
    for (size_t i = 0; i < order.size(); ++i) {
        const std::string place = fmt::format("{}/{}", at, i);
        const PortRef* const ref = names.find(order[i]);
        const bool own = ref && ref->adapter->driver == kind;
        problems.require(own, place, "the driver has no port \"{}\"; a port's name or WWPN is allowed",
                         shortened(order[i]));
        if (own) placed.take(problems, ref->wwpn, place, "", "the port \"{}\"", shortened(order[i]));
    }
}

// ---- Faults

constexpr bool is_of_node(Operation operation) {
    return operation == Operation::open || operation == Operation::close;
}

constexpr bool has_operation(DriverKind kind, Operation operation) {
    if (kind == DriverKind::legacy) return operation != Operation::init;
    return !is_of_node(operation);
}

class FaultCheck {
  public:
    FaultCheck(const Model& model, const PortNames& names, Problems& problems)
        : model_(model), names_(names), problems_(problems) {
        for (const PortRef& ref : names.ports()) {
            for (const Target& target : ref.port->targets) {
                if (target.index < kMaxTargets) targets_[index_of(ref.adapter->driver)].set(target.index);
            }
        }
    }

    void check(const Fault& fault, const std::string& at) {
        const PortRef* const port = names_.find(fault.port);
        problems_.require(fault.port.empty() || port, at + "/port",
                          "the host has no port \"{}\"; a port's name or WWPN is allowed",
                          shortened(fault.port));
        problems_.require(
            !fault.driver || has_operation(*fault.driver, fault.operation), at + "/driver", "{}",
            is_of_node(fault.operation) ? "only the legacy driver has a node to open and close"
                                        : "the legacy driver has no management interface to initialise");
        if (port && fault.driver)
            problems_.require(port->adapter->driver == *fault.driver, at + "/port",
                              "the port \"{}\" belongs to the {} driver", shortened(fault.port),
                              kDriverKindNames[index_of(port->adapter->driver)]);
        check_chance(fault, port, at);
    }

  private:
    // A fault for a request that cannot occur.
    void check_chance(const Fault& fault, const PortRef* port, const std::string& at) {
        bool asked = false;
        bool target_there = false;
        for (size_t d = 0; d < kDriverKinds; ++d) {
            const auto kind = static_cast<DriverKind>(d);
            if (!has_operation(kind, fault.operation) || fault.driver.value_or(kind) != kind) continue;
            if (port && port->adapter->driver != kind) continue;
            asked = asked || is_present(model_, kind);
            target_there = target_there ||
                           (fault.target && *fault.target < kMaxTargets && targets_[d].test(*fault.target));
        }
        if (port && fault.target) {
            const auto& targets = port->port->targets;
            target_there = std::any_of(targets.begin(), targets.end(),
                                       [&](const Target& target) { return target.index == *fault.target; });
        }
        problems_.expect(asked, at + "/operation",
                         "the fault never happens: the host has no driver that is asked for this");
        problems_.expect(!fault.target || target_there, at + "/target",
                         "the fault never happens: {} target {}", port ? "the port has no" : "no port has a",
                         fault.target.value_or(0));
    }

    const Model& model_;
    const PortNames& names_;
    Problems& problems_;
    std::array<std::bitset<kMaxTargets>, kDriverKinds> targets_{};
};

}  // namespace

std::vector<ModelProblem> find_problems(const Model& model, size_t limit) {
    Problems problems(limit);
    FieldCheck(problems).check(host_table(), &model, "");
    // Agreement between fields is checked only if each of them is valid.
    if (problems.any_error()) return std::move(problems).take();
    AdapterCheck adapters(problems);
    for (size_t a = 0; a < model.adapters.size(); ++a)
        adapters.check(model.adapters[a], fmt::format("/adapters/{}", a));
    const PortNames names(model, problems);
    for (size_t d = 0; d < kDriverKinds; ++d) check_order(model, static_cast<DriverKind>(d), names, problems);
    FaultCheck faults(model, names, problems);
    for (size_t f = 0; f < model.faults.size(); ++f)
        faults.check(model.faults[f], fmt::format("/faults/{}", f));
    return std::move(problems).take();
}

}  // namespace hostsim
