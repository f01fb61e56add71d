// The kernel's process-event connector (netlink, CN_IDX_PROC), the baseline the fork benchmarks hold
// kovabpfd against: a socket that receives PROC_EVENT_* messages, and a walk over one datagram.
#pragma once

#include <linux/cn_proc.h>
#include <linux/connector.h>
#include <linux/netlink.h>
#include <sys/types.h>

#include <string>

namespace kova::bench {

// A bound connector socket that listens to process events; -1, with the reason in *error, when the
// kernel refuses (no CONFIG_PROC_EVENTS, or not root). `rcvbuf` 0 keeps the system's default.
int OpenProcConnector(int rcvbuf, std::string* error);
// Asks the kernel to start (PROC_CN_MCAST_LISTEN) or stop sending events to `fd`.
void ProcConnectorControl(int fd, proc_cn_mcast_op op);

// Calls `visit(const proc_event&)` for each event in the `size` bytes of one received datagram.
template <typename Visit>
void ForEachProcEvent(const char* datagram, ssize_t size, Visit visit) {
    for (auto* header = reinterpret_cast<const nlmsghdr*>(datagram); NLMSG_OK(header, size);
         header = NLMSG_NEXT(header, size)) {
        const auto* message = static_cast<const cn_msg*>(NLMSG_DATA(header));
        visit(*reinterpret_cast<const proc_event*>(message->data));
    }
}

}  // namespace kova::bench
