// kova-getprop: reads a system property from the host's property store, like the platform's getprop.
//   kova-getprop NAME [DEFAULT]   prints the value, or DEFAULT (empty when not given)
//   kova-getprop                  lists every property as "[name]: [value]"

#include <android-base/file.h>
#include <android-base/properties.h>
#include <dirent.h>
#include <stdio.h>
#include <stdlib.h>

#include <map>
#include <string>

namespace {

void ListDirectory(const std::string& dir, std::map<std::string, std::string>* out) {
    DIR* d = opendir(dir.c_str());
    if (d == nullptr) return;
    while (dirent* entry = readdir(d)) {
        if (entry->d_name[0] == '.') continue;  // ".", ".." and temporary files of a write in progress
        std::string value;
        if (android::base::ReadFileToString(dir + "/" + entry->d_name, &value)) (*out)[entry->d_name] = value;
    }
    closedir(d);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc > 3) {
        fprintf(stderr, "usage: kova-getprop [NAME [DEFAULT]]\n");
        return 1;
    }
    if (argc >= 2) {
        printf("%s\n", android::base::GetProperty(argv[1], argc == 3 ? argv[2] : "").c_str());
        return 0;
    }
    std::map<std::string, std::string> all;
    const char* single = getenv("KOVA_PROPERTY_DIR");
    if (single != nullptr && single[0] != '\0') {
        ListDirectory(single, &all);
    } else {
        ListDirectory("/var/lib/kovabpf/properties", &all);
        ListDirectory("/run/kovabpf/properties", &all);
    }
    for (const auto& [name, value] : all) printf("[%s]: [%s]\n", name.c_str(), value.c_str());
    return 0;
}
