// Fuzzes the receive-and-frame path of a connection: arbitrary bytes, cut into arbitrary pieces, go
// through a real socket into a connection's read buffer (UnixIpcManager::receiveToBuffer) and are cut
// into frames and dispatched (IpcPackageHandler), with requests decoded and responses handed to an
// IpcReqCallBackManager, as a server and a client do.
//
// An independent model of the stream predicts, for every input, what must come out: the payloads each
// package type receives, the frames thrown away as damaged, where the connection stalls or closes, and
// whether the input trips one of the deliberate fatal checks (a peer that sends inconsistent inner
// sizes takes the process down by design). Such inputs are skipped before the code under test sees
// them, so every abort libFuzzer reports is a real fault: a sanitizer report, a broken buffer invariant,
// or a difference between the code and the model.
//
// Input layout:
//   byte 0        bits 0-1: read buffer capacity (24, 64, 300 or 32768 bytes); bit 2: compact before
//                 each receive
//   byte 1        k = number of piece lengths (low 4 bits)
//   bytes 2..k+1  piece lengths - 1; the stream is written to the socket in pieces of these lengths,
//                 used in turn (one piece of everything when k is 0), with one receive after each
//   the rest      the byte stream

#include <errno.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <map>
#include <set>
#include <string>
#include <vector>

#include "quiet_log.h"
#include "ipc/kova_bpf_ipc_helper.h"
#include "ipc/kova_bpf_ipc_package.h"
#include "ipc/kova_bpf_ipc_package_handler.h"
#include "ipc/kova_bpf_ipc_req_callback_manager.h"
#include "ipc/kova_bpf_unix_ipc_manager.h"

