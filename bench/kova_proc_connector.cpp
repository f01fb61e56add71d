#include "kova_proc_connector.h"

#include <errno.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

namespace kova::bench {

int OpenProcConnector(int rcvbuf, std::string* error) {
    const int fd = socket(PF_NETLINK, SOCK_DGRAM | SOCK_CLOEXEC, NETLINK_CONNECTOR);
    if (fd < 0) {
        *error = std::string("netlink connector socket: ") + strerror(errno);
        return -1;
    }
    if (rcvbuf > 0) setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &rcvbuf, sizeof(rcvbuf));
    sockaddr_nl address{};
    address.nl_family = AF_NETLINK;
    address.nl_groups = CN_IDX_PROC;
    if (bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) {
        *error = std::string("bind netlink connector: ") + strerror(errno);
        close(fd);
        return -1;
    }
    ProcConnectorControl(fd, PROC_CN_MCAST_LISTEN);
    return fd;
}

void ProcConnectorControl(int fd, proc_cn_mcast_op op) {
    alignas(nlmsghdr) char request[NLMSG_SPACE(sizeof(cn_msg) + sizeof(op))] = {};
    auto* header = reinterpret_cast<nlmsghdr*>(request);
    header->nlmsg_len = NLMSG_LENGTH(sizeof(cn_msg) + sizeof(op));
    header->nlmsg_type = NLMSG_DONE;
    header->nlmsg_pid = static_cast<__u32>(getpid());
    auto* message = static_cast<cn_msg*>(NLMSG_DATA(header));
    message->id.idx = CN_IDX_PROC;
    message->id.val = CN_VAL_PROC;
    message->len = sizeof(op);
    memcpy(message->data, &op, sizeof(op));
    send(fd, request, header->nlmsg_len, 0);
}

}  // namespace kova::bench
