// bare_host.cpp - the functions of libc and of the management interface that the library asks its host
// through. What others call too goes on to libc unless it is the library that calls.
#include "bare_host.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/sem.h>
#include <sys/utsname.h>
#include <unistd.h>

#include <cerrno>
#include <string_view>

#include "../tests/support/stand_before.h"
#include "trelm_driver_records.h"
#include "vmkmgmt.h"

namespace trelm::fuzz {
namespace {

BareHost* host = nullptr;

constexpr char kNode[] = "/dev/char/vmkdriver/dorfc";
constexpr char kLinkFiles[] = "/proc/scsi/dorfc/";
constexpr char kSharedFile[] = "/tmp/trelm_shared.dat";
constexpr uint64_t kKronCookie = 501;

int no(int error) {
    errno = error;
    return -1;
}

// ---- Drivers
// ----------------------------------------------------------------------------------------------

// The requests in the order in which both interfaces number them, and how much of each one's payload an
// answer may change. A native SCSI command: the command and the beginning of its data.
enum Request { kHbaCount, kHostNo, kPci, kPort, kStats, kTarget, kFcf, kScsi, kRequests };
constexpr size_t kPayload[kRequests] = {4, 4, 64, 512, 512, 64, 64, 320};
constexpr size_t kScsiLead = offsetof(kronfc_scsi_cmd, data_buffer);
constexpr size_t kNativeScsi = kScsiLead + 128;

struct Answer {
    uint32_t status;
    int result;
};

// An answer in the input: its shape, then what the shape announces. The payload is the request's with one
// byte all over it, with patches, or as it was.
Answer answer(uint8_t* payload, size_t size) {
    Input& input = host->answers;
    if (input.empty()) return {1, 0};
    const auto shape = input.take<uint8_t>();
    Answer answer = {};
    if (shape & 1) answer.status = shape & 2 ? input.take<uint32_t>() : input.take<uint8_t>();
    if (shape & 4) memset(payload, input.take<uint8_t>(), size);
    for (int patches = shape >> 4; patches > 0; --patches) {
        const size_t at = input.take<uint16_t>() % size;
        const auto patch = input.bytes(std::min<size_t>(input.below(33), size - at));
        std::copy(patch.begin(), patch.end(), payload + at);
    }
    if (shape & 8) answer.result = no(input.take<uint8_t>());
    return answer;
}

// What an answer begins with where a record of zeros would end its port's story.
void suggest(size_t request, uint8_t* payload, uint16_t device_id) {
    if (request == kHbaCount) payload[0] = static_cast<uint8_t>(host->answers.below(8));
    if (request == kPci) memcpy(payload + offsetof(dorfc_pci_info, device_id), &device_id, sizeof device_id);
    if (request == kPort) payload[offsetof(dorfc_port_info, tgt_cnt)] = 2;
}

template <typename Command>
void check_command(const Command& command) {
    REQUIRE(command.cdb_len <= kScsiMaxCdb && command.sense_len <= kScsiMaxSense);
    REQUIRE(command.direction <= SCSI_DIRECTION_OUT);
    REQUIRE(command.direction != SCSI_DIRECTION_NONE || command.data_len == 0);
}

// Nothing of earlier commands shows behind what this one sends.
void check_native_command(const kronfc_scsi_cmd& command) {
    check_command(command);
    REQUIRE(command.data_len <= kScsiMaxData);
    const size_t sent = command.direction == SCSI_DIRECTION_OUT ? command.data_len : 0;
    const uint8_t* const behind = command.data_buffer + sent;
    const size_t size = kScsiMaxData - sent;
    REQUIRE(size == 0 || (*behind == 0 && memcmp(behind, behind + 1, size - 1) == 0));
}

// The driver works in the caller's buffer, all over it.
void move_legacy_data(const dorfc_scsi_cmd& command) {
    check_command(command);
    auto* const data = reinterpret_cast<uint8_t*>(command.data_addr);
    if (command.direction == SCSI_DIRECTION_IN && command.data_len) {
        memset(data, 0, command.data_len);
        const auto arrived = host->answers.bytes(std::min<uint32_t>(command.data_len, 64));
        std::copy(arrived.begin(), arrived.end(), data);
    }
    volatile uint8_t seen = 0;
    if (command.direction == SCSI_DIRECTION_OUT)
        for (uint32_t i = 0; i < command.data_len; ++i) seen = data[i];
    (void)seen;
}

}  // namespace

// Defined before the functions of libc and of other libraries that are called by this name.
#define STANDS_FOR(result, name, parameters)                                                  \
    extern "C" [[gnu::visibility("default")]] result before_##name parameters __asm__(#name); \
    result before_##name parameters

STANDS_FOR(int, vmk_MgmtUserInit, (vmk_MgmtApiSignature*, uint64_t cookie, vmk_MgmtUserHandle* handle)) {
    *handle = cookie;
    return host->answers.empty() ? ENOENT : host->answers.take<uint8_t>() & 0x3;
}

STANDS_FOR(int, vmk_MgmtUserCallbackInvokeInt,
           (vmk_MgmtUserHandle handle, uint64_t instance, uint64_t callback, uint32_t count,
            uint8_t* record)) {
    REQUIRE(instance == 0 && count == 1);
    const size_t request = callback - NATIVE_CB_HBA_COUNT;
    REQUIRE(request < kRequests);
    const size_t payload = request == kHbaCount ? 0 : 8;
    const size_t status = request == kHostNo ? 12 : 4;
    if (request == kScsi) check_native_command(reinterpret_cast<kronfc_scsi_cmd_cb*>(record)->cmnd);
    suggest(request, record + payload, handle == kKronCookie ? 0x8080 : 0x16A1);
    const Answer given = answer(record + payload, request == kScsi ? kNativeScsi : kPayload[request]);
    memcpy(record + status, &given.status, sizeof given.status);
    return given.result;
}

STANDS_FOR(int, ioctl, (int, unsigned long number, dorfc_ioctl* block)) {
    const size_t request = number - DORFC_GET_HBA_COUNT;
    REQUIRE(request < kRequests);
    auto* const payload = reinterpret_cast<uint8_t*>(block->ioctlstructaddr);
    if (request == kScsi) move_legacy_data(*reinterpret_cast<dorfc_scsi_cmd*>(payload));
    suggest(request, payload, 0x168E);
    const Answer given = answer(payload, kPayload[request]);
    block->status = given.status;
    return given.result;
}

// ---- The system
// -------------------------------------------------------------------------------------------

STANDS_FOR(int, uname, (utsname * name)) {
    strcpy(name->sysname, "VMkernel");
    return 0;
}

STANDS_FOR(uid_t, geteuid, ()) { return 0; }

// One set, which is free whenever somebody wants it.
STANDS_FOR(int, semget, (key_t, int, int)) { return 1; }

STANDS_FOR(int, semctl, (int, int, int command, semid_ds* status)) {
    if (command == IPC_STAT) *status = {};
    if (command == IPC_STAT) status->sem_nsems = 1;
    if (command == IPC_STAT) status->sem_otime = 1;
    return command == GETVAL ? 1 : 0;
}

STANDS_FOR(int, semop, (int, sembuf*, size_t)) { return 0; }

// ---- Files
// ------------------------------------------------------------------------------------------------

STANDS_BEFORE(int, open, (const char* path, int flags, mode_t mode)) {
    if (!CALLED_BY_LIBRARY()) return NEXT_OF(open)(path, flags, mode);
    const std::string_view name = path;
    if (name == kNode && host->legacy_node) return NEXT_OF(open)("/dev/null", O_RDWR | O_CLOEXEC, 0);
    if (name != kSharedFile) return no(ENOENT);
    const bool creates = (flags & O_CREAT) != 0;
    if (creates && host->has_shared_file()) return no(EEXIST);
    if (creates) host->make_shared_file(0, {});
    if (!host->has_shared_file()) return no(ENOENT);
    const std::string again = "/proc/self/fd/" + std::to_string(host->shared_file);
    return NEXT_OF(open)(again.c_str(), O_RDWR | O_CLOEXEC, 0);
}

STANDS_BEFORE(int, remove, (const char* path)) {
    if (!CALLED_BY_LIBRARY()) return NEXT_OF(remove)(path);
    if (!host->has_shared_file()) return no(ENOENT);
    close(std::exchange(host->shared_file, -1));
    return 0;
}

STANDS_BEFORE(FILE*, popen, (const char* command, const char* mode)) {
    if (!CALLED_BY_LIBRARY()) return NEXT_OF(popen)(command, mode);
    return fmemopen(host->listing.data(), host->listing.size(), "r");
}

STANDS_BEFORE(int, pclose, (FILE * stream)) {
    return CALLED_BY_LIBRARY() ? fclose(stream) : NEXT_OF(pclose)(stream);
}

STANDS_BEFORE(FILE*, fopen, (const char* path, const char* mode)) {
    if (!CALLED_BY_LIBRARY()) return NEXT_OF(fopen)(path, mode);
    std::string_view name = path;
    REQUIRE(name.starts_with(kLinkFiles));
    name.remove_prefix(strlen(kLinkFiles));
    for (auto& [file, text] : host->link_files) {
        if (name == file) return fmemopen(text.data(), text.size(), "r");
    }
    return (errno = ENOENT, nullptr);
}

STANDS_BEFORE(DIR*, opendir, (const char* path)) {
    if (!CALLED_BY_LIBRARY()) return NEXT_OF(opendir)(path);
    host->names_read = 0;
    return reinterpret_cast<DIR*>(host);
}

STANDS_BEFORE(dirent*, readdir, (DIR * directory)) {
    if (!CALLED_BY_LIBRARY()) return NEXT_OF(readdir)(directory);
    static dirent entry;
    if (host->names_read == host->link_files.size()) return nullptr;
    snprintf(entry.d_name, sizeof entry.d_name, "%s", host->link_files[host->names_read++].first.c_str());
    return &entry;
}

STANDS_BEFORE(int, closedir, (DIR * directory)) {
    return CALLED_BY_LIBRARY() ? 0 : NEXT_OF(closedir)(directory);
}

// A line of the log is looked at to its end, and not shown.
STANDS_BEFORE(int, fputs, (const char* text, FILE* stream)) {
    if (!CALLED_BY_LIBRARY()) return NEXT_OF(fputs)(text, stream);
    REQUIRE(strlen(text) < 256);
    return 0;
}

BareHost::BareHost(Input& driver_answers) : answers(driver_answers) {
    static const bool found = trelm::test::find_library();
    REQUIRE(found);
    host = this;
}

BareHost::~BareHost() {
    if (has_shared_file()) close(shared_file);
    host = nullptr;
}

void BareHost::make_shared_file(size_t size, std::span<const uint8_t> begin) {
    shared_file = memfd_create("shared", MFD_CLOEXEC);
    REQUIRE(shared_file >= 0 && ftruncate(shared_file, static_cast<off_t>(size)) == 0);
    const size_t written = std::min(size, begin.size());
    REQUIRE(pwrite(shared_file, begin.data(), written, 0) == static_cast<ssize_t>(written));
}

}  // namespace trelm::fuzz
