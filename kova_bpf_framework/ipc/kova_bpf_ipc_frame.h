// The one decoder of the package stream: a pure function over the unread bytes of a receive buffer. It
// neither logs nor aborts nor changes anything; each side wraps it with its own policy for a damaged
// stream (the service: error log and fatal checks, kova_bpf_ipc_helper.h; the client library: drop the
// link and connect again).
#pragma once

#include <stddef.h>
#include <stdint.h>

#include "ipc/kova_bpf_ipc_package.h"

struct IpcFrame {
    enum Status {
        kNeedMore,  // no whole frame yet
        kFrame,     // a whole frame: its body is [offset, offset + size)
        kDamaged,   // the stream cannot go on: `why`
    };
    enum Damage {
        kNoDamage,
        kTooLarge,            // announced larger than the whole buffer, or a size that wraps: it can
                              // never complete, and nothing tells where the next frame starts
        kInnerSizeDisagrees,  // a whole frame whose second-level size is not the body's size minus its
                              // header (offset and size locate the frame all the same)
    };
    Status status = kNeedMore;
    Damage damage = kNoDamage;
    size_t offset = 0;
    size_t size = 0;
    uint64_t announced = 0;  // the frame's announced size, header included (wrapped as announced)
    const char* why = "";
};

// Looks at `length` unread bytes at `data`, the start of the unread part of a buffer of `capacity`
// bytes.
inline IpcFrame DecodeIpcFrame(const char* data, size_t length, size_t capacity) {
    IpcFrame frame;
    if (length < ipcPackageHeaderSize) return frame;
    const uint64_t size = LoadIpcWire<uint64_t>(data);
    frame.announced = size + ipcPackageHeaderSize;
    if (size > frame.announced || frame.announced > capacity) {
        frame.status = IpcFrame::kDamaged;
        frame.damage = IpcFrame::kTooLarge;
        frame.why = "frame larger than the buffer";
        return frame;
    }
    if (frame.announced > length) return frame;
    frame.offset = ipcPackageHeaderSize;
    frame.size = size;
    frame.status = IpcFrame::kFrame;
    if (size < sizeof(KovaIpcSecondLevelPackageHeader) ||
        LoadIpcWire<KovaIpcSecondLevelPackageHeader>(data + ipcPackageHeaderSize).size !=
                size - sizeof(KovaIpcSecondLevelPackageHeader)) {
        frame.status = IpcFrame::kDamaged;
        frame.damage = IpcFrame::kInnerSizeDisagrees;
        frame.why = "second-level size disagrees with the frame";
    }
    return frame;
}
