// Fuzzes the service's request handling in process: the real KovaBpfService singleton with its real IPC
// server (UnixIpcManager on an abstract socket of this process's own, with the service's handlers), real
// client sockets, the connection table, the per-connection queues and the EventManager fan-out. The
// service's threads are never started: the harness runs the server's epoll loop itself, one round at a
// time, so an input runs on one thread and always the same way. Requests 53 and 54 queue report types
// for a worker that never comes; what is checked there is the queue and its bound.
//
// An input is a small program: connections open and close, requests and other packages go out on them,
// events are appended to the fan-out between requests, and the report types are taken as the worker
// takes them. A model kept beside the run says what the service must do, and the harness checks it:
//   - every open connection receives exactly the packages it is owed, byte for byte and in order: one
//     response per request with its id and the result the protocol defines, and the events of the ids
//     it was subscribed to when they were appended, less what a full queue drops and what no frame
//     can hold;
//   - the connection table, the epoll registrations and the subscriptions hold exactly the open
//     connections and their ids, in subscription order; a closed connection leaves no trace in them;
//   - the queued report types are exactly those requested, never more than the bound, with one warning
//     per overflow until they are taken; damaged frames, trimmed queues and packages too large to send
//     are counted in the error log exactly as often as they happen.
// It checks them after the input, after every CHECK operation and, for the received packages, after
// every settle (below).
//
// A frame whose inner sizes disagree (a second-level size that is not the body's size less 8, or a
// request whose dataSize is not its payload's size less 12) takes the process down through a deliberate
// fatal check. Inputs that hold such a frame are rejected before the service sees anything (the
// decoding is pure), so every abort this target reports is a real fault.
//
// Settling: after most operations the harness runs the server's loop until a round finds nothing to do,
// reading every client socket after each round. Settled, every request sent has been answered and every
// queue sent. Operations can ask not to settle, so that several requests, closes and events meet in one
// batch. A few rules keep the model exact without settling much more often: a connection sends only
// while it has at most 5000 packages queued and fewer than 1000 requests unanswered (so a response never
// meets a queue the service trims), an event is appended to a queue of 5000 or more only when that
// connection has no request waiting, requests for report types wait in one connection at a time (their
// order across connections is the loop's), and a connection opens only when nothing else is in flight
// (so that the service accepts it on the lowest free descriptor). A close goes on only once its end has
// reached the other side, which another process holding the socket for a moment can delay.
// Subscriptions made in the same settle by different connections may stand in either order in the
// fan-out's list; those of different settles may not. So that no input runs for long, one input sends
// at most 4 MiB and appends at most 512 KiB of events (frames included); what goes beyond is left out.
//
// Input: operations one after another; one cut short by the end of the input is dropped.
//   op byte   bits 0-2 kind, bits 3-4 slot k (four client slots), bits 5-7 flags
//   0 OPEN k                      connect slot k (nothing when it is connected)
//   1 CLOSE k                     bit 5 do not settle; bit 6 send half a request first; bit 7 shut down
//                                 the write side only: the service closes, the slot reads to the end
//   2 REQUEST k type id size data bit 5 do not settle; bit 6 send in two pieces with a settle between;
//                                 bit 7 size is two bytes (modulo the largest data that fits), else one
//   3 EVENT id size [count] fill  bit 5 a count byte c follows: c + 1 events, or (c - 239) * 1024 from
//                                 c = 240 on (more than a queue holds), else one; bit 6 size is two
//                                 bytes, modulo 33001 (beyond the largest event a frame holds)
//   4 FRAME k type size data skew any package type; skew (signed) is added to the second-level size;
//                                 bit 5 do not settle; bit 7 size is two bytes
//   5 OVERSIZED k size            a frame header announcing more than the buffer holds
//   6 TAKE                        the worker takes the queued report types; they must be the model's
//   7 CHECK                       settle and check every table now
//   REQUEST id: the request's id is id << 24 | the operation's index in the program
//   REQUEST type: 0-3 requests 51-54, 4 request 0, 5 request -1, 6 request 55, 7 request 50, else the
//         byte; FRAME type: below 8 the byte, else byte << 24 | byte
//   data: one byte d; d < 128: the 32-bit id EventId(d), repeated to the size; else d & 7 literal bytes
//         follow, repeated to the size (zeros when none)

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <stdarg.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <deque>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "quiet_log.h"
#include "ipc/kova_bpf_ipc_helper.h"
#include "ipc/kova_bpf_ipc_package.h"
#include "ipc/kova_bpf_ipc_package_manager.h"
#include "ipc/kova_bpf_unix_ipc_manager.h"
#include "protocol/kova_bpf_protocol.h"
#include "service/kova_bpf_event_manager.h"
#include "service/kova_bpf_service.h"
#include "utils/kova_bpf_paths.h"