namespace {

constexpr size_t kCapacities[] = {24, 64, 300, 32768};
constexpr uint32_t kWaitingReqIds[] = {0, 1, 2, 0xffffffffu};

[[noreturn]] void Fail(const char* what) {
    fprintf(stderr, "ipc_frames_fuzzer: %s\n", what);
    abort();
}

uint64_t Le(const std::string& bytes, size_t at, size_t width) {
    uint64_t value = 0;
    for (size_t i = 0; i < width; ++i) value |= static_cast<uint64_t>(static_cast<uint8_t>(bytes[at + i])) << (8 * i);
    return value;
}

// What a connection makes of the stream; filled by the model and by the real code alike.
struct Outcome {
    std::vector<std::string> events;     // type 3 payloads
    std::vector<std::string> requests;   // type 0: "id/type/data"
    std::vector<std::string> responses;  // type 1 that reached a callback: "id/result/data"
    int damaged = 0;                     // frames that could never fit
    bool closed = false;                 // a handler failed: the connection was closed
    bool operator==(const Outcome&) const = default;
};

std::string Join(uint64_t a, int64_t b, const std::string& data) {
    return std::to_string(a) + "/" + std::to_string(b) + "/" + data;
}

// A spare package (type 2) whose first payload byte is odd makes its handler fail.
bool SpareFails(const std::string& payload) { return !payload.empty() && (payload[0] & 1); }

struct Input {
    size_t capacity;
    bool compact;
    std::vector<size_t> pieces;
    std::string stream;
};

bool Parse(const uint8_t* data, size_t size, Input* input) {
    if (size < 2) return false;
    input->capacity = kCapacities[data[0] & 3];
    input->compact = data[0] & 4;
    const size_t count = data[1] & 15;
    if (size < 2 + count) return false;
    for (size_t i = 0; i < count; ++i) input->pieces.push_back(static_cast<size_t>(data[2 + i]) + 1);
    if (input->pieces.empty()) input->pieces.push_back(size);
    input->stream.assign(reinterpret_cast<const char*>(data) + 2 + count, size - 2 - count);
    return true;
}

// The model: a connection's buffer as the unread bytes and the room behind them, written from the
// description of the format rather than from the code. Returns false when the input would trip a
// deliberate fatal check.
bool Predict(const Input& input, Outcome* out) {
    std::string held;     // bytes from the read position to the end of the data
    size_t consumed = 0;  // bytes before the read position that still occupy the buffer
    size_t pending = 0;   // bytes written to the socket and not yet received
    size_t offset = 0;    // stream bytes written so far
    std::set<uint32_t> waiting(std::begin(kWaitingReqIds), std::end(kWaitingReqIds));

    auto handleFrames = [&]() -> int {  // 1 go on, 0 fatal, -1 closed
        while (!held.empty() && held.size() >= 8) {
            const uint64_t size = Le(held, 0, 8);
            if (size > input.capacity - 8) {  // can never fit: everything buffered goes
                ++out->damaged;
                held.clear();
                consumed = 0;
                return 1;
            }
            if (held.size() < 8 + size) return 1;
            const std::string body = held.substr(8, size);
            held.erase(0, 8 + size);
            consumed += 8 + size;
            if (body.size() < 8 || Le(body, 4, 4) != body.size() - 8) return 0;
            const uint32_t type = static_cast<uint32_t>(Le(body, 0, 4));
            const std::string payload = body.substr(8);
            if (type == PACKAGE_TYPE_REQUEST) {
                if (payload.size() < 12 || Le(payload, 8, 4) != payload.size() - 12) return 0;
                out->requests.push_back(Join(Le(payload, 0, 4), static_cast<int32_t>(Le(payload, 4, 4)), payload.substr(12)));
            } else if (type == PACKAGE_TYPE_RESPONSE) {
                if (payload.size() >= 12 && Le(payload, 8, 4) <= payload.size() - 12) {
                    const uint32_t reqId = static_cast<uint32_t>(Le(payload, 0, 4));
                    if (waiting.erase(reqId) == 1) {
                        out->responses.push_back(Join(reqId, static_cast<int32_t>(Le(payload, 4, 4)),
                                                      payload.substr(12, Le(payload, 8, 4))));
                    }
                }
            } else if (type == PACKAGE_TYPE_SPARE) {
                if (SpareFails(payload)) {
                    out->closed = true;
                    return -1;
                }
            } else if (type == PACKAGE_TYPE_EVENT) {
                out->events.push_back(payload);
            }
        }
        return 1;
    };
    // One receive and the framing after it; false when the connection can go no further.
    auto receive = [&](bool* fatal) -> bool {
        if (input.compact) consumed = 0;
        const size_t room = input.capacity - consumed - held.size();
        const size_t taken = std::min(room, pending);
        if (taken == 0) return false;  // a full buffer: the connection stalls
        held += input.stream.substr(offset - pending, taken);
        pending -= taken;
        const int result = handleFrames();
        *fatal = result == 0;
        return result == 1;
    };

    bool fatal = false;
    for (size_t i = 0; offset < input.stream.size(); ++i) {
        const size_t piece = std::min(input.pieces[i % input.pieces.size()], input.stream.size() - offset);
        offset += piece;
        pending += piece;
        if (!receive(&fatal)) return !fatal;
    }
    while (pending > 0) {
        if (!receive(&fatal)) return !fatal;
    }
    return true;
}

void CheckInvariant(const BufferState& buffer) {
    if (buffer.bufferCursor > buffer.bufferDataCursor || buffer.bufferDataCursor > buffer.buffer.size()) {
        Fail("buffer cursors out of order");
    }
}

// The code under test, driven as a connection is: write a piece, receive once, handle the frames.
Outcome Run(const Input& input, int near, int far) {
    Outcome out;
    IpcReqCallBackManager callbacks;
    for (const uint32_t reqId : kWaitingReqIds) {
        callbacks.addIpcReqCallBack(reqId, [&out](uint32_t id, int32_t result, const char* data, uint32_t size) {
            out.responses.push_back(Join(id, result, std::string(data, size)));
            return 0;
        });
    }
    IpcPackageHandler handler({
            {PACKAGE_TYPE_REQUEST,
             [&out](int, char* payload, size_t size) {
                 const KovaReqIpcPackageHeader header = ReadReqIpcPackageHeader(payload, size);
                 out.requests.push_back(Join(header.reqId, header.reqType, std::string(payload + 12, header.dataSize)));
                 return 0;
             }},
            {PACKAGE_TYPE_RESPONSE,
             [&callbacks](int, char* payload, size_t size) {
                 callbacks.handleReqCallBack(payload, size);
                 return 0;
             }},
            {PACKAGE_TYPE_SPARE,
             [](int, char* payload, size_t size) { return SpareFails(std::string(payload, size)) ? -1 : 0; }},
            {PACKAGE_TYPE_EVENT,
             [&out](int, char* payload, size_t size) {
                 out.events.emplace_back(payload, size);
                 return 0;
             }},
    });

    BufferState buffer;
    buffer.buffer.assign(input.capacity, 0);
    const int damagedBefore = QuietLogCount("Ipc package too big or damage, clear buffer.");
    const int recordedBefore = QuietErrorLogCount(2);
    size_t pending = 0;
    auto receive = [&]() -> bool {
        const ssize_t received = UnixIpcManager::receiveToBuffer(near, &buffer, input.compact, "IpcFuzz");
        CheckInvariant(buffer);
        if (received < 0) Fail("receive failed with data pending");
        if (received == 0) return false;
        pending -= static_cast<size_t>(received);
        const int result = handler.handleAllIpcPackageInBuffer(near, &buffer);
        CheckInvariant(buffer);
        if (result == 0) {  // the read handler failed: the connection is closed
            out.closed = true;
            return false;
        }
        return true;
    };
    size_t offset = 0;
    bool open = true;
    for (size_t i = 0; open && offset < input.stream.size(); ++i) {
        const size_t piece = std::min(input.pieces[i % input.pieces.size()], input.stream.size() - offset);
        if (send(far, input.stream.data() + offset, piece, 0) != static_cast<ssize_t>(piece)) Fail("short send");
        offset += piece;
        pending += piece;
        open = receive();
    }
    while (open && pending > 0) open = receive();
    out.damaged = QuietLogCount("Ipc package too big or damage, clear buffer.") - damagedBefore;
    if (QuietErrorLogCount(2) - recordedBefore != out.damaged) Fail("damaged frames logged and recorded differ");
    return out;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Input input;
    if (!Parse(data, size, &input)) return 0;
    Outcome expected;
    if (!Predict(input, &expected)) return -1;  // trips a deliberate check: not kept in the corpus

    int fds[2];
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0, fds) != 0) Fail("socketpair");
    const int sendBuffer = 1 << 20;
    setsockopt(fds[1], SOL_SOCKET, SO_SNDBUF, &sendBuffer, sizeof(sendBuffer));
    const Outcome actual = Run(input, fds[0], fds[1]);
    close(fds[0]);
    close(fds[1]);

    if (!(actual == expected)) {
        fprintf(stderr, "events %zu/%zu requests %zu/%zu responses %zu/%zu damaged %d/%d closed %d/%d\n",
                actual.events.size(), expected.events.size(), actual.requests.size(), expected.requests.size(),
                actual.responses.size(), expected.responses.size(), actual.damaged, expected.damaged, actual.closed,
                expected.closed);
        Fail("the connection's output differs from the model");
    }
    return 0;
}
