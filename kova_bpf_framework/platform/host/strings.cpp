#include <android-base/strings.h>

namespace android::base {

std::vector<std::string> Split(const std::string& s, const std::string& delimiters) {
    std::vector<std::string> result;
    size_t base = 0;
    while (true) {
        const size_t found = s.find_first_of(delimiters, base);
        result.push_back(s.substr(base, found - base));
        if (found == std::string::npos) break;
        base = found + 1;
    }
    return result;
}

std::string Trim(std::string_view s) {
    const char* spaces = " \t\n\r\f\v";
    const size_t first = s.find_first_not_of(spaces);
    if (first == std::string_view::npos) return {};
    const size_t last = s.find_last_not_of(spaces);
    return std::string(s.substr(first, last - first + 1));
}

bool StartsWith(std::string_view s, std::string_view prefix) { return s.substr(0, prefix.size()) == prefix; }

bool EndsWith(std::string_view s, std::string_view suffix) {
    return s.size() >= suffix.size() && s.substr(s.size() - suffix.size()) == suffix;
}

}  // namespace android::base
