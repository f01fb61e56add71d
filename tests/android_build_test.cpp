// Android.bp and kovabpfd.rc cannot be built or run on the host. What can drift is checked here: each
// module's sources against its CMake target's, the kernel objects against the ones the service runs
// on, and the init socket against the name the service asks for.

#include <gtest/gtest.h>

#include <map>
#include <regex>
#include <set>
#include <sstream>
#include <string>

#include "kova_test_support.h"
#include "utils/kova_bpf_paths.h"

namespace kova::test {
namespace {

using Sources = std::set<std::string>;

// name -> srcs of every module of an Android.bp ("type { name: "...", ... srcs: [...] ... }").
std::map<std::string, Sources> ModuleSources(const std::string& blueprint) {
    std::map<std::string, Sources> modules;
    static const std::regex module(R"re(\n(\w+) \{\n([\s\S]*?)\n\})re");
    static const std::regex name(R"re(\n    name: "([^"]+)")re");
    static const std::regex srcs(R"re(\n    srcs: \[([^\]]*)\])re");
    static const std::regex quoted(R"re("([^"]+)")re");
    for (auto it = std::sregex_iterator(blueprint.begin(), blueprint.end(), module); it != std::sregex_iterator(); ++it) {
        const std::string body = "\n" + (*it)[2].str();
        std::smatch found;
        if (!std::regex_search(body, found, name)) continue;
        Sources& sources = modules[found[1]];
        std::smatch list;
        if (!std::regex_search(body, list, srcs)) continue;
        const std::string items = list[1];
        for (auto item = std::sregex_iterator(items.begin(), items.end(), quoted); item != std::sregex_iterator(); ++item) {
            sources.insert((*item)[1]);
        }
    }
    return modules;
}

// CMake's lists, "target path;path;..." a line, leaving out headers.
std::map<std::string, Sources> CMakeSources() {
    std::map<std::string, Sources> targets;
    std::istringstream lines(ReadFile(KOVA_CMAKE_SOURCES));
    for (std::string target, paths; lines >> target >> paths;) {
        std::istringstream split(paths);
        for (std::string path; std::getline(split, path, ';');) {
            if (!path.ends_with(".h")) targets[target].insert(path);
        }
    }
    return targets;
}

TEST(AndroidBuildTest, EveryModuleBuildsWhatItsCMakeTargetBuilds) {
    const std::map<std::string, Sources> modules = ModuleSources(ReadFile(std::string(KOVA_SOURCE_DIR) + "/Android.bp"));
    const std::map<std::string, Sources> targets = CMakeSources();
    ASSERT_FALSE(targets.empty());
    const std::map<std::string, std::string> counterparts = {
            {"libkovautils", "kovautils"},           {"libkovaipc", "kovaipc"},
            {"libkovabpfservice", "kovabpfservice"}, {"libkovabpfclient", "kovabpfclient"},
            {"kovabpfd", "kovabpfd"},                {"kovabpfctl", "kovabpfctl"}};
    Sources objects;
    for (const auto& [module, sources] : modules) {
        if (module.ends_with(".o")) {
            objects.insert(sources.begin(), sources.end());
            continue;
        }
        const auto counterpart = counterparts.find(module);
        if (counterpart == counterparts.end()) {
            if (module != "kovabpf_defaults") ADD_FAILURE() << "Android.bp module " << module << " has no CMake target";
            continue;
        }
        EXPECT_EQ(sources, targets.at(counterpart->second)) << module;
    }
    for (const auto& [module, target] : counterparts) EXPECT_EQ(modules.count(module), 1u) << module;
    EXPECT_EQ(objects, targets.at("bpf")) << "the kernel objects";
}

// init publishes a socket as ANDROID_SOCKET_ + its name with every character that is not a letter or a
// digit turned into '_'; the service asks for the same under its socket's path.
TEST(AndroidBuildTest, InitHandsTheServiceTheSocketItAsksFor) {
    const std::string rc = ReadFile(std::string(KOVA_SOURCE_DIR) + "/daemon/kovabpfd.rc");
    std::smatch socket;
    ASSERT_TRUE(std::regex_search(rc, socket, std::regex(R"re(\n    socket (\S+) stream )re"))) << rc;
    const auto published = [](std::string name) {
        for (char& c : name) c = isalnum(static_cast<unsigned char>(c)) ? c : '_';
        return name;
    };
    EXPECT_EQ(published(socket[1]), published(Kova::Bpf::KOVA_SOCKET_NAME));
    EXPECT_NE(rc.find("symlink /dev/socket/" + socket[1].str() + " " + Kova::Bpf::KOVA_SOCKET_NAME), std::string::npos)
            << "clients connect to " << Kova::Bpf::KOVA_SOCKET_NAME;
}

}  // namespace
}  // namespace kova::test