namespace {

using Kova::Bpf::EventManager;
using Kova::Bpf::KovaBpfService;

constexpr int kSlots = 4;
constexpr size_t kBufferSize = Kova::Bpf::KOVA_IPC_BUFFER_SIZE;
constexpr size_t kMaxBody = kBufferSize - ipcPackageHeaderSize;
constexpr size_t kMaxRequestData = kMaxBody - sizeof(KovaIpcSecondLevelPackageHeader) - sizeof(KovaReqIpcPackageHeader);
constexpr size_t kMaxQueuedIds = KovaBpfService::kMaxQueuedTimeInStateIds;
// The sending rules of the header comment.
constexpr size_t kQueueSendLimit = IpcPackageManager::kTrimTarget;
constexpr size_t kMaxUnanswered = 1000;
// What one input appends at most, in bytes (records and frame headers): enough for more small events
// than a queue holds, few enough that a large count of large events stays cheap.
constexpr size_t kMaxEventBytesPerInput = 512 << 10;
// What one input sends at most; later requests and packages are not sent.
constexpr size_t kMaxSentBytesPerInput = 4 << 20;
constexpr size_t kMaxEventSize = 33000;
constexpr int kMaxRoundsPerSettle = 100000;
// How long the harness waits for the end of a stream that a close owes to reach the other side.
constexpr int kCloseWaitMs = 10000;

// Error log codes the IPC layer records.
enum ErrorCode {
    kSendFailed = 1,
    kDamagedFrame = 2,
    kRawQueueTrimmed = 3,
    kEventQueueTrimmed = 4,
    kRequestQueueTrimmed = 5,
    kResponseQueueTrimmed = 6,
    kFillAllTooBig = 7,
    kTooBigToSend = 8,
    kErrorCodes
};
constexpr char kQueueFullWarning[] = "[KovaBpfService] time-in-state queue full";

[[noreturn]] __attribute__((format(printf, 1, 2))) void Fail(const char* format, ...) {
    va_list args;
    va_start(args, format);
    fputs("service_requests_fuzzer: ", stderr);
    vfprintf(stderr, format, args);
    fputc('\n', stderr);
    va_end(args);
    abort();
}

template <typename T>
void Put(std::string* bytes, T value) {
    bytes->append(reinterpret_cast<const char*>(&value), sizeof(value));
}

template <typename T>
T Get(const std::string& bytes, size_t at) {
    return LoadIpcWire<T>(bytes.data() + at);
}

std::string Frame(uint32_t type, const std::string& payload, int32_t skew = 0) {
    std::string frame;
    Put<uint64_t>(&frame, sizeof(KovaIpcSecondLevelPackageHeader) + payload.size());
    Put<uint32_t>(&frame, type);
    Put<uint32_t>(&frame, static_cast<uint32_t>(payload.size() + skew));
    return frame + payload;
}

std::string RequestFrame(uint32_t reqId, int32_t reqType, const std::string& data) {
    std::string payload;
    Put<uint32_t>(&payload, reqId);
    Put<int32_t>(&payload, reqType);
    Put<uint32_t>(&payload, static_cast<uint32_t>(data.size()));
    return Frame(PACKAGE_TYPE_REQUEST, payload + data);
}

// The event ids the program names by a byte: the client events and reports, the raw records, and the
// edges of the type.
int32_t EventId(uint8_t index) {
    static constexpr int32_t kIds[] = {50001, 50002, 50003, 50004, 50005, 50006,    50007,    50008,
                                       50009, 50010, 0,     -1,    4,     7,        50000,    50011,
                                       1,     3,     5,     6,     51,    INT32_MIN, INT32_MAX, 65536};
    constexpr size_t kCount = sizeof(kIds) / sizeof(kIds[0]);
    return index < kCount ? kIds[index] : index;
}

int32_t RequestType(uint8_t selector) {
    static constexpr int32_t kTypes[] = {Kova::Bpf::REQ_SUBSCRIBE_EVENT, Kova::Bpf::REQ_UNSUBSCRIBE_EVENT,
                                         Kova::Bpf::REQ_TIME_IN_STATE_A, Kova::Bpf::REQ_TIME_IN_STATE_B,
                                         0, -1, 55, 50};
    return selector < 8 ? kTypes[selector] : selector;
}

// The i-th 32-bit word of request data, zero bytes beyond its end: how the protocol reads an id.
int32_t DataWord(const std::string& data, size_t index) {
    int32_t word = 0;
    const size_t offset = index * sizeof(word);
    if (offset < data.size()) memcpy(&word, data.data() + offset, std::min(sizeof(word), data.size() - offset));
    return word;
}

// ---- Decoding ----

class Reader {
  public:
    Reader(const uint8_t* data, size_t size) : data_(data), left_(size) {}
    bool Byte(uint8_t* out) {
        if (left_ == 0) return false;
        *out = *data_++;
        --left_;
        return true;
    }
    bool Bytes(size_t count, std::string* out) {
        if (left_ < count) return false;
        out->assign(reinterpret_cast<const char*>(data_), count);
        data_ += count;
        left_ -= count;
        return true;
    }
    bool Size(bool wide, size_t modulo, size_t* out) {
        uint8_t low = 0, high = 0;
        if (!Byte(&low) || (wide && !Byte(&high))) return false;
        *out = (static_cast<size_t>(high) << 8 | low) % (modulo + 1);
        return true;
    }
    // The data of an operation (a pattern byte and its literal bytes) repeated to `size` bytes.
    bool Data(size_t size, std::string* out) {
        uint8_t kind = 0;
        if (!Byte(&kind)) return false;
        std::string pattern;
        if (kind < 0x80) {
            Put<int32_t>(&pattern, EventId(kind));
        } else if (!Bytes(kind & 7, &pattern)) {
            return false;
        }
        if (pattern.empty()) pattern.push_back('\0');
        *out = pattern;
        while (out->size() < size) out->append(*out);
        out->resize(size);
        return true;
    }

