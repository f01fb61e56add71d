#include "utils/kova_bpf_common.h"

#include <errno.h>
#include <stdarg.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

#include <memory>

namespace Kova::Bpf {

bool IsDigits(const std::string& s) {
    if (s.empty()) return false;
    for (const char c : s) {
        if (c < '0' || c > '9') return false;
    }
    return true;
}

std::string ConvertToHexString(const void* data, int length) {
    if (length < 1 || data == nullptr) return {};
    static constexpr char kDigits[] = "0123456789abcdef";
    const auto* bytes = static_cast<const unsigned char*>(data);
    std::string out;
    out.reserve(static_cast<size_t>(length) * 3);
    for (int i = 0; i < length; ++i) {
        out += kDigits[bytes[i] >> 4];
        out += kDigits[bytes[i] & 0x0f];
        out += ' ';
    }
    return out;
}

namespace {

void StringAppendV(std::string* out, const char* format, va_list args) {
    va_list measure;
    va_copy(measure, args);
    const int length = vsnprintf(nullptr, 0, format, measure);
    va_end(measure);
    if (length <= 0) return;
    const size_t start = out->size();
    out->resize(start + static_cast<size_t>(length));
    vsnprintf(out->data() + start, static_cast<size_t>(length) + 1, format, args);
}

}  // namespace

std::string StringPrintf(const char* format, ...) {
    std::string out;
    va_list args;
    va_start(args, format);
    StringAppendV(&out, format, args);
    va_end(args);
    return out;
}

void StringAppendF(std::string* out, const char* format, ...) {
    va_list args;
    va_start(args, format);
    StringAppendV(out, format, args);
    va_end(args);
}

std::vector<std::string> Split(const std::string& s, const std::string& delimiter) {
    std::vector<std::string> tokens;
    size_t start = 0;
    while (true) {
        const size_t found = s.find(delimiter, start);
        if (found == std::string::npos) break;
        if (found > start) tokens.push_back(s.substr(start, found - start));
        start = found + delimiter.size();
    }
    if (start < s.size()) tokens.push_back(s.substr(start));
    return tokens;
}

uint64_t SubAbs(int64_t a, int64_t b) {
    const uint64_t difference = static_cast<uint64_t>(a) - static_cast<uint64_t>(b);
    return static_cast<int64_t>(difference) < 0 ? static_cast<uint64_t>(b) - static_cast<uint64_t>(a)
                                                : difference;
}

bool MakeDirectories(const std::string& path, mode_t mode) {
    for (size_t slash = path.find('/', 1);; slash = path.find('/', slash + 1)) {
        const std::string prefix = path.substr(0, slash);
        if (!prefix.empty() && mkdir(prefix.c_str(), mode) != 0 && errno != EEXIST) return false;
        if (slash == std::string::npos) break;
    }
    struct stat st {};
    if (stat(path.c_str(), &st) != 0) return false;
    if (!S_ISDIR(st.st_mode)) {
        errno = ENOTDIR;
        return false;
    }
    return true;
}

std::string ReadSymlink(const char* path) {
    constexpr size_t kBufferSize = 4096;
    auto buffer = std::make_unique<char[]>(kBufferSize);
    const ssize_t length = readlink(path, buffer.get(), kBufferSize - 1);
    if (length < 0) return {};
    buffer[static_cast<size_t>(length)] = '\0';
    return std::string(buffer.get());
}

}  // namespace Kova::Bpf
