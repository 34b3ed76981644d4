// Sends one message carrying any number of descriptors (none too) with SCM_RIGHTS: what tests and
// fuzzers pass to the daemon that no TEE client library would.
#pragma once

#include <sys/socket.h>

#include <cstring>
#include <vector>

namespace zel::test {

inline ssize_t sendWithDescriptors(int socket, const void* bytes, size_t size,
                                   const std::vector<int>& fds, int flags = 0) {
    iovec iov{const_cast<void*>(bytes), size};
    msghdr msg{};
    msg.msg_iov = &iov;
    msg.msg_iovlen = 1;
    std::vector<char> control(CMSG_SPACE(fds.size() * sizeof(int)));
    if (!fds.empty()) {
        msg.msg_control = control.data();
        msg.msg_controllen = control.size();
        cmsghdr* header = CMSG_FIRSTHDR(&msg);
        header->cmsg_level = SOL_SOCKET;
        header->cmsg_type = SCM_RIGHTS;
        header->cmsg_len = CMSG_LEN(fds.size() * sizeof(int));
        std::memcpy(CMSG_DATA(header), fds.data(), fds.size() * sizeof(int));
    }
    return sendmsg(socket, &msg, MSG_NOSIGNAL | flags);
}

}  // namespace zel::test