  private:
    const uint8_t* data_;
    size_t left_;
};

enum Kind { kOpen, kClose, kRequest, kEvent, kFrame, kOversized, kTake, kCheck };

struct Op {
    Kind kind;
    int slot;
    bool settle = true;
    bool split = false;        // REQUEST: two pieces
    bool halfRequest = false;  // CLOSE: half a request first
    bool shutdown = false;     // CLOSE: the write side only
    std::string frame;         // REQUEST, FRAME: the bytes sent
    int32_t eventId = 0;       // EVENT
    size_t eventSize = 0;
    size_t eventCount = 0;
    uint8_t fill = 0;
    uint64_t announced = 0;  // OVERSIZED: the frame header's size
};

// What the service makes of a frame the harness sends.
struct Effect {
    enum { kFatal, kIgnored, kServed } kind = kIgnored;
    uint32_t reqId = 0;
    int32_t reqType = 0;
    std::string data;
    bool reportTypes() const {
        return kind == kServed &&
               (reqType == Kova::Bpf::REQ_TIME_IN_STATE_A || reqType == Kova::Bpf::REQ_TIME_IN_STATE_B);
    }
};

Effect Classify(const std::string& frame) {
    Effect effect;
    const std::string body = frame.substr(ipcPackageHeaderSize);
    if (body.size() < sizeof(KovaIpcSecondLevelPackageHeader) ||
        Get<uint32_t>(body, 4) != body.size() - sizeof(KovaIpcSecondLevelPackageHeader)) {
        effect.kind = Effect::kFatal;
        return effect;
    }
    if (Get<uint32_t>(body, 0) != PACKAGE_TYPE_REQUEST) return effect;  // consumed and ignored
    const std::string payload = body.substr(sizeof(KovaIpcSecondLevelPackageHeader));
    if (payload.size() < sizeof(KovaReqIpcPackageHeader) ||
        Get<uint32_t>(payload, 8) != payload.size() - sizeof(KovaReqIpcPackageHeader)) {
        effect.kind = Effect::kFatal;
        return effect;
    }
    effect.kind = Effect::kServed;
    effect.reqId = Get<uint32_t>(payload, 0);
    effect.reqType = Get<int32_t>(payload, 4);
    effect.data = payload.substr(sizeof(KovaReqIpcPackageHeader));
    return effect;
}

bool DecodeOp(Reader* in, uint32_t index, Op* op) {
    uint8_t code = 0;
    if (!in->Byte(&code)) return false;
    op->kind = static_cast<Kind>(code & 7);
    op->slot = (code >> 3) & 3;
    const bool bit5 = code & 0x20, bit6 = code & 0x40, bit7 = code & 0x80;
    switch (op->kind) {
        case kOpen:
        case kTake:
        case kCheck:
            return true;
        case kClose:
            op->settle = !bit5;
            op->halfRequest = bit6;
            op->shutdown = bit7;
            return true;
        case kRequest: {
            op->settle = !bit5;
            op->split = bit6;
            uint8_t type = 0, id = 0;
            size_t size = 0;
            std::string data;
            if (!in->Byte(&type) || !in->Byte(&id) || !in->Size(bit7, kMaxRequestData, &size) ||
                !in->Data(size, &data)) {
                return false;
            }
            // The id byte at the top, so that a response carries all 32 bits of its request's id.
            op->frame = RequestFrame(static_cast<uint32_t>(id) << 24 | index, RequestType(type), data);
            return true;
        }
        case kEvent: {
            uint8_t id = 0, count = 0;
            if (!in->Byte(&id) || !in->Size(bit6, kMaxEventSize, &op->eventSize) || (bit5 && !in->Byte(&count)) ||
                !in->Byte(&op->fill)) {
                return false;
            }
            op->eventId = EventId(id);
            op->eventCount = !bit5 ? 1u : count < 240 ? count + 1u : (count - 239u) * 1024u;
            return true;
        }
        case kFrame: {
            op->settle = !bit5;
            uint8_t type = 0, skew = 0;
            size_t size = 0;
            std::string payload;
            if (!in->Byte(&type) || !in->Size(bit7, kMaxBody - sizeof(KovaIpcSecondLevelPackageHeader), &size) ||
                !in->Data(size, &payload) || !in->Byte(&skew)) {
                return false;
            }
            const uint32_t packageType = type < 8 ? type : static_cast<uint32_t>(type) << 24 | type;
            op->frame = Frame(packageType, payload, static_cast<int8_t>(skew));
            return true;
        }
        case kOversized: {
            uint8_t size = 0;
            if (!in->Byte(&size)) return false;
            if (size < 0x80) {
                op->announced = kMaxBody + 1 + size;
            } else if (size < 0xc0) {
                op->announced = static_cast<uint64_t>(size - 0x7f) << 20;
            } else {
                op->announced = UINT64_MAX - (size - 0xc0);  // wraps when the header is added
            }
            return true;
        }
    }
    return false;
}

// ---- The run: the service, the client slots and the model ----

int LowestFreeDescriptor() {
    for (int fd = 0;; ++fd) {
        if (fcntl(fd, F_GETFD) == -1 && errno == EBADF) return fd;
    }
}

constexpr int kHighestDescriptor = 1023;

// Whether `fd` shows `event` (or a hang-up) within kCloseWaitMs. A socket is released only once nothing
// holds it: another process that looks at this one's descriptors (a reader of /proc/<pid>/fdinfo, a
// loader seeding descriptor counts) holds it for a moment, and the end of its stream then reaches the
// other side late.
bool AwaitEnd(int fd, short event) {
    pollfd entry{fd, static_cast<short>(event | POLLRDHUP), 0};
    return poll(&entry, 1, kCloseWaitMs) > 0 && (entry.revents & (event | POLLRDHUP | POLLHUP)) != 0;
}

// This process's descriptors and what each refers to, for a report.
std::string OpenDescriptors() {
    std::string list;
    for (int fd = 0; fd <= kHighestDescriptor; ++fd) {
        char target[128] = {};
        const std::string link = "/proc/self/fd/" + std::to_string(fd);
        if (readlink(link.c_str(), target, sizeof(target) - 1) < 0) continue;
        list += std::to_string(fd) + "=" + target + " ";
    }
    return list;
}

// The bytes of an event record: its id, a sequence number that tells the events apart, then the fill;
// cut to `size`.
void WriteRecord(char* out, size_t size, int32_t id, uint32_t sequence, uint8_t fill) {
    char head[8];
    memcpy(head, &id, sizeof(id));
    memcpy(head + 4, &sequence, sizeof(sequence));
    memcpy(out, head, std::min(size, sizeof(head)));
    if (size > sizeof(head)) memset(out + sizeof(head), fill, size - sizeof(head));
}

// A package the service holds for a connection, as the model keeps it: written out only once it is owed.
struct Package {
    uint32_t type;       // PACKAGE_TYPE_RESPONSE or PACKAGE_TYPE_EVENT
    uint32_t reqId;      // a response's
    int32_t result;      // a response's
    int32_t eventId;     // an event's record
    uint32_t sequence;
    uint32_t size;
    uint8_t fill;

