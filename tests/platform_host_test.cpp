// The host platform layer: properties shared between processes, the log and its fatal messages, local
// sockets and owned descriptors.

#include <android-base/logging.h>
#include <android-base/properties.h>
#include <android-base/unique_fd.h>
#include <android/api-level.h>
#include <android/log.h>
#include <cutils/sockets.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <regex>
#include <string>

#include "kova_test_support.h"

namespace kova::test {
namespace {

using android::base::GetProperty;
using android::base::SetProperty;

class PropertyTest : public ::testing::Test {
  protected:
    ScopedPropertyStore store_;
};

TEST_F(PropertyTest, SetValueIsReadBackExactlyAndLeavesNoTemporaryFile) {
    EXPECT_EQ(GetProperty("sys.kova_bpf_ready", "0"), "0");
    store_.Set("sys.kova_bpf_ready", "");
    EXPECT_EQ(GetProperty("sys.kova_bpf_ready", "0"), "0");  // empty is as good as missing
    ASSERT_TRUE(SetProperty("persist.sys.stability.bpfframework.disable", "1 "));
    EXPECT_EQ(GetProperty("persist.sys.stability.bpfframework.disable", "0"), "1 ");
    std::string listing;
    ASSERT_EQ(RunProgram({"/bin/ls", "-A", store_.path()}, {}, &listing), 0);
    EXPECT_EQ(listing, "persist.sys.stability.bpfframework.disable\nsys.kova_bpf_ready\n");
}

TEST_F(PropertyTest, InvalidNamesAndOverlongValuesAreRefused) {
    for (const std::string name : {"", "../escape", "a/b", ".hidden", "trailing.", "two..dots", "sp ace"}) {
        errno = 0;
        EXPECT_FALSE(SetProperty(name, "1")) << name;
        EXPECT_EQ(errno, EINVAL) << name;
        EXPECT_EQ(GetProperty(name, "default"), "default") << name;
    }
    EXPECT_FALSE(SetProperty("sys.long", std::string(92, 'x')));
    EXPECT_TRUE(SetProperty("sys.long", std::string(91, 'x')));
    EXPECT_TRUE(SetProperty("ro.long", std::string(200, 'x')));  // read-only values have no limit
}

// A reader in one process never sees a half-written value from a writer in another.
TEST_F(PropertyTest, ReadersInOtherProcessesSeeWholeValuesOnly) {
    const std::string a(80, 'a'), b(80, 'b');
    ASSERT_TRUE(SetProperty("sys.flip", a));
    const pid_t writer = fork();
    ASSERT_GE(writer, 0);
    if (writer == 0) {
        for (int i = 0; i < 3000; ++i) SetProperty("sys.flip", (i % 2) ? a : b);
        _exit(0);
    }
    int torn = 0;
    for (int i = 0; i < 3000; ++i) {
        const std::string value = GetProperty("sys.flip", "");
        if (value != a && value != b) ++torn;
    }
    int status = 0;
    waitpid(writer, &status, 0);
    EXPECT_EQ(torn, 0);
}

TEST_F(PropertyTest, PersistentAndVolatileNamesUseTheirOwnDirectories) {
    unsetenv("KOVA_PROPERTY_DIR");
    const std::string suffix = std::to_string(getpid());
    ASSERT_TRUE(SetProperty("persist.kova.test" + suffix, "p"));
    ASSERT_TRUE(SetProperty("sys.kova.test" + suffix, "v"));
    EXPECT_EQ(ReadFile("/var/lib/kovabpf/properties/persist.kova.test" + suffix), "p");
    EXPECT_EQ(ReadFile("/run/kovabpf/properties/sys.kova.test" + suffix), "v");
    unlink(("/var/lib/kovabpf/properties/persist.kova.test" + suffix).c_str());
    unlink(("/run/kovabpf/properties/sys.kova.test" + suffix).c_str());
}

TEST_F(PropertyTest, ToolsBehaveLikeGetpropAndSetprop) {
    EXPECT_EQ(RunProgram({ProjectBinary("kova-setprop"), "sys.kova_bpf_ready", "1"}), 0);
    std::string out;
    EXPECT_EQ(RunProgram({ProjectBinary("kova-getprop"), "sys.unset", "fallback"}, {}, &out), 0);
    EXPECT_EQ(out, "fallback\n");
    EXPECT_EQ(RunProgram({ProjectBinary("kova-getprop")}, {}, &out), 0);
    EXPECT_EQ(out, "[sys.kova_bpf_ready]: [1]\n");
    EXPECT_EQ(RunProgram({ProjectBinary("kova-setprop"), "bad/name", "1"}), 1);
    EXPECT_EQ(RunProgram({ProjectBinary("kova-setprop"), "only-name"}), 1);
    store_.Set("ro.build.version.sdk", "34");  // the API level comes from the SDK property
    EXPECT_EQ(android_get_device_api_level(), 34);
}

// Runs `body` with stderr redirected into a file and returns what it wrote.
template <typename Body>
std::string CaptureStderr(Body body) {
    TempDir dir;
    const int saved = dup(STDERR_FILENO);
    const int file = open((dir / "stderr").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    dup2(file, STDERR_FILENO);
    close(file);
    body();
    dup2(saved, STDERR_FILENO);
    close(saved);
    return ReadFile(dir / "stderr");
}

// One logcat-like line per message on stderr and in the sink; below the minimum priority, in neither.
TEST(HostLogTest, WritesOneLogcatLikeLinePerMessageAndFeedsTheSink) {
    LogCapture capture;
    EXPECT_EQ(__android_log_set_minimum_priority(ANDROID_LOG_WARN), ANDROID_LOG_DEFAULT);
    const std::string err = CaptureStderr([] {
        __android_log_print(ANDROID_LOG_INFO, "BpfUtils", "quiet");
        __android_log_print(ANDROID_LOG_WARN, "BpfUtils", "x=%d %s", 7, "y");
    });
    EXPECT_TRUE(std::regex_match(err, std::regex(R"(\d\d-\d\d \d\d:\d\d:\d\d\.\d{3} +\d+ +\d+ W BpfUtils: x=7 y\n)")))
            << err;
    EXPECT_TRUE(capture.Has(ANDROID_LOG_WARN, "BpfUtils", "x=7 y"));
    EXPECT_EQ(capture.CountContaining("quiet"), 0);
    errno = ENOENT;
    PLOG(ERROR) << "open failed";
    EXPECT_EQ(capture.CountContaining("open failed: No such file or directory"), 1);
}

// When stderr is the journal's stream (JOURNAL_STREAM names its device and inode), each line carries
// its syslog priority for the journal instead of a time stamp; a JOURNAL_STREAM of another file does not
// count.
TEST(HostLogTest, LinesToTheJournalCarryTheirPriority) {
    const std::string err = CaptureStderr([] {
        struct stat status {};
        ASSERT_EQ(fstat(STDERR_FILENO, &status), 0);
        const std::string stream = std::to_string(status.st_dev) + ":" + std::to_string(status.st_ino);
        setenv("JOURNAL_STREAM", stream.c_str(), 1);
        __android_log_print(ANDROID_LOG_ERROR, "BpfService", "e");
        __android_log_print(ANDROID_LOG_WARN, "BpfService", "w");
        __android_log_print(ANDROID_LOG_INFO, "BpfService", "i");
        __android_log_print(ANDROID_LOG_DEBUG, "BpfService", "d");
        setenv("JOURNAL_STREAM", (stream + "1").c_str(), 1);
        __android_log_print(ANDROID_LOG_WARN, "BpfService", "elsewhere");
        unsetenv("JOURNAL_STREAM");
    });
    EXPECT_TRUE(std::regex_match(err, std::regex("<3>BpfService: e\n<4>BpfService: w\n<6>BpfService: i\n"
                                                 "<7>BpfService: d\n[^<].* W BpfService: elsewhere\n")))
            << err;
}

TEST(HostLogDeathTest, FatalMessagesNameTheSourceAndAbort) {
    EXPECT_DEATH(LOG(FATAL) << "boom", R"(F .*tests/platform_host_test\.cpp:[0-9]+\] boom)");
    const int size = 3;
    EXPECT_DEATH(CHECK(size == 4), "Check failed: size == 4 \n");
}

TEST(LocalSocketTest, AbstractServerAcceptsAClientByName) {
    const std::string name = "kova-test-socket-" + std::to_string(getpid());
    android::base::unique_fd server(socket_local_server(name.c_str(), ANDROID_SOCKET_NAMESPACE_ABSTRACT, SOCK_STREAM));
    ASSERT_TRUE(server.ok()) << strerror(errno);
    // No file of that name exists, so the filesystem namespace fails and the abstract one connects.
    EXPECT_EQ(socket_local_client(name.c_str(), ANDROID_SOCKET_NAMESPACE_FILESYSTEM, SOCK_STREAM), -1);
    android::base::unique_fd client(socket_local_client(name.c_str(), ANDROID_SOCKET_NAMESPACE_ABSTRACT, SOCK_STREAM));
    ASSERT_TRUE(client.ok());
    EXPECT_TRUE(android::base::unique_fd(accept(server.get(), nullptr, nullptr)).ok());
}

TEST(LocalSocketTest, FilesystemServerReplacesAStaleSocketFile) {
    TempDir dir;
    const std::string path = dir / "sock";
    WriteFile(path, "stale");
    android::base::unique_fd server(socket_local_server(path.c_str(), ANDROID_SOCKET_NAMESPACE_FILESYSTEM, SOCK_STREAM));
    ASSERT_TRUE(server.ok()) << strerror(errno);
    android::base::unique_fd client(socket_local_client(path.c_str(), ANDROID_SOCKET_NAMESPACE_FILESYSTEM, SOCK_STREAM));
    EXPECT_TRUE(client.ok());
}

TEST(LocalSocketTest, ControlSocketComesFromTheInitVariableOnly) {
    const char* name = "/mnt/bpfframework/kovabpfdispatcher";
    EXPECT_EQ(android_get_control_socket(name), -1);
    int pair[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, pair), 0);
    setenv("ANDROID_SOCKET__mnt_bpfframework_kovabpfdispatcher", std::to_string(pair[0]).c_str(), 1);
    EXPECT_EQ(android_get_control_socket(name), pair[0]);
    const int notSocket = open("/dev/null", O_RDONLY);
    setenv("ANDROID_SOCKET__mnt_bpfframework_kovabpfdispatcher", std::to_string(notSocket).c_str(), 1);
    EXPECT_EQ(android_get_control_socket(name), -1);  // each test runs in a process of its own
}

TEST(UniqueFdTest, ClosesOnResetKeepsErrnoAndReleases) {
    android::base::unique_fd fd(open("/dev/null", O_RDONLY | O_CLOEXEC));
    const int raw = fd.get();
    errno = EAGAIN;
    fd.reset();
    EXPECT_EQ(errno, EAGAIN);
    EXPECT_EQ(fcntl(raw, F_GETFD), -1);
    fd.reset(open("/dev/null", O_RDONLY | O_CLOEXEC));
    const int released = fd.release();
    EXPECT_FALSE(fd.ok());
    EXPECT_EQ(close(released), 0);
}

}  // namespace
}  // namespace kova::test
