// The package format of the service's local socket, and the byte buffers a connection reads into and
// writes from. This header is the one definition of every wire layout; the service, the client side and
// the tests all use these structs, never hand-counted offsets.
//
// On the stream every package is a frame:
//
//   frame      u64 size            body bytes that follow (the 8 header bytes are not counted)
//              body                one second-level package (or raw bytes, see
//                                  IpcPackageManager::buildAndAppendIpcPackage)
//   second     u32 type            PACKAGE_TYPE_*
//              u32 size            payload bytes that follow; always the frame's size - 8
//              payload
//   request    u32 reqId, s32 reqType, u32 dataSize, then dataSize bytes   (payload of type 0)
//   response   u32 reqId, s32 result,  u32 dataSize, then dataSize bytes   (payload of type 1)
//   event      one raw event record; its first s32 is the event id         (payload of type 3)
//
// Integers are in the host's byte order, which is little-endian on every supported target (checked
// below); both ends run on one machine. There is no padding, magic number, version or checksum.
//
// Received bytes have no alignment: read fields by copying them out (LoadIpcWire), never through a
// cast pointer.
#pragma once

#include <stddef.h>
#include <stdint.h>
#include <string.h>

#include <bit>
#include <type_traits>
#include <vector>

static_assert(std::endian::native == std::endian::little, "the package format is little-endian");

// Length of a frame header: the u64 body size.
inline constexpr size_t ipcPackageHeaderSize = 8;

// Second-level package types. A sender refuses anything above PACKAGE_TYPE_EVENT.
enum KovaIpcPackageType : uint32_t {
    PACKAGE_TYPE_REQUEST = 0,
    PACKAGE_TYPE_RESPONSE = 1,
    PACKAGE_TYPE_SPARE = 2,  // produced by nobody; accepted and ignored
    PACKAGE_TYPE_EVENT = 3,
};
inline constexpr uint32_t PACKAGE_TYPE_MAX = PACKAGE_TYPE_EVENT;

struct __attribute__((packed)) KovaIpcFirstLevelPackageHeader {
    uint64_t size;
};
static_assert(sizeof(KovaIpcFirstLevelPackageHeader) == ipcPackageHeaderSize);
static_assert(offsetof(KovaIpcFirstLevelPackageHeader, size) == 0);

struct __attribute__((packed)) KovaIpcSecondLevelPackageHeader {
    uint32_t type;
    uint32_t size;
};
static_assert(sizeof(KovaIpcSecondLevelPackageHeader) == 8);
static_assert(offsetof(KovaIpcSecondLevelPackageHeader, type) == 0);
static_assert(offsetof(KovaIpcSecondLevelPackageHeader, size) == 4);

struct __attribute__((packed)) KovaReqIpcPackageHeader {
    uint32_t reqId;
    int32_t reqType;
    uint32_t dataSize;
};
static_assert(sizeof(KovaReqIpcPackageHeader) == 12);
static_assert(offsetof(KovaReqIpcPackageHeader, reqId) == 0);
static_assert(offsetof(KovaReqIpcPackageHeader, reqType) == 4);
static_assert(offsetof(KovaReqIpcPackageHeader, dataSize) == 8);

struct __attribute__((packed)) KovaRespIpcPackageHeader {
    uint32_t reqId;
    int32_t result;  // 0 carried out, -1 not
    uint32_t dataSize;
};
static_assert(sizeof(KovaRespIpcPackageHeader) == 12);
static_assert(offsetof(KovaRespIpcPackageHeader, reqId) == 0);
static_assert(offsetof(KovaRespIpcPackageHeader, result) == 4);
static_assert(offsetof(KovaRespIpcPackageHeader, dataSize) == 8);

// Overhead of a request or response on the stream: frame header, second-level header, request header.
inline constexpr size_t kIpcReqPackageOverhead =
        ipcPackageHeaderSize + sizeof(KovaIpcSecondLevelPackageHeader) + sizeof(KovaReqIpcPackageHeader);
static_assert(kIpcReqPackageOverhead == 28);

// Copies a wire record out of unaligned bytes. REQUIRES: `bytes` holds at least sizeof(T) bytes.
template <typename T>
T LoadIpcWire(const void* bytes) {
    static_assert(std::is_trivially_copyable_v<T>);
    T value;
    memcpy(&value, bytes, sizeof(value));
    return value;
}

// One queued outgoing package: written to the stream as `size` followed by `data`.
// Invariant: size == data.size().
struct KovaIpcPackage {
    uint64_t size = 0;
    std::vector<char> data;
};

// A request as a client hands it over to be queued. `data` is borrowed and must hold `dataSize` bytes;
// it is copied when the package is built.
struct KovaReqIpcPackage {
    uint32_t reqId = 0;
    int32_t reqType = 0;
    uint32_t dataSize = 0;
    const char* data = nullptr;
};

// A response as the service hands it over to be queued. `dataSize` is what goes on the wire; it should
// equal data.size().
struct KovaRespIpcPackage {
    uint32_t reqId = 0;
    int32_t result = 0;
    uint32_t dataSize = 0;
    std::vector<char> data;
};

// One connection's buffer for one direction. The bytes from `bufferCursor` up to `bufferDataCursor` are
// the ones not yet consumed; new bytes land at `bufferDataCursor`. The vector's length is the fixed
// capacity, set once when the connection's buffer is allocated.
// Invariant: bufferCursor <= bufferDataCursor <= buffer.size().
// Not thread-safe: a buffer belongs to one thread at a time (see UnixIpcManager).
struct BufferState {
    uint64_t bufferCursor = 0;
    uint64_t bufferDataCursor = 0;
    std::vector<char> buffer;

    // Appends the 8 bytes of `value`; false, changing nothing, when they do not fit.
    bool write(uint64_t value);
    // Appends the bytes of `data`; false, changing nothing, when they do not fit.
    bool write(const std::vector<char>& data);
    // The next `n` unread bytes, in place, and steps over them; nullptr, changing nothing, when fewer
    // than `n` are buffered or no buffer is allocated. Never copies.
    char* read(size_t n) {
        if (buffer.empty() || n > buffer.size() || bufferCursor + n > bufferDataCursor) return nullptr;
        char* bytes = buffer.data() + bufferCursor;
        bufferCursor += n;
        return bytes;
    }

    size_t freeSpace() const { return buffer.size() - bufferDataCursor; }
};
