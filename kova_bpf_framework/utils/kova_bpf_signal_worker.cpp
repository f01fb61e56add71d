#include "utils/kova_bpf_signal_worker.h"

#include <errno.h>
#include <signal.h>
#include <stdint.h>
#include <sys/eventfd.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <atomic>
#include <mutex>
#include <thread>

namespace Kova::Bpf {
namespace {

constexpr int kMaxSignal = 64;

std::atomic<SignalWork> gWork[kMaxSignal + 1];
std::atomic<uint64_t> gPending{0};  // bit n - 1 set: signal n arrived and its work has not run yet
std::atomic<int> gWakeFd{-1};
std::mutex gStartLock;

// Async-signal-safe: a lock-free atomic OR and one write(2).
void DeferringHandler(int signo) {
    const int saved_errno = errno;
    gPending.fetch_or(uint64_t{1} << (signo - 1), std::memory_order_release);
    const uint64_t one = 1;
    const int fd = gWakeFd.load(std::memory_order_acquire);
    if (fd >= 0) (void)!write(fd, &one, sizeof(one));
    errno = saved_errno;
}

void WorkerLoop(int wakeFd) {
    prctl(PR_SET_NAME, "KovaSignalWork");
    // The worker never takes the signals itself, so its own work is never interrupted by them.
    sigset_t all;
    sigfillset(&all);
    pthread_sigmask(SIG_BLOCK, &all, nullptr);
    while (true) {
        uint64_t count = 0;
        if (read(wakeFd, &count, sizeof(count)) < 0 && errno == EINTR) continue;
        uint64_t pending = gPending.exchange(0, std::memory_order_acquire);
        while (pending != 0) {
            const int signo = __builtin_ctzll(pending) + 1;
            pending &= pending - 1;
            if (const SignalWork work = gWork[signo].load(std::memory_order_acquire)) work(signo);
        }
    }
}

bool StartWorkerOnce() {
    std::lock_guard<std::mutex> lock(gStartLock);
    if (gWakeFd.load(std::memory_order_acquire) >= 0) return true;
    const int fd = eventfd(0, EFD_CLOEXEC);  // blocking: the worker sleeps in read()
    if (fd < 0) return false;
    std::thread(WorkerLoop, fd).detach();  // lives as long as the process, like the singletons it serves
    gWakeFd.store(fd, std::memory_order_release);
    return true;
}

}  // namespace

bool InstallDeferredSignalHandler(int signo, SignalWork work) {
    if (signo < 1 || signo > kMaxSignal) {
        errno = EINVAL;
        return false;
    }
    if (!StartWorkerOnce()) return false;
    gWork[signo].store(work, std::memory_order_release);
    struct sigaction action {};
    action.sa_handler = DeferringHandler;
    action.sa_flags = SA_RESTART;
    sigemptyset(&action.sa_mask);
    return sigaction(signo, &action, nullptr) == 0;
}

}  // namespace Kova::Bpf