    size_t frameSize() const {
        const size_t payload = type == PACKAGE_TYPE_EVENT ? size : sizeof(KovaRespIpcPackageHeader);
        return ipcPackageHeaderSize + sizeof(KovaIpcSecondLevelPackageHeader) + payload;
    }
    void AppendFrame(std::string* out) const {
        const size_t at = out->size();
        out->resize(at + frameSize());
        char* frame = out->data() + at;
        const uint64_t body = frameSize() - ipcPackageHeaderSize;
        const KovaIpcSecondLevelPackageHeader second{type, static_cast<uint32_t>(body - sizeof(second))};
        memcpy(frame, &body, sizeof(body));
        memcpy(frame + ipcPackageHeaderSize, &second, sizeof(second));
        char* payload = frame + ipcPackageHeaderSize + sizeof(second);
        if (type == PACKAGE_TYPE_EVENT) {
            WriteRecord(payload, size, eventId, sequence, fill);
        } else {
            const KovaRespIpcPackageHeader response{reqId, result, 0};
            memcpy(payload, &response, sizeof(response));
        }
    }
};

struct Slot {
    enum State { kClosed, kOpen, kClosing } state = kClosed;
    int client = -1;  // the harness's end; -1 once closed
    int server = -1;  // the service's descriptor of the connection
    bool halfClosed = false;
    bool ended = false;  // the client read the end of the stream
    std::vector<int32_t> ids;     // subscriptions, in order
    std::vector<Effect> pending;  // sent and not yet answered
    std::deque<Package> queue;  // what the service holds for the connection
    std::string expected;       // owed since the last settle
    std::string received;
};

class ServiceRun {
  public:
    explicit ServiceRun(UnixIpcManager& server) : server_(server) {
        for (int code = 0; code < kErrorCodes; ++code) errorsBefore_[code] = QuietErrorLogCount(code);
        warningsBefore_ = QuietLogCount(kQueueFullWarning);
    }

