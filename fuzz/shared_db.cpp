// shared_db.cpp - a shared file of any size and content and a process listing of any content: the library
// joins, takes a slot by its rule, changes nothing else, and leaves.
#include "shared_db.h"

#include <fstream>
#include <vector>

#include "hostile_host.h"
#include "trelm_core.h"

namespace {

namespace fs = std::filesystem;
using trelm::fuzz::Input;

constexpr char kFile[] = "/tmp/trelm_shared.dat";  // of the simulated host
using Bytes = std::vector<uint8_t>;

trelm_shared_db& as_database(Bytes& bytes) { return *reinterpret_cast<trelm_shared_db*>(bytes.data()); }

// Joins by the rule. Returns the slot.
unsigned join(trelm_shared_db& database) {
    unsigned slot = 0;
    while (slot < kLibraryInstances && (database.libinst_flags[slot] & 4) != 0) ++slot;
    if (slot == kLibraryInstances) {
        for (slot = 1; slot < kLibraryInstances; ++slot) database.libinst_flags[slot] &= ~4U;
        slot = 0;
    }
    database.libinst_flags[slot] |= 5;
    database.hbaptevq[slot] = {};
    return slot;
}

}  // namespace

int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Input input(data, size);
    Input nothing(nullptr, 0);
    trelm::fuzz::HostileHost host(nothing);
    const auto listing = input.bytes(input.below(64));
    host.listing.assign(listing.begin(), listing.end());
    const size_t file_size = input.take<uint32_t>() % (2 * sizeof(trelm_shared_db));
    const auto begin = input.bytes(file_size);
    std::ofstream(kFile).write(reinterpret_cast<const char*>(begin.data()), std::ssize(begin));
    fs::resize_file(kFile, file_size);
    Bytes expected(begin.begin(), begin.end());
    expected.resize(std::max(file_size, sizeof(trelm_shared_db)));
    const unsigned slot = join(as_database(expected));

    int32_t fd = -1;
    REQUIRE(trelm_open_database(&fd) == 0 && fd == trelm_shm_fildes);
    REQUIRE(fs::file_size(kFile) == expected.size());
    REQUIRE(trelm_library_instance == slot);
    REQUIRE(memcmp(trelm_shared_data, expected.data(), sizeof(trelm_shared_db)) == 0);

    const bool last = trelm_get_total_libinst_count() == 1;
    REQUIRE(trelm_close_database(fd) == 0);
    REQUIRE(!trelm_shared_data && trelm_shm_fildes == -1);
    REQUIRE(fs::exists(kFile) == !last);
    return 0;
}
