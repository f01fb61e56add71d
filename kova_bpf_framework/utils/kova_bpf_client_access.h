// Who may use the service on a host: root, and the members of one group named by a property. The
// service applies it to every peer it accepts (on a device, init's permissions on the socket do that
// job instead); kovabpfctl asks it of itself to explain a refusal.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

namespace Kova::Bpf {

// The group besides root whose members the service serves, and the name used when it is unset or empty.
inline constexpr char KOVA_CLIENT_GROUP_PROPERTY[] = "persist.kova_bpf.client_group";
inline constexpr char KOVA_DEFAULT_CLIENT_GROUP[] = "kovabpf";

// A process's effective ids and supplementary groups, as the kernel recorded them for a socket peer.
struct PeerCredentials {
    pid_t pid = 0;
    uid_t uid = 0;
    gid_t gid = 0;
    std::vector<gid_t> groups;
};

// The client group's name: the property's value without surrounding blanks, or the default when that
// leaves nothing. Read on every call, so that a change applies at once.
std::string ClientGroupName();
// The gid of group `name` (getgrnam_r), or nullopt when no such group exists or it cannot be read.
std::optional<gid_t> ResolveGroup(const std::string& name);
// Whether the service serves a process with these credentials: it runs as root, or `clientGroup` is its
// primary or one of its supplementary groups. A group that does not resolve (nullopt) admits root only.
bool IsClientAdmitted(const PeerCredentials& peer, std::optional<gid_t> clientGroup);

// The credentials of the peer of connected Unix socket `fd` (SO_PEERCRED, SO_PEERGROUPS), as they were
// when it connected. False, with errno, when the kernel cannot tell them.
bool ReadPeerCredentials(int fd, PeerCredentials* peer);
// This process's own, as a peer of the service would have them.
PeerCredentials OwnCredentials();

}  // namespace Kova::Bpf
