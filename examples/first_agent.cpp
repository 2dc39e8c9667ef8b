// first_agent.cpp - prints the FCoE ports of this host.
#include <iostream>
#include <trelm_mgmt.hpp>

int main() try {
    const trelm::Library library;
    for (uint32_t instance = 0; instance < library.port_count(); ++instance) {
        const trelm::Adapter adapter(library, instance);
        const TRELM_FCOE_INFO info = adapter.info();
        std::cout << "port " << instance << ": " << trelm::text(info.ModelName) << ", driver "
                  << trelm::text(info.DriverName) << '\n';
    }
} catch (const trelm::Error& error) {
    std::cerr << error.what() << '\n';
    return 1;
}
