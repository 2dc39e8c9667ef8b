// host.h - the simulated host of a process. A test constructs one, and the process runs on it until it is
// destroyed. A process that the launcher started is on the launcher's host. The interposed functions get from
// Host::current() what libc and the management interface would get from a real host.
#pragma once

#include <sys/utsname.h>

#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "driver_call.h"
#include "host_error.h"
#include "hostsim_api.h"
#include "link_state_files.h"
#include "model.h"
#include "vmkmgmt.h"

namespace hostsim {

class State;

// The type of file at the legacy driver's node.
enum class NodeKind : uint8_t { missing, device, regular_file };

class HOSTSIM_API Host {
  public:
    // The process is on this host while the object lives. There can be one at a time. Throws HostError if the
    // model has a mistake.
    Host(Model model);
    static Host from_json(std::string_view json);  // text of a host file
    static Host from_file(const std::filesystem::path& path);
    Host(const Host&) = delete;
    Host& operator=(const Host&) = delete;
    ~Host();

    // The host of this process; null if there is none. In a process that the launcher started, the first call
    // reads the host file.
    static Host* current() noexcept;

    // ---- For tests

    Model& model();                                      // may be changed between driver calls
    void edit(const std::function<void(Model&)>& edit);  // while other threads make driver calls
    std::vector<DriverCall> calls() const;
    size_t count_calls(Operation operation) const;
    void clear_calls();
    void inject(Fault fault);  // adds to the model's faults
    std::function<void(DriverAnswer&)> tamper;
    std::filesystem::path root() const;  // under which the host's "/tmp" and "/var/tmp" lie

    // ---- For the interposers; these functions do not throw

    State& state() noexcept;
    void fill_utsname(utsname* name) const noexcept;
    uint32_t effective_user() const noexcept;
    // The owner to show for files that the user of the process owns on the machine. Takes no lock: a program
    // may ask for the owner of a file while it holds a lock that it also takes before a fork, and a fork
    // holds the lock of the host.
    uint32_t shown_owner() const noexcept;
    NodeKind legacy_node() const noexcept;
    // The errno of a fault that is injected into open or close of the legacy node, 0 for none. Counts as an
    // occurrence.
    int node_fault(Operation open_or_close) noexcept;
    int legacy_request(unsigned long number, void* block) noexcept;  // as ioctl: 0, or -1 and errno
    std::vector<LinkStateFile> link_state_files() const;
    int management_init(const vmk_MgmtApiSignature* signature, uint64_t cookie,
                        vmk_MgmtUserHandle* handle) noexcept;
    int management_invoke(vmk_MgmtUserHandle handle, uint64_t instance, uint64_t callback,
                          uint32_t parameter_count, void* const* parameters) noexcept;

  private:
    class Core;
    explicit Host(std::unique_ptr<Core> core);

    std::unique_ptr<Core> core_;
};

}  // namespace hostsim
