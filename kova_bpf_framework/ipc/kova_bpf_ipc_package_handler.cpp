#include "ipc/kova_bpf_ipc_package_handler.h"

#include "ipc/kova_bpf_ipc_helper.h"

IpcPackageHandler::IpcPackageHandler(const std::map<unsigned, Handler>& handlers) : handlers(handlers) {
    for (uint32_t type = 0; type < definedTypes.size(); ++type) {
        const auto it = this->handlers.find(type);
        if (it != this->handlers.end()) definedTypes[type] = &it->second;
    }
}

// Both public operations go through here; inline, so that the loop over a buffer's frames makes no
// call per frame other than the handler's.
inline int IpcPackageHandler::dispatch(int fd, char* package, size_t size) const {
    const KovaIpcSecondLevelPackageHeader header = ReadSecondLevelPackageHeader(package, size);
    const Handler* handler = nullptr;
    if (header.type < definedTypes.size()) {
        handler = definedTypes[header.type];
    } else {
        // Looked up without inserting: a peer sending many unknown types must not grow the map.
        const auto it = handlers.find(header.type);
        if (it != handlers.end()) handler = &it->second;
    }
    if (handler == nullptr || !*handler) return 0;
    return (*handler)(fd, package + sizeof(KovaIpcSecondLevelPackageHeader), header.size);
}

int IpcPackageHandler::handleAllIpcPackageInBuffer(int fd, BufferState* readBuffer) {
    char* body = nullptr;
    size_t size = 0;
    while (ReadNextIpcFrame(readBuffer, &body, &size)) {
        if (dispatch(fd, body, size) == -1) return 0;
    }
    return 1;
}

int IpcPackageHandler::handleSecondIpcPackage(int fd, char* package, size_t size) {
    return dispatch(fd, package, size);
}
