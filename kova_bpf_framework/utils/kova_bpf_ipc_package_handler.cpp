#include "utils/kova_bpf_ipc_package_handler.h"

#include "utils/kova_bpf_ipc_helper.h"

int IpcPackageHandler::handleAllIpcPackageInBuffer(int fd, BufferState* readBuffer) {
    size_t headerSize = 0;
    size_t size = 0;
    while (readBuffer->bufferDataCursor != readBuffer->bufferCursor &&
           CheckIpcPackageComplete(readBuffer, &headerSize, &size)) {
        char* body = ReadCompleteIpcPackage(readBuffer, size);
        if (handleSecondIpcPackage(fd, body, size) == -1) return 0;
    }
    return 1;
}

int IpcPackageHandler::handleSecondIpcPackage(int fd, char* package, size_t size) {
    const KovaIpcSecondLevelPackageHeader header = ReadSecondLevelPackageHeader(package, size);
    // Looked up without inserting: a peer sending many unknown types must not grow the map.
    const auto it = handlers.find(header.type);
    if (it == handlers.end() || !it->second) return 0;
    return it->second(fd, package + sizeof(KovaIpcSecondLevelPackageHeader), header.size);
}
