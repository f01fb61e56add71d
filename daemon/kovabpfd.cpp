// kovabpfd: hosts libkovabpfservice. Calls the service's entry and keeps the process alive in Wait()
// until SIGTERM or SIGINT, which stop the service from a normal thread. While it runs, its pid is in
// "/run/kovabpfd.pid" (KOVA_PID_FILE moves it), which is how kovabpfctl finds it to send signals 50
// to 54. It runs at nice -10, as a system daemon on the event path: on a busy machine, each of the
// threads an event passes through would otherwise wait behind ordinary work for a CPU (half the
// fork-to-client latency on two busy cores), while its own CPU use stays a few microseconds per event.

#define LOG_TAG "kovabpfd"

#include <android-base/file.h>
#include <errno.h>
#include <log/log.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/resource.h>
#include <unistd.h>

#include <string>
#include <thread>

#include "service/kova_bpf_service.h"
#include "utils/kova_bpf_file_writer.h"
#include "utils/kova_bpf_paths.h"
#include "utils/kova_bpf_service_manager.h"

using Kova::Bpf::KovaBpfService;

namespace {

constexpr int kNice = -10;

// The pid file of this process: written whole (a reader never sees half a number), removed again on
// a clean exit unless another daemon has taken it over meanwhile.
class PidFile {
  public:
    PidFile() : path_(Kova::Bpf::KovaPath(Kova::Bpf::KOVA_PID_FILE)), content_(std::to_string(getpid()) + "\n") {
        if (!Kova::Bpf::WriteFileAtomically(path_, content_)) {
            // The service works without it; only kovabpfctl's signal commands cannot find the daemon.
            ALOGW("[kovabpfd] cannot write the pid file %s: %s", path_.c_str(), strerror(errno));
            return;
        }
        written_ = true;
    }
    ~PidFile() {
        std::string content;
        if (written_ && android::base::ReadFileToString(path_, &content) && content == content_) unlink(path_.c_str());
    }
    PidFile(const PidFile&) = delete;
    PidFile& operator=(const PidFile&) = delete;

  private:
    const std::string path_;
    const std::string content_;
    bool written_ = false;
};

}  // namespace

int main() {
    // Blocked here, before any thread exists, so every thread inherits the mask and only the stopper
    // below ever takes these signals.
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGTERM);
    sigaddset(&stopSignals, SIGINT);
    pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);
    // Also before any thread exists: threads take their creator's nice value.
    if (setpriority(PRIO_PROCESS, 0, kNice) != 0) {
        ALOGW("[kovabpfd] cannot run at nice %d: %s; events may wait for a CPU behind other work", kNice, strerror(errno));
    }

    if (!Kova::Bpf::BpfServiceMain()) return 0;
    KovaBpfService* service = KovaBpfService::GetInstance();
    const PidFile pidFile;

    std::thread([service, stopSignals] {
        int signo = 0;
        while (sigwait(&stopSignals, &signo) != 0) {
        }
        ALOGI("[kovabpfd] %s received, stopping the service", strsignal(signo));
        Kova::Bpf::NotifyServiceManager("STOPPING=1");
        service->stop();
    }).detach();
    // A service manager that started us with the notify protocol (systemd's Type=notify) learns that we
    // are ready once clients can connect and the task table is complete.
    std::thread([service] {
        while (service->running() && !service->serving()) usleep(20 * 1000);
        if (service->serving() && !Kova::Bpf::NotifyServiceManager("READY=1\nSTATUS=serving clients") && errno != 0) {
            ALOGW("[kovabpfd] cannot tell the service manager that it is ready: %s", strerror(errno));
        }
    }).detach();

    // The event producer fills producer slots 1 and 2 itself once the loader is ready; supervising
    // before that would fill them first and end the process.
    while (service->running() && !service->hasLaunchedProducers()) usleep(100 * 1000);
    service->Wait();
    ALOGI("[kovabpfd] service stopped");
    return 0;
}
