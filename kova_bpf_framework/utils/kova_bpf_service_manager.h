// The service manager's notify protocol (systemd's sd_notify), without libsystemd: a datagram with
// "NAME=value" lines to the socket named by NOTIFY_SOCKET, a path or, with a leading '@', an abstract
// name. Without NOTIFY_SOCKET there is no service manager to tell, and nothing is sent.
#pragma once

#include <string>

namespace Kova::Bpf {

// Sends `state` ("READY=1", "STOPPING=1", "STATUS=...", lines joined by '\n'). True when it was sent;
// false, with errno, when NOTIFY_SOCKET is unset (errno 0), malformed or the send failed.
bool NotifyServiceManager(const std::string& state);

}  // namespace Kova::Bpf
