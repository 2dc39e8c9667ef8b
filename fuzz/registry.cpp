// registry.cpp - sequences of additions, removals and look-ups of the registry, against a plain model.
#include "list_model.h"
#include "trelm_core.h"

namespace {

using trelm::fuzz::check;
using trelm::fuzz::Input;
using trelm::fuzz::Model;

trelm_priv_db& port(void* item) { return *static_cast<trelm_priv_db*>(item); }
bool is_physical(void* item) { return port(item).port_type != FC_PORTTYPE_NPIV; }

class Registry {
  public:
    explicit Registry(Input& input) : input_(input) {}
    ~Registry() {
        trelm_free_all_pdb_mem();
        trelm_free_all_hw_info_mem();
        REQUIRE(!trelm_priv_database && !trelm_phy_info);
    }
    Registry(const Registry&) = delete;
    Registry& operator=(const Registry&) = delete;

    void step() {
        static constexpr void (Registry::*kSteps[])() = {
            &Registry::add_port,    &Registry::add_port,  &Registry::free_port,  &Registry::by_instance,
            &Registry::instance_of, &Registry::by_handle, &Registry::by_location};
        (this->*kSteps[input_.below(std::size(kSteps))])();
        if (trelm_priv_database) check(trelm_priv_database, ports_);
        if (trelm_phy_info) check(trelm_phy_info, hardware_);
    }

  private:
    static bool lies_at(void* hw, const dorfc_pci_info& at) {
        return static_cast<trelm_hw_info*>(hw)->pci_func == at.function_num;
    }
    // What a look-up found, and where it left its cursor.
    void found(Model& model, const void* record, auto matches) {
        model.cursor = model.position(matches);
        model.has_cursor = true;
        REQUIRE(record == (model.at_sentinel() ? nullptr : model.items[model.cursor]));
    }

    void add_port() {
        trelm_priv_db* pdb = nullptr;
        REQUIRE(trelm_alloc_pdb_mem(&pdb) == 0);
        ports_.insert(pdb, true);
        pdb->port_type = input_.below(2) ? uint16_t{FC_PORTTYPE_NPIV} : uint16_t{FC_PORTTYPE_NPORT};
        pdb->npiv_index = input_.below(4);
        const size_t shared = input_.below(4);
        if (shared < hardware_.items.size() && !is_physical(pdb)) {
            pdb->hw_info = static_cast<trelm_hw_info*>(hardware_.items[shared]);
            return;
        }
        REQUIRE(trelm_alloc_hw_info_mem(&pdb->hw_info) == 0 && pdb->hw_info->oshandle == -1);
        hardware_.insert(pdb->hw_info, true);
        pdb->hw_info->apihandle = input_.below(4);
        pdb->hw_info->pci_func = static_cast<uint16_t>(input_.below(4));
    }
    void free_port() {
        const size_t at = input_.take<uint8_t>();
        const bool known = at < ports_.items.size();
        trelm_free_pdb_element(known ? &port(ports_.items[at]) : nullptr);
        if (known) ports_.cursor = at;
        if (known) {
            ports_.remove(at, true);
        } else if (trelm_priv_database) {
            ports_.to_sentinel();
        }
    }
    void by_instance() {
        const uint32_t instance = input_.take<uint8_t>();
        const auto* pdb = trelm_get_pdb_from_user_instance(instance);
        uint32_t before = 0;
        if (!trelm_priv_database) return REQUIRE(pdb == nullptr);
        found(ports_, pdb, [&](void* item) { return is_physical(item) && before++ == instance; });
    }
    void instance_of() {
        const size_t at = input_.take<uint8_t>();
        void* const wanted = at < ports_.items.size() ? ports_.items[at] : nullptr;
        uint32_t instance = 0;
        const uint32_t failed = trelm_get_instance_from_pdb(static_cast<trelm_priv_db*>(wanted), &instance);
        if (!trelm_priv_database) return REQUIRE(failed);
        found(ports_, wanted, [&](void* item) { return item == wanted; });
        const auto end = ports_.items.begin() + static_cast<ptrdiff_t>(ports_.cursor);
        REQUIRE(!failed && instance == std::count_if(ports_.items.begin(), end, is_physical));
    }
    void by_handle() {
        const uint32_t handle = 1 + input_.below(4);
        const uint32_t npiv = input_.below(4);
        const auto* pdb = trelm_get_pdb_from_user_handle(handle);
        const auto has_handle = [&](void* item) { return port(item).hw_info->apihandle == handle; };
        if (!trelm_priv_database) return REQUIRE(pdb == nullptr);
        found(ports_, pdb, [&](void* item) { return is_physical(item) && has_handle(item); });
        pdb = trelm_get_vn_pdb_from_user_handle(handle, npiv);
        found(ports_, pdb, [&](void* item) { return has_handle(item) && port(item).npiv_index == npiv; });
    }
    void by_location() {
        dorfc_pci_info at = {};
        at.function_num = static_cast<uint16_t>(input_.below(5));
        const auto* hw = trelm_get_hw_info_inst(&at);
        const auto* parent = trelm_get_parent_port(&at);
        if (!trelm_phy_info || !trelm_priv_database) return REQUIRE(!hw && !parent);
        found(hardware_, hw, [&](void* item) { return lies_at(item, at); });
        found(ports_, parent,
              [&](void* item) { return is_physical(item) && lies_at(port(item).hw_info, at); });
    }

    Input& input_;
    Model ports_;
    Model hardware_;
};

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Input input(data, size);
    Registry registry(input);
    for (int steps = 0; steps < 200 && !input.empty(); ++steps) registry.step();
    return 0;
}
