// Framing of the package stream and the local-socket helpers of the IPC layer.
//
// The service's policy over the one frame decoder (kova_bpf_ipc_frame.h), on a connection's BufferState
// (kova_bpf_ipc_package.h):
//   - ReadNextIpcFrame steps over the next whole frame and returns its body, and throws the buffered
//     bytes away when the frame can never complete;
//   - CheckIpcPackageComplete tells whether a whole frame starts at the read cursor, and throws the
//     buffered bytes away when the frame can never complete;
//   - ReadCompleteIpcPackage steps over such a frame and returns its body in place;
//   - ReadSecondLevelPackageHeader / ReadReqIpcPackageHeader decode the inner headers;
//   - WriteIpcPackageToBuffer appends one frame to a send buffer.
// A peer whose inner sizes disagree with the frame takes the process down through a fatal check, by
// design: the service does not try to resynchronise with a client that writes inconsistent packages.
//
// Nothing here keeps state; all functions are safe from any thread on buffers that thread owns.
// Logs go under the tag "BpfUtils".
#pragma once

#include <stddef.h>
#include <stdint.h>

#include "ipc/kova_bpf_ipc_frame.h"
#include "ipc/kova_bpf_ipc_package.h"

// The rare paths of the inline functions below, kept out of line: they report and clear, or abort.
bool ClearDamagedIpcBuffer(BufferState* state, uint64_t total);
[[noreturn]] void FailIpcPackageHeaderRead(BufferState* readBufferState);
[[noreturn]] void FailSecondLevelPackageSize(const char* package, size_t size);

// True when a whole frame starts at state->bufferCursor. Sets *headerSize to 8 and, once the 8 header
// bytes are there, *packageSize to the announced body size. A frame that can never fit into the buffer
// (header + body larger than the buffer, or a size that wraps) is reported (error log code 2 and two
// error lines with a hex dump of the buffered bytes) and clears the buffer, dropping everything in it,
// including complete frames after the bad one; the result is then false.
inline bool CheckIpcPackageComplete(BufferState* state, size_t* headerSize, size_t* packageSize) {
    *headerSize = ipcPackageHeaderSize;
    const IpcFrame frame = DecodeIpcFrame(state->buffer.data() + state->bufferCursor,
                                          state->bufferDataCursor - state->bufferCursor, state->buffer.size());
    if (state->bufferDataCursor - state->bufferCursor >= ipcPackageHeaderSize) {
        *packageSize = LoadIpcWire<uint64_t>(state->buffer.data() + state->bufferCursor);
    }
    if (frame.damage == IpcFrame::kTooLarge) return ClearDamagedIpcBuffer(state, frame.announced);
    return frame.status != IpcFrame::kNeedMore;  // the inner sizes are the dispatch's to check
}

// Steps over the frame at the read cursor, which CheckIpcPackageComplete has just reported complete
// with body size `size`, and returns its body in place. A failing header read is a fatal check.
inline char* ReadCompleteIpcPackage(BufferState* readBufferState, size_t size) {
    if (__builtin_expect(readBufferState->read(ipcPackageHeaderSize) == nullptr, 0)) {
        FailIpcPackageHeaderRead(readBufferState);
    }
    // Cannot fail once the header was read: the frame was found complete.
    return readBufferState->read(size);
}

// Steps over the next whole frame of the buffer and points *body at its body of *size bytes; false when
// there is none yet. A frame that can never complete clears the buffer as CheckIpcPackageComplete does
// (false). Inner sizes that disagree are left to the fatal check of the dispatch
// (ReadSecondLevelPackageHeader), where the service checks every package it handles.
inline bool ReadNextIpcFrame(BufferState* state, char** body, size_t* size) {
    const IpcFrame frame = DecodeIpcFrame(state->buffer.data() + state->bufferCursor,
                                          state->bufferDataCursor - state->bufferCursor, state->buffer.size());
    if (frame.status == IpcFrame::kNeedMore) return false;
    if (frame.damage == IpcFrame::kTooLarge) return ClearDamagedIpcBuffer(state, frame.announced);
    *body = state->buffer.data() + state->bufferCursor + frame.offset;
    *size = frame.size;
    state->bufferCursor += frame.offset + frame.size;
    return true;
}

// The second-level header at the start of a frame body of `size` bytes. A header whose size is not
// size - 8 (including a body shorter than the header) is a fatal check.
inline KovaIpcSecondLevelPackageHeader ReadSecondLevelPackageHeader(const char* package, size_t size) {
    if (__builtin_expect(size >= sizeof(KovaIpcSecondLevelPackageHeader), 1)) {
        const auto header = LoadIpcWire<KovaIpcSecondLevelPackageHeader>(package);
        if (__builtin_expect(header.size == size - sizeof(KovaIpcSecondLevelPackageHeader), 1)) return header;
    }
    FailSecondLevelPackageSize(package, size);
}

// The request header at the start of a request payload of `size` bytes. A dataSize that is not
// size - 12 (including a payload shorter than the header) is a fatal check, reported at the caller's
// source line: the check belongs to whoever serves the request.
KovaReqIpcPackageHeader ReadReqIpcPackageHeader(const char* data, size_t size, const char* file = __builtin_FILE(),
                                                unsigned line = __builtin_LINE());

// Appends `ipcPackage` as one frame. REQUIRES: ipcPackage.size + 8 <= bufferState->freeSpace(); a frame
// that was checked to fit but cannot be written is a fatal check.
void WriteIpcPackageToBuffer(BufferState* bufferState, const KovaIpcPackage& ipcPackage);

// Moves the unread bytes of a receive buffer to its start, so that the whole free space follows them.
void CompactIpcBuffer(BufferState* readBuffer);

// Socket helpers. Descriptors returned are owned by the caller.

// Adds O_NONBLOCK to the descriptor's status flags.
bool Setnonblocking(int fd);

// A listening, non-blocking, close-on-exec local stream socket for `name`: the one init created for
// that name if there is one (returned as it is, without listen), else a new one bound to the abstract
// name, listening with a backlog of 4. -1 on failure, which is logged.
int CreateNonblockingServerSocket(const char* name);

// A non-blocking socket connected to the local stream socket `name`, tried as a file system path first
// and as an abstract name second. -1 on failure, which is logged.
int ConnectToServer(const char* name);

// epoll_ctl ADD / MOD of `fd` with `events`, the descriptor as user data.
bool EpollCtlAdd(int epfd, int fd, uint32_t events);
bool EpollCtlMod(int epfd, int fd, uint32_t events);
