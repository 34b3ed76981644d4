// The daemon's connection handling, in process over a socketpair: a sequence of messages of any
// size, each carrying no descriptor, a sealed or unsealed memfd (of the size asked, filled from
// the input, so that registered blocks hold fuzzed requests), a pipe, or several of them. Every
// message is answered or the connection closed, and no descriptor outlives the connection.
//
// Input: records of [kind][size][bytes...]: kind's low 3 bits choose the descriptors, size
// (one byte, times 4) how many bytes of the input form the message.
#include <dirent.h>
#include <fcntl.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "connection.h"
#include "descriptor_message.h"
#include "object_store.h"
#include "ta_folder.h"

using namespace zel::vault;
namespace wire = zel::wire;

namespace {

// The daemon's pieces as zel-vaultd puts them together, with the vault's TAs from the build.
struct Daemon {
    std::unique_ptr<zel::tee::ObjectStore> store = [] {
        std::string error;
        auto opened = zel::tee::ObjectStore::open(":memory:", error);
        if (!opened) abort();
        return opened;
    }();
    TaFolder folder{ZEL_TA_BUILD_FOLDER, *store};
    TaRegistry registry{
        [this](const wire::UuidBytes& uuid, TrustedApp& app) { return folder.load(uuid, app); }};
    FaultPlan faults;
};

Daemon& daemon() {
    static Daemon* made = new Daemon;
    return *made;
}

int openDescriptors() {
    DIR* directory = opendir("/proc/self/fd");
    int count = 0;
    while (const dirent* entry = readdir(directory))
        if (entry->d_name[0] != '.') ++count;
    closedir(directory);
    return count;
}

int memfd(const uint8_t* fill, size_t fillSize, size_t size, bool seal) {
    const int fd = memfd_create("fuzz-block", MFD_CLOEXEC | MFD_ALLOW_SEALING);
    if (fd < 0 || ftruncate(fd, static_cast<off_t>(size)) != 0) abort();
    if (fillSize && pwrite(fd, fill, std::min(fillSize, size), 0) < 0) abort();
    if (seal) fcntl(fd, F_ADD_SEALS, F_SEAL_SHRINK | F_SEAL_GROW);
    return fd;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Daemon& d = daemon();
    d.store->clear();
    const int before = openDescriptors();
    int pair[2];
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, pair) != 0) abort();

    size_t at = 0;
    int messages = 0;
    for (; at + 2 <= size && messages < 32; ++messages) {
        const uint8_t kind = data[at];
        size_t length = static_cast<size_t>(data[at + 1]) * 4;
        at += 2;
        length = std::min(length, size - at);
        const uint8_t* message = data + at;
        at += length;
        // A registration's block is filled with what follows the request in the message.
        const uint8_t* fill =
            length > sizeof(wire::Request) ? message + sizeof(wire::Request) : nullptr;
        const size_t fillSize = fill ? length - sizeof(wire::Request) : 0;
        uint32_t asked = 4096;
        if (length >= sizeof(wire::Request)) {
            wire::Request request;
            std::memcpy(&request, message, sizeof request);
            if (request.op == wire::kRegisterMemory)
                asked = std::min<uint32_t>(request.size, 1 << 16);
        }
        const size_t sent = std::min(length, sizeof(wire::Request) + 8);
        std::vector<int> fds;
        int pipeFds[2] = {-1, -1};
        switch (kind & 7) {
            case 1:
                fds.push_back(memfd(fill, fillSize, asked ? asked : 1, true));
                break;
            case 2:
                fds.push_back(memfd(fill, fillSize, asked ? asked : 1, false));
                break;
            case 3:
                fds.push_back(memfd(fill, fillSize, asked / 2 + 1, true));
                break;  // short
            case 4:
                if (pipe2(pipeFds, O_CLOEXEC) == 0) fds = {pipeFds[0], pipeFds[1]};
                break;
            case 5:
                fds.push_back(memfd(fill, fillSize, asked ? asked : 1, true));
                fds.push_back(memfd(nullptr, 0, 64, false));
                fds.push_back(memfd(nullptr, 0, 64, true));
                break;
            default:
                break;
        }
        zel::test::sendWithDescriptors(pair[0], message, sent, fds, MSG_DONTWAIT);
        for (int fd : fds) close(fd);
    }
    shutdown(pair[0], SHUT_WR);
    Connection(pair[1], d.registry, d.faults).serve();
    close(pair[1]);

    // Every message got its reply (none lost, none extra), then the end.
    wire::Reply reply;
    int replies = 0;
    while (recv(pair[0], &reply, sizeof reply, MSG_DONTWAIT) == static_cast<ssize_t>(sizeof reply))
        ++replies;
    close(pair[0]);
    if (replies > messages) abort();
    if (openDescriptors() != before) abort();  // a descriptor passed in outlived the connection
    return 0;
}
