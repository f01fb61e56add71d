// kovabpfd on ring buffers of the test's own: a client receives what the kernel writes into either
// ring, and signal 51 dumps the task table that the daemon seeded from the real /proc.

#include <gtest/gtest.h>
#include <signal.h>
#include <string.h>
#include <sys/wait.h>

#include "kova_bpf_records.h"
#include "kova_ipc_test_util.h"
#include "kova_daemon_fixture.h"
#include "kova_test_client.h"
#include "service/kova_bpf_client_events.h"

namespace kova::test {
namespace {

using namespace Kova::Bpf;
using namespace std::chrono_literals;

class DaemonRingsTest : public ::testing::Test {
  protected:
    void SetUp() override {
        std::string reason;
        KOVA_REQUIRE(HaveBpf(&reason), reason);
        // The real /proc: the start-up scan seeds the table that signal 51 dumps.
        daemon_ = std::make_unique<DaemonUnderTest>(/*realProc=*/true);
        ASSERT_TRUE(daemon_->ok());
        ASSERT_TRUE(daemon_->Start()) << daemon_->Stderr();
    }
    void TearDown() override {
        if (daemon_ && daemon_->running()) {
            EXPECT_TRUE(daemon_->Stop()) << daemon_->Stderr();
        }
    }

    std::unique_ptr<DaemonUnderTest> daemon_;
};

TEST_F(DaemonRingsTest, ClientReceivesRecordsFromBothRingBuffers) {
    TestClient client(daemon_->socketName());
    ASSERT_EQ(client.Subscribe(KOVA_RAW_FD_UPDATE), 0);
    ASSERT_EQ(client.Subscribe(KOVA_RAW_CGROUP_ATTACH), 0);
    const std::string fromNormal = EventRecord(KOVA_RAW_FD_UPDATE, 56, 1);
    const std::string fromGpl = EventRecord(KOVA_RAW_CGROUP_ATTACH, 184, 2);
    ASSERT_TRUE(daemon_->Inject(PinnedRings::kNormalRing, fromNormal));
    EXPECT_EQ(client.NextEvent(), fromNormal);
    ASSERT_TRUE(daemon_->Inject(PinnedRings::kGplRing, fromGpl));
    EXPECT_EQ(client.NextEvent(), fromGpl);
}

TEST_F(DaemonRingsTest, TaskRecordsBecomeClientEvents) {
    TestClient client(daemon_->socketName());
    for (const int32_t id : {EVENT_TASK_CREATE, EVENT_TASK_EXIT}) ASSERT_EQ(client.Subscribe(id), 0);
    kova_task_create_record fork{};
    fork.type = KOVA_RAW_TASK_CREATE;
    fork.ppid = 1;
    fork.pid = 999999;  // above any real pid, so the seeded table cannot know it
    fork.uid = 2000;
    strcpy(fork.comm, "injected");
    fork.kind = KOVA_TASK_KIND_PROCESS;
    ASSERT_TRUE(daemon_->Inject(PinnedRings::kNormalRing, std::string(reinterpret_cast<char*>(&fork), sizeof(fork))));
    std::optional<std::string> created = client.NextEvent();
    ASSERT_TRUE(created && created->size() == sizeof(KovaTaskCreateEvent));
    KovaTaskCreateEvent event;
    memcpy(&event, created->data(), sizeof(event));
    EXPECT_EQ(event.pid, 999999);
    EXPECT_EQ(event.uid, 2000u);
    EXPECT_STREQ(event.comm, "injected");
}

TEST_F(DaemonRingsTest, Signal51DumpsTheTableSeededFromTheRealProc) {
    ASSERT_EQ(kill(daemon_->pid(), 51), 0);
    std::string dump;
    ASSERT_TRUE(WaitUntil(
            [&] { return (dump = ReadFile(daemon_->diagDir() + "/DUMPTASK_INFO")).find("initTimeStamp") != std::string::npos; },
            5s));
    // A task line starts with the comm padded to 16 characters, three blanks and the pid.
    const auto line = [](std::string comm, int pid) {
        if (!comm.empty() && comm.back() == '\n') comm.pop_back();
        comm.resize(16, ' ');
        return "\n" + comm + "   " + std::to_string(pid) + " ";
    };
    EXPECT_NE(dump.find(line("kovabpfd", daemon_->pid())), std::string::npos) << dump.substr(0, 2000);
    EXPECT_NE(dump.find(line(ReadFile("/proc/1/comm"), 1)), std::string::npos) << dump.substr(0, 2000);
}

}  // namespace
}  // namespace kova::test
