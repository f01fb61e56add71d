// Host subset of android-base system properties.
#pragma once

#include <string>

namespace android::base {

// The value of property `key`, or `default_value` when it is unset or empty.
std::string GetProperty(const std::string& key, const std::string& default_value);

// Sets property `key`. Returns false (with errno) for an invalid name, a value too long for a
// non-"ro." property, or a failed write.
bool SetProperty(const std::string& key, const std::string& value);

}  // namespace android::base
