// The Python client (client/python/kovabpf): its decoders read the records the service's own structs
// lay out, field by field, as libkovabpfclient's do; and it works against the real daemon.

#include <gtest/gtest.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "kova_bpf_records.h"
#include "kova_kernel_objects.h"
#include "kova_test_support.h"
#include "protocol/kova_bpf_protocol.h"

namespace kova::test {
namespace {

using namespace std::chrono_literals;
using namespace Kova::Bpf;

const std::string kPython = std::string(KOVA_SOURCE_DIR) + "/client/python";

template <typename T>
std::string Bytes(const T& value) {
    return std::string(reinterpret_cast<const char*>(&value), sizeof(value));
}
std::string U8(uint8_t value) { return Bytes(value); }
std::string U32(uint32_t value) { return Bytes(value); }
std::string U64(uint64_t value) { return Bytes(value); }

std::string Hex(const std::string& bytes) {
    std::string hex;
    char digits[3];
    for (const unsigned char c : bytes) {
        snprintf(digits, sizeof(digits), "%02x", c);
        hex += digits;
    }
    return hex;
}

TEST(PythonClientTest, DecodesEveryLayoutAsTheServiceWritesIt) {
    KovaTaskCreateEvent created{EVENT_TASK_CREATE, 101, 202, 303, "alpha"};
    KovaTaskExitEvent exited{EVENT_TASK_EXIT, 104, "beta"};
    KovaThreadCountChangeEvent threads{EVENT_THREAD_COUNT_CHANGE, 105, 206, 307, 11, 22};
    KovaRssChangeEvent rss{EVENT_RSS_CHANGE, 106, 207, 308, "gamma", {1, 2, 3, 4}, {5, 6, 7, 8}};
    const std::string total = Bytes(KovaTotalTimeReportHeader{EVENT_TOTAL_CPU_TIME_IN_STATE, 999, 1}) + U32(2) + U32(2) +
                              U64(10) + U64(20) + U32(1) + U64(30);
    const std::string processes = Bytes(KovaCpuTimeReportHeader{EVENT_PROCESS_CPU_TIME_IN_STATE, 1000, 77, 88, 1}) +
                                  U32(1) + Bytes(KovaProcessTimeRecord{41, 42, 4343, "proc"}) + U8(1) + U32(1) +
                                  U32(41) + U32(1) + U32(2) + U64(5) + U64(6);
    const std::string threadTimes = Bytes(KovaCpuTimeReportHeader{EVENT_THREAD_CPU_TIME_IN_STATE, 1001, 78, 89, 1}) +
                                    U32(1) + Bytes(KovaThreadTimeRecord{51, 52, 53, "thr", 5454, "proc2"}) + U8(0);
    kova_dmabuf_size_record dmabufSize{4, 0, 111, 112, 113, 114, 115};
    kova_cgroup_attach_record moved{5, 0, 121, 122, 123, 124, 125, 126, "moved", "/top-app"};
    kova_fd_update_record fds{6, 0, 131, 132, 0, 133, 134, "fds"};
    kova_dmabuf_update_record dmabuf{7, 0, 141, 142, 3, 143, 144};
    const std::vector<std::pair<std::string, std::string>> cases = {
            {Bytes(created),
             R"({"fields": {"comm": "alpha", "pid": 101, "ppid": 202, "uid": 303}, "id": 50001, "name": "task_created"})"},
            {Bytes(exited), R"({"fields": {"comm": "beta", "pid": 104}, "id": 50002, "name": "task_exited"})"},
            {Bytes(threads),
             R"({"fields": {"oldThreadNum": 11, "pid": 105, "ppid": 206, "threadNum": 22, "uid": 307}, "id": 50003, )"
             R"("name": "thread_count_changed"})"},
            {Bytes(rss),
             R"({"fields": {"comm": "gamma", "current": {"anon": 2, "file": 1, "shmem": 4, "swap": 3}, "lastReported": )"
             R"({"anon": 6, "file": 5, "shmem": 8, "swap": 7}, "pid": 106, "ppid": 207, "uid": 308}, "id": 50004, )"
             R"("name": "rss_changed"})"},
            {total,
             R"({"fields": {"hasData": true, "policies": [[10, 20], [30]], "timestampNs": 999}, "id": 50005, )"
             R"("name": "total_time_in_state"})"},
            {processes,
             R"({"fields": {"frequencies": [{"key": 41, "policies": [[5, 6]]}], "hasFrequencyData": true, )"
             R"("hasRecords": true, "records": [{"key": 41, "name": "proc", "tgid": 42, "timeNs": 4343}], )"
             R"("reportedTimeNs": 77, "timestampNs": 1000, "totalTimeNs": 88}, "id": 50006, "name": "process_time_in_state"})"},
            {threadTimes,
             R"({"fields": {"frequencies": [], "hasFrequencyData": false, "hasRecords": true, "records": [{"key": 51, )"
             R"("pid": 52, "processName": "proc2", "tgid": 53, "threadName": "thr", "timeNs": 5454}], )"
             R"("reportedTimeNs": 78, "timestampNs": 1001, "totalTimeNs": 89}, "id": 50007, "name": "thread_time_in_state"})"},
            {Bytes(KovaTimeResetReport{EVENT_PROCESS_CPU_TIME_RESET, 1234}),
             R"({"fields": {"id": 50009, "timestampNs": 1234}, "id": 50009, "name": "process_time_reset"})"},
            {Bytes(dmabufSize),
             R"({"fields": {"buffers": 113, "bytes": 114, "pid": 112, "reportedBytes": 115, "timestampNs": 111}, "id": 4, )"
             R"("name": "dmabuf_size"})"},
            {Bytes(moved),
             R"({"fields": {"callerPid": 124, "cgroupId": 122, "comm": "moved", "level": 126, "path": "/top-app", )"
             R"("pid": 123, "root": 125, "timestampNs": 121}, "id": 5, "name": "cgroup_move"})"},
            {Bytes(fds),
             R"({"fields": {"comm": "fds", "openFds": 133, "pid": 132, "reportedFds": 134, "timestampNs": 131}, "id": 6, )"
             R"("name": "fd_count"})"},
            {Bytes(dmabuf),
             R"({"fields": {"inode": 143, "op": "attach", "pid": 142, "size": 144, "timestampNs": 141}, "id": 7, )"
             R"("name": "dmabuf_update"})"},
    };
    TempDir dir;
    {
        std::ofstream input(dir / "records");
        for (const auto& [record, expected] : cases) input << Hex(record) << "\n";
    }
    std::string out;
    ASSERT_EQ(RunProgram({"/bin/sh", "-c", "python3 " + kPython + "/tests/decode_records.py < " + (dir / "records") + " 2>&1"},
                         {}, &out),
              0)
            << out;
    std::istringstream lines(out);
    for (const auto& [record, expected] : cases) {
        std::string line;
        std::getline(lines, line);
        EXPECT_EQ(line, expected);
    }
}

TEST(PythonClientTest, SubscribesAndAsksForAReportOfTheRealDaemon) {
    std::string reason;
    KOVA_REQUIRE(HaveBpf(&reason), reason);
    DaemonOnObjects daemon;
    ASSERT_TRUE(daemon.Start(&reason)) << reason;
    TempDir dir;
    ChildProcess client({"/usr/bin/python3", kPython + "/tests/live_check.py", "kova-py-birth"},
                        {"KOVA_SOCKET_NAME=" + daemon.socketName()}, dir / "err", dir / "out");
    ASSERT_TRUE(WaitUntil([&] { return ReadFile(dir / "out").find("subscribed\n") != std::string::npos; }, 20s))
            << ReadFile(dir / "err");
    pid_t child = -1;
    std::thread([&] {
        prctl(PR_SET_NAME, "kova-py-birth");  // a birth carries the name of the thread that forked it
        child = fork();
        if (child == 0) _exit(0);
    }).join();
    waitpid(child, nullptr, 0);
    const int status = client.WaitForExit(30s);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << ReadFile(dir / "err");
    const std::string out = ReadFile(dir / "out");
    EXPECT_NE(out.find("created " + std::to_string(child) + " " + std::to_string(getpid()) + "\n"), std::string::npos)
            << out;
    EXPECT_NE(out.find("report requested\n"), std::string::npos) << out;
}

}  // namespace
}  // namespace kova::test
