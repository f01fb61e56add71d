// Host subset of android-base file helpers.
#pragma once

#include <string>

namespace android::base {

// Reads the whole file into *content. Returns false (with errno) when it cannot be opened or read;
// *content is then empty. Symbolic links are followed only when asked.
bool ReadFileToString(const std::string& path, std::string* content, bool follow_symlinks = false);

// Replaces the file's content (creating it with mode 0644). Returns false with errno on failure.
bool WriteStringToFile(const std::string& content, const std::string& path, bool follow_symlinks = false);

}  // namespace android::base
