// What a newcomer does: install the service, build a client of their own against the installed
// library (once with pkg-config, once with find_package), and run it against the daemon.

#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <thread>
#include <vector>

#include "kova_kernel_objects.h"
#include "kova_test_support.h"

namespace kova::test {
namespace {

using namespace std::chrono_literals;

TEST(InstallTest, AClientBuiltAgainstTheInstalledFilesReceivesTheDaemonsEvents) {
    std::string reason;
    KOVA_REQUIRE(HaveBpf(&reason), reason);
    TempDir work;
    const std::string prefix = work / "prefix";
    std::string out;
    ASSERT_EQ(RunProgram({"/bin/sh", "-c", std::string("cmake --install ") + KOVA_BUILD_DIR + " --prefix " + prefix + " 2>&1"},
                         {}, &out),
              0)
            << out;

    // The example of examples/client, built outside the tree both ways.
    const std::string example = std::string(KOVA_SOURCE_DIR) + "/examples/client";
    const std::string withPkgConfig = work / "kova-example-pkg-config";
    ASSERT_EQ(RunProgram({"/bin/sh", "-c",
                          "g++ " + example + "/main.cpp $(pkg-config --cflags --libs kovabpfclient) -o " + withPkgConfig +
                                  " 2>&1"},
                         {"PKG_CONFIG_PATH=" + prefix + "/lib/pkgconfig"}, &out),
              0)
            << out;
    const std::string build = work / "example-build";
    ASSERT_EQ(RunProgram({"/bin/sh", "-c",
                          "cmake -S " + example + " -B " + build + " -DCMAKE_PREFIX_PATH=" + prefix +
                                  " >/dev/null 2>&1 && cmake --build " + build + " 2>&1"},
                         {}, &out),
              0)
            << out;
    const std::string withCMake = build + "/kova-example";

    DaemonOnObjects daemon;
    ASSERT_TRUE(daemon.Start(&reason)) << reason;
    for (const std::string& program : {withPkgConfig, withCMake}) {
        SCOPED_TRACE(program);
        const std::string output = work / "example.out";
        ChildProcess client({program, "kova-newcomer"}, {"KOVA_SOCKET_NAME=" + daemon.socketName()},
                            work / "example.err", output);
        ASSERT_TRUE(WaitUntil([&] { return ReadFile(output).find("subscribed\n") != std::string::npos; }, 20s))
                << ReadFile(work / "example.err");
        // A process's birth carries the name of the thread that forked it.
        pid_t child = -1;
        std::thread([&] {
            prctl(PR_SET_NAME, "kova-newcomer");
            child = fork();
            if (child == 0) _exit(0);
        }).join();
        waitpid(child, nullptr, 0);
        const int status = client.WaitForExit(20s);
        EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status << "\n" << ReadFile(output);
        EXPECT_NE(ReadFile(output).find("created " + std::to_string(child) + " (parent " + std::to_string(getpid())),
                  std::string::npos)
                << ReadFile(output);
    }
}

}  // namespace
}  // namespace kova::test
