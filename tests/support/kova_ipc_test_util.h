// Byte-level builders for the package stream, written out field by field so that tests state the
// wire format independently of the code under test, and a reader of the service's error log.
#pragma once

#include <stdint.h>
#include <string.h>

#include <string>
#include <vector>

#include "kova_test_support.h"
#include "ipc/kova_bpf_ipc_package.h"
#include "utils/kova_bpf_paths.h"

namespace kova::test {

inline std::string U64(uint64_t value) {
    std::string bytes;
    for (int i = 0; i < 8; ++i) bytes += static_cast<char>((value >> (8 * i)) & 0xff);
    return bytes;
}

inline std::string U32(uint32_t value) {
    std::string bytes;
    for (int i = 0; i < 4; ++i) bytes += static_cast<char>((value >> (8 * i)) & 0xff);
    return bytes;
}

// A frame: the 8-byte body size, then the body.
inline std::string Frame(const std::string& body) { return U64(body.size()) + body; }

// A frame holding a second-level package of `type` around `payload`.
inline std::string PackageFrame(uint32_t type, const std::string& payload) {
    return Frame(U32(type) + U32(static_cast<uint32_t>(payload.size())) + payload);
}

inline std::string EventFrame(const std::string& record) { return PackageFrame(PACKAGE_TYPE_EVENT, record); }

// A request or response payload: id, type or result, data size, data.
inline std::string ReqPayload(uint32_t reqId, int32_t reqTypeOrResult, const std::string& data) {
    return U32(reqId) + U32(static_cast<uint32_t>(reqTypeOrResult)) + U32(static_cast<uint32_t>(data.size())) + data;
}

inline std::string RequestFrame(uint32_t reqId, int32_t reqType, const std::string& data) {
    return PackageFrame(PACKAGE_TYPE_REQUEST, ReqPayload(reqId, reqType, data));
}

inline std::string ResponseFrame(uint32_t reqId, int32_t result, const std::string& data) {
    return PackageFrame(PACKAGE_TYPE_RESPONSE, ReqPayload(reqId, result, data));
}

// An event record of `size` bytes (at least 4) whose first word is `eventId` and whose other bytes
// count up from `seed`.
inline std::string EventRecord(int32_t eventId, size_t size, uint8_t seed = 0) {
    std::string record = U32(static_cast<uint32_t>(eventId));
    while (record.size() < size) record += static_cast<char>(seed + record.size());
    record.resize(size);
    return record;
}

inline BufferState MakeBuffer(size_t capacity) {
    BufferState state;
    state.buffer.assign(capacity, 0);
    return state;
}

// Appends `bytes` at the data cursor, as a receive would. REQUIRES: they fit.
inline void Deliver(BufferState* state, const std::string& bytes) {
    memcpy(state->buffer.data() + state->bufferDataCursor, bytes.data(), bytes.size());
    state->bufferDataCursor += bytes.size();
}

// The unread bytes of a buffer.
inline std::string Unread(const BufferState& state) {
    return std::string(state.buffer.data() + state.bufferCursor, state.bufferDataCursor - state.bufferCursor);
}

// The service's error log in a diagnostics directory of the test's own.
class ErrorLogDir {
  public:
    std::string Text() const { return ReadFile(dir_ / "error.log"); }
    // Number of entries with this error code.
    int CountCode(int code) const {
        const std::string text = Text();
        const std::string needle = "\nErrorCode: " + std::to_string(code) + "\n";
        int count = 0;
        for (size_t at = text.find(needle); at != std::string::npos; at = text.find(needle, at + 1)) ++count;
        return count;
    }
    bool HasEntry(int code, const std::string& error) const {
        return Text().find("ErrorCode: " + std::to_string(code) + "\nError: " + error + "\n") != std::string::npos;
    }

  private:
    TempDir dir_;
    ScopedRoot root_{Kova::Bpf::KOVA_DIAGNOSTICS_DIR, dir_.path()};
};

}  // namespace kova::test
