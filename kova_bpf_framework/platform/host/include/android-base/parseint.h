// Host subset of android-base integer parsing.
#pragma once

#include <errno.h>
#include <stdlib.h>

#include <limits>
#include <string>
#include <type_traits>

namespace android::base {

// Parses an unsigned integer: leading white space allowed, a '-' rejected, "0x" selects base 16, the
// whole string must be consumed and the value must not exceed `max`. Returns false with errno
// (EINVAL or ERANGE) otherwise; *out is only written on success.
template <typename T>
bool ParseUint(const char* s, T* out, T max = std::numeric_limits<T>::max()) {
    static_assert(std::is_unsigned_v<T>);
    while (*s == ' ' || (*s >= '\t' && *s <= '\r')) ++s;
    if (*s == '-') {
        errno = EINVAL;
        return false;
    }
    const int base = (s[0] == '0' && (s[1] == 'x' || s[1] == 'X')) ? 16 : 10;
    errno = 0;
    char* end = nullptr;
    const unsigned long long value = strtoull(s, &end, base);
    if (errno != 0) return false;
    if (end == s || *end != '\0') {
        errno = EINVAL;
        return false;
    }
    if (value > max) {
        errno = ERANGE;
        return false;
    }
    *out = static_cast<T>(value);
    return true;
}

template <typename T>
bool ParseUint(const std::string& s, T* out, T max = std::numeric_limits<T>::max()) {
    return ParseUint(s.c_str(), out, max);
}

// Parses a signed integer in base 10 (or 16 with "0x"), within [min, max], consuming the whole string.
template <typename T>
bool ParseInt(const char* s, T* out, T min = std::numeric_limits<T>::min(),
              T max = std::numeric_limits<T>::max()) {
    static_assert(std::is_signed_v<T>);
    while (*s == ' ' || (*s >= '\t' && *s <= '\r')) ++s;
    const bool negative = *s == '-';
    const char* digits = (negative || *s == '+') ? s + 1 : s;
    const int base = (digits[0] == '0' && (digits[1] == 'x' || digits[1] == 'X')) ? 16 : 10;
    errno = 0;
    char* end = nullptr;
    const long long value = strtoll(s, &end, base);
    if (errno != 0) return false;
    if (end == s || *end != '\0') {
        errno = EINVAL;
        return false;
    }
    if (value < min || value > max) {
        errno = ERANGE;
        return false;
    }
    *out = static_cast<T>(value);
    return true;
}

template <typename T>
bool ParseInt(const std::string& s, T* out, T min = std::numeric_limits<T>::min(),
              T max = std::numeric_limits<T>::max()) {
    return ParseInt(s.c_str(), out, min, max);
}

}  // namespace android::base