    void Execute(const Op& op);
    // Settles, checks, closes every connection and checks that nothing of them is left.
    void Finish();

  private:
    // The operations.
    void Open(int k);
    void Close(int k, const Op& op);
    void Send(int k, const Op& op, const Effect& effect);
    void AppendEvents(const Op& op);
    void Oversized(int k, uint64_t announced);
    void Take();

    // The server side: rounds of the loop until one finds nothing to do, then the model follows.
    void Settle();
    void CloseClient(int k);
    void DrainClients();
    void SendAll(int k, const std::string& bytes);
    // The model.
    void Serve(Slot& slot, const Effect& request);
    void Enqueue(Slot& slot, const Package& package, ErrorCode trimCode);
    void Forget(Slot& slot);
    bool ReportsWaitElsewhere(int k) const;
    // The checks.
    void CheckStreams();
    void CheckTables();
    void CheckErrorLog();

    UnixIpcManager& server_;
    Slot slots_[kSlots];
    int settle_ = 0;  // settles so far
    uint32_t sequence_ = 0;
    size_t eventBytes_ = 0;  // appended so far, frame headers included
    size_t sentBytes_ = 0;   // requests and packages sent so far
    // Per event id, the subscribed connections and the settle that subscribed each.
    std::map<int32_t, std::vector<std::pair<int, int>>> subscribers_;
    std::set<int32_t> idsSeen_;
    std::vector<int32_t> reportTypes_;
    bool reportsDropped_ = false;
    bool workerWoken_ = false;
    int warnings_ = 0;
    int errors_[kErrorCodes] = {};
    int errorsBefore_[kErrorCodes] = {};
    int warningsBefore_ = 0;
};

void ServiceRun::Execute(const Op& op) {
    switch (op.kind) {
        case kOpen: Open(op.slot); break;
        case kClose: Close(op.slot, op); break;
        case kRequest:
        case kFrame: Send(op.slot, op, Classify(op.frame)); break;
        case kEvent: AppendEvents(op); break;
        case kOversized: Oversized(op.slot, op.announced); break;
        case kTake: Take(); break;
        case kCheck:
            Settle();
            CheckTables();
            break;
    }
}

void ServiceRun::Open(int k) {
    Slot& slot = slots_[k];
    if (slot.state == Slot::kOpen) return;
    Settle();  // closes in flight first: the accepted descriptor is then the lowest free one
    slot = Slot();
    slot.client = ConnectToServer(Kova::Bpf::KovaPath(Kova::Bpf::KOVA_SOCKET_NAME).c_str());
    if (slot.client < 0) Fail("slot %d cannot connect: %s", k, strerror(errno));
    slot.server = LowestFreeDescriptor();
    slot.state = Slot::kOpen;
    Settle();
    if (!server_.connection(slot.server)) {
        Fail("slot %d: no connection on descriptor %d after the accept; open: %s", k, slot.server,
             OpenDescriptors().c_str());
    }
}

void ServiceRun::Close(int k, const Op& op) {
    Slot& slot = slots_[k];
    if (slot.state != Slot::kOpen) return;
    if (op.halfRequest) {
        const std::string request = RequestFrame(0, Kova::Bpf::REQ_SUBSCRIBE_EVENT, std::string(4, '\1'));
        SendAll(k, request.substr(0, request.size() / 2));
    }
    slot.state = Slot::kClosing;
    if (op.shutdown) {
        if (shutdown(slot.client, SHUT_WR) != 0) Fail("shutdown: %s", strerror(errno));
        slot.halfClosed = true;
        Settle();  // the slot reads its last packages and the end of the stream, and is closed
        return;
    }
    CloseClient(k);
    if (op.settle) Settle();
}

void ServiceRun::CloseClient(int k) {
    Slot& slot = slots_[k];
    close(slot.client);
    slot.client = -1;
    // The service must see the hang-up together with whatever the client sent before it, as it does
    // when nothing else holds the socket.
    if (!AwaitEnd(slot.server, POLLRDHUP)) Fail("slot %d: no hang-up reached the service after the close", k);
}

bool ServiceRun::ReportsWaitElsewhere(int k) const {
    for (int other = 0; other < kSlots; ++other) {
        if (other == k) continue;
        for (const Effect& request : slots_[other].pending) {
            if (request.reportTypes()) return true;
        }
    }
    return false;
}

void ServiceRun::Send(int k, const Op& op, const Effect& effect) {
    Slot& slot = slots_[k];
    if (slot.state != Slot::kOpen || sentBytes_ + op.frame.size() > kMaxSentBytesPerInput) return;
    sentBytes_ += op.frame.size();
    if (slot.queue.size() > kQueueSendLimit || slot.pending.size() >= kMaxUnanswered ||
        (effect.reportTypes() && ReportsWaitElsewhere(k))) {
        Settle();
    }
    if (op.split) {
        const size_t half = op.frame.size() / 2;
        SendAll(k, op.frame.substr(0, half));
        Settle();  // the service holds half a frame and must wait for the rest
        SendAll(k, op.frame.substr(half));
    } else {
        SendAll(k, op.frame);
    }
    if (effect.kind == Effect::kServed) slot.pending.push_back(effect);
    if (op.settle) Settle();
}

void ServiceRun::AppendEvents(const Op& op) {
    EventManager* events = EventManager::GetInstance();
    if (op.eventSize >= sizeof(int32_t)) idsSeen_.insert(op.eventId);
    std::string record(op.eventSize, '\0');
    const size_t count = std::min(op.eventCount, (kMaxEventBytesPerInput - eventBytes_) / (op.eventSize + 16));
    eventBytes_ += count * (op.eventSize + 16);
    for (size_t n = 0; n < count; ++n) {
        ++sequence_;
        WriteRecord(record.data(), record.size(), op.eventId, sequence_, op.fill);
        bool settle = false;
        for (const Slot& slot : slots_) {
            if (!slot.pending.empty() && slot.queue.size() >= kQueueSendLimit) settle = true;
        }
        if (settle) Settle();
        if (record.size() >= sizeof(int32_t)) {
            for (Slot& slot : slots_) {
                if (slot.state == Slot::kClosed) continue;
                if (std::find(slot.ids.begin(), slot.ids.end(), op.eventId) != slot.ids.end()) {
                    const Package event{PACKAGE_TYPE_EVENT, 0, 0, op.eventId, sequence_,
                                        static_cast<uint32_t>(op.eventSize), op.fill};
                    Enqueue(slot, event, kEventQueueTrimmed);
                }
            }
        }
        events->AppendEvent(record.data(), record.size());
    }
}

void ServiceRun::Oversized(int k, uint64_t announced) {
    Slot& slot = slots_[k];
    if (slot.state != Slot::kOpen) return;
    // Whatever the service reads before the header it serves first; the header then clears the buffer,
    // so nothing may follow it before the settle.
    std::string header;
    Put<uint64_t>(&header, announced);
    SendAll(k, header);
    Settle();
    ++errors_[kDamagedFrame];
}

void ServiceRun::Take() {
    bool woken = false;
    const std::vector<int32_t> taken = KovaBpfService::GetInstance()->TEST_takeTimeInStateRequests(&woken);
    if (taken.size() > kMaxQueuedIds) Fail("%zu report types queued, more than the bound", taken.size());
    if (taken != reportTypes_) {
        Fail("%zu report types queued, %zu requested and within the bound", taken.size(), reportTypes_.size());
    }
    if (woken != workerWoken_) Fail("the worker was %swoken", woken ? "" : "not ");
    reportTypes_.clear();
    reportsDropped_ = false;
    workerWoken_ = false;
}

void ServiceRun::SendAll(int k, const std::string& bytes) {
    size_t sent = 0;
    while (sent < bytes.size()) {
        const ssize_t result =
                send(slots_[k].client, bytes.data() + sent, bytes.size() - sent, MSG_DONTWAIT | MSG_NOSIGNAL);
        if (result > 0) {
            sent += static_cast<size_t>(result);
        } else if (result < 0 && errno == EAGAIN) {
            Settle();  // the service has not read enough yet
        } else {
            Fail("slot %d: send failed: %s", k, strerror(errno));
        }
    }
}

void ServiceRun::DrainClients() {
    char buffer[65536];
    for (int k = 0; k < kSlots; ++k) {
        Slot& slot = slots_[k];
        if (slot.client < 0) continue;
        while (true) {
            const ssize_t result = recv(slot.client, buffer, sizeof(buffer), MSG_DONTWAIT);
            if (result > 0) {
                slot.received.append(buffer, static_cast<size_t>(result));
            } else if (result == 0 || (errno == ECONNRESET && slot.halfClosed)) {
                // A connection closed with requests still unread ends in a reset instead.
                if (!slot.halfClosed) Fail("slot %d: the service closed the connection by itself", k);
                slot.ended = true;
                break;
            } else if (errno == EAGAIN) {
                break;
            } else {
                Fail("slot %d: receive failed: %s", k, strerror(errno));
            }
        }
    }
}

void ServiceRun::Settle() {
    for (int round = 0;; ++round) {
        if (round == kMaxRoundsPerSettle) Fail("the server's loop never runs out of work");
        const int events = server_.TEST_runLoopRound(0);
        if (events < 0) Fail("the server's loop was told to end");
        if (events == 0) break;
        DrainClients();
    }
    for (const Slot& slot : slots_) {
        while (slot.state == Slot::kClosing && slot.halfClosed && !slot.ended) {
            if (!AwaitEnd(slot.client, POLLIN)) Fail("the service keeps a connection whose client shut down its side");
            DrainClients();
        }
    }
    ++settle_;
    for (Slot& slot : slots_) {
        if (slot.state == Slot::kClosing) {
            Forget(slot);
            continue;
        }
        if (slot.state != Slot::kOpen) continue;
        for (const Effect& request : slot.pending) Serve(slot, request);
        slot.pending.clear();
        for (const Package& package : slot.queue) {
            if (package.frameSize() > kBufferSize) {
                ++errors_[kTooBigToSend];  // dropped: it can never fit the write buffer
            } else {
                package.AppendFrame(&slot.expected);
            }
        }
        slot.queue.clear();
    }
    CheckStreams();
    for (Slot& slot : slots_) {
        if (slot.state == Slot::kClosing) {  // a slot whose write side was shut down has read to the end
            close(slot.client);
            slot = Slot();
        }
    }
}

void ServiceRun::Serve(Slot& slot, const Effect& request) {
    int32_t result = -1;
    switch (request.reqType) {
        case Kova::Bpf::REQ_SUBSCRIBE_EVENT: {
            const int32_t id = DataWord(request.data, 0);
            idsSeen_.insert(id);
            if (std::find(slot.ids.begin(), slot.ids.end(), id) == slot.ids.end()) {
                slot.ids.push_back(id);
                subscribers_[id].emplace_back(slot.server, settle_);
            }
            result = 0;
            break;
        }
        case Kova::Bpf::REQ_UNSUBSCRIBE_EVENT: {
            const int32_t id = DataWord(request.data, 0);
            idsSeen_.insert(id);
            std::erase(slot.ids, id);
            std::erase_if(subscribers_[id], [&](const auto& entry) { return entry.first == slot.server; });
            if (subscribers_[id].empty()) subscribers_.erase(id);
            result = 0;
            break;
        }
        case Kova::Bpf::REQ_TIME_IN_STATE_A:
        case Kova::Bpf::REQ_TIME_IN_STATE_B: {
            const size_t count = request.data.size() / sizeof(int32_t);
            const size_t room = kMaxQueuedIds - reportTypes_.size();
            for (size_t i = 0; i < count; ++i) {
                if (reportTypes_.size() < kMaxQueuedIds) reportTypes_.push_back(DataWord(request.data, i));
            }
            if (count > room && !reportsDropped_) {
                reportsDropped_ = true;
                ++warnings_;
            }
            workerWoken_ = true;
            result = 0;
            break;
        }
        default:
            break;
    }
    Enqueue(slot, Package{PACKAGE_TYPE_RESPONSE, request.reqId, result, 0, 0, 0, 0}, kResponseQueueTrimmed);
}

// The package queue's bound: a queue holding more than the limit keeps only its newest packages.
void ServiceRun::Enqueue(Slot& slot, const Package& package, ErrorCode trimCode) {
    if (slot.queue.size() > IpcPackageManager::kQueueLimit) {
        slot.queue.erase(slot.queue.begin(), slot.queue.end() - IpcPackageManager::kTrimTarget);
        ++errors_[trimCode];
    }
    slot.queue.push_back(package);
}

void ServiceRun::Forget(Slot& slot) {
    for (const int32_t id : slot.ids) {
        std::erase_if(subscribers_[id], [&](const auto& entry) { return entry.first == slot.server; });
        if (subscribers_[id].empty()) subscribers_.erase(id);
    }
    slot.ids.clear();
    slot.pending.clear();
    slot.queue.clear();
    if (!slot.halfClosed) slot = Slot();
}

// A stream as its frames, for the report of a difference.
std::vector<std::string> Frames(const std::string& stream) {
    std::vector<std::string> frames;
    for (size_t at = 0; at + ipcPackageHeaderSize <= stream.size();) {
        const uint64_t size = Get<uint64_t>(stream, at);
        if (size > stream.size() - at - ipcPackageHeaderSize) {
            frames.push_back(stream.substr(at));
            break;
        }
        frames.push_back(stream.substr(at, ipcPackageHeaderSize + size));
        at += ipcPackageHeaderSize + size;
    }
    return frames;
}

std::string Describe(const std::string& frame) {
    if (frame.size() < 16) return "a cut frame of " + std::to_string(frame.size()) + " bytes";
    const uint32_t type = Get<uint32_t>(frame, 8);
    if (type == PACKAGE_TYPE_RESPONSE && frame.size() >= 28) {
        return "response to " + std::to_string(Get<uint32_t>(frame, 16)) + " result " +
               std::to_string(Get<int32_t>(frame, 20));
    }
    if (type == PACKAGE_TYPE_EVENT && frame.size() >= 20) {
        std::string text = "event " + std::to_string(Get<int32_t>(frame, 16)) + " of " +
                           std::to_string(frame.size() - 16) + " bytes";
        if (frame.size() >= 24) text += " #" + std::to_string(Get<uint32_t>(frame, 20));
        return text;
    }
    return "package type " + std::to_string(type) + " of " + std::to_string(frame.size()) + " bytes";
}

void ServiceRun::CheckStreams() {
    for (int k = 0; k < kSlots; ++k) {
        Slot& slot = slots_[k];
        if (slot.client < 0) continue;
        if (slot.received != slot.expected) {
            const std::vector<std::string> got = Frames(slot.received), owed = Frames(slot.expected);
            size_t first = 0;
            while (first < got.size() && first < owed.size() && got[first] == owed[first]) ++first;
            Fail("slot %d received %zu packages, is owed %zu; the first difference, at %zu: got %s, owed %s", k,
                 got.size(), owed.size(), first, first < got.size() ? Describe(got[first]).c_str() : "nothing",
                 first < owed.size() ? Describe(owed[first]).c_str() : "nothing");
        }
        slot.received.clear();
        slot.expected.clear();
    }
}

void ServiceRun::CheckTables() {
    size_t open = 0, subscribed = 0;
    for (int k = 0; k < kSlots; ++k) {
        const Slot& slot = slots_[k];
        if (slot.state != Slot::kOpen) continue;
        ++open;
        if (!slot.ids.empty()) ++subscribed;
        const std::shared_ptr<IpcConnection> connection = server_.connection(slot.server);
        if (!connection || connection->fd != slot.server) Fail("slot %d: its connection is not in the table", k);
        if (connection->clientEventIds != slot.ids) Fail("slot %d: the connection's ids are not its subscriptions", k);
        if (connection->ipcPackageManager.getIpcPackageCount() != 0) {
            Fail("slot %d: %zu packages left in its queue after settling", k,
                 connection->ipcPackageManager.getIpcPackageCount());
        }
    }
    if (server_.connectionCount() != open) {
        Fail("%zu connections in the table, %zu open", server_.connectionCount(), open);
    }
    if (server_.monitoredCount() != open + 1) {
        Fail("%zu descriptors watched, %zu connections open and the listening socket", server_.monitoredCount(), open);
    }
    EventManager* events = EventManager::GetInstance();
    if (events->subscribedConnections() != subscribed) {
        Fail("%zu connections subscribed, %zu expected", events->subscribedConnections(), subscribed);
    }
    for (const int32_t id : idsSeen_) {
        const std::vector<int> actual = events->subscribers(id);
        const auto found = subscribers_.find(id);
        const std::vector<std::pair<int, int>> none;
        const std::vector<std::pair<int, int>>& owed = found == subscribers_.end() ? none : found->second;
        if (actual.size() != owed.size()) Fail("id %d: %zu subscribers, %zu expected", id, actual.size(), owed.size());
        std::set<int> distinct;
        int lastSettle = -1;
        for (const int fd : actual) {
            const auto entry = std::find_if(owed.begin(), owed.end(), [&](const auto& e) { return e.first == fd; });
            if (entry == owed.end() || !distinct.insert(fd).second) {
                Fail("id %d: descriptor %d is no subscriber", id, fd);
            }
            if (entry->second < lastSettle) Fail("id %d: descriptor %d stands before an earlier subscriber", id, fd);
            lastSettle = entry->second;
        }
    }
}

void ServiceRun::CheckErrorLog() {
    for (int code = 0; code < kErrorCodes; ++code) {
        const int recorded = QuietErrorLogCount(code) - errorsBefore_[code];
        if (recorded != errors_[code]) {
            Fail("error log code %d recorded %d times, %d expected", code, recorded, errors_[code]);
        }
    }
    const int warned = QuietLogCount(kQueueFullWarning) - warningsBefore_;
    if (warned != warnings_) Fail("the queue-full warning given %d times, %d expected", warned, warnings_);
}

void ServiceRun::Finish() {
    Settle();
    CheckTables();
    Take();
    for (int k = 0; k < kSlots; ++k) {
        if (slots_[k].state != Slot::kOpen) continue;
        CloseClient(k);
        slots_[k].state = Slot::kClosing;
    }
    Settle();
    CheckTables();  // nothing left: no connection, no subscription
    CheckErrorLog();
}

UnixIpcManager* gServer = nullptr;

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    signal(SIGPIPE, SIG_IGN);
    // An abstract socket of this process's own, so that several fuzzing processes never meet.
    const std::string socketName = "kova-service-requests-fuzzer-" + std::to_string(getpid());
    setenv("KOVA_SOCKET_NAME", socketName.c_str(), 1);
    QuietLogCount(kQueueFullWarning);  // starts watching it
    gServer = &KovaBpfService::GetInstance()->TEST_ipcManager();
    if (!gServer->createServer()) Fail("cannot listen on %s", socketName.c_str());
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::vector<Op> program;
    Reader in(data, size);
    for (Op op; DecodeOp(&in, static_cast<uint32_t>(program.size()), &op); op = Op()) {
        // A frame with inconsistent inner sizes trips a deliberate fatal check: not kept in the corpus.
        if (!op.frame.empty() && Classify(op.frame).kind == Effect::kFatal) return -1;
        program.push_back(std::move(op));
    }
    ServiceRun run(*gServer);
    for (const Op& op : program) run.Execute(op);
    run.Finish();
    return 0;
}
