// Host subset of libcutils local sockets.
#pragma once

#ifdef __cplusplus
extern "C" {
#endif

#define ANDROID_SOCKET_ENV_PREFIX "ANDROID_SOCKET_"
#define ANDROID_SOCKET_DIR "/dev/socket"

// Namespaces of local socket names: abstract (a name without a file), reserved (under /dev/socket)
// and filesystem (a path).
#define ANDROID_SOCKET_NAMESPACE_ABSTRACT 0
#define ANDROID_SOCKET_NAMESPACE_RESERVED 1
#define ANDROID_SOCKET_NAMESPACE_FILESYSTEM 2

// The socket that init created for `name` and passed in ANDROID_SOCKET_<name> (every character that
// is not a letter or digit replaced by '_'), or -1 when there is none.
int android_get_control_socket(const char* name);

// A bound local socket of `type` (listening, backlog 4, for a stream socket), or -1 with errno.
int socket_local_server(const char* name, int namespaceId, int type);

// A socket of `type` connected to the local socket `name`, or -1 with errno.
int socket_local_client(const char* name, int namespaceId, int type);

#ifdef __cplusplus
}
#endif
