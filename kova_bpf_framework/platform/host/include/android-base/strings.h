// Host subset of android-base string helpers.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace android::base {

// Splits at every character of `delimiters`, keeping empty pieces ("a,,b" gives "a", "", "b").
std::vector<std::string> Split(const std::string& s, const std::string& delimiters);

// Removes leading and trailing white space.
std::string Trim(std::string_view s);

bool StartsWith(std::string_view s, std::string_view prefix);
bool EndsWith(std::string_view s, std::string_view suffix);

}  // namespace android::base
