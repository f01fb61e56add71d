// kovabpfd: hosts libkovabpfservice. Calls the service's entry and keeps the process alive in Wait()
// until SIGTERM or SIGINT, which stop the service from a normal thread.

#define LOG_TAG "kovabpfd"

#include <log/log.h>
#include <signal.h>
#include <string.h>
#include <unistd.h>

#include <thread>

#include "service/kova_bpf_service.h"

using Kova::Bpf::KovaBpfService;

int main() {
    // Blocked here, before any thread exists, so every thread inherits the mask and only the stopper
    // below ever takes these signals.
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGTERM);
    sigaddset(&stopSignals, SIGINT);
    pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);

    if (!Kova::Bpf::BpfServiceMain()) return 0;
    KovaBpfService* service = KovaBpfService::GetInstance();

    std::thread([service, stopSignals] {
        int signo = 0;
        while (sigwait(&stopSignals, &signo) != 0) {
        }
        ALOGI("[kovabpfd] %s received, stopping the service", strsignal(signo));
        service->stop();
    }).detach();

    // The event producer fills producer slots 1 and 2 itself once the loader is ready; supervising
    // before that would fill them first and end the process.
    while (service->running() && !service->hasLaunchedProducers()) usleep(100 * 1000);
    service->Wait();
    ALOGI("[kovabpfd] service stopped");
    return 0;
}
