// A client of the Kova BPF service, built outside the service's tree against the installed library:
// prints each process born while it runs.
//
//   kova-example [NAME]    with NAME, ends after the first process of that name (status 0), or after
//                          20 seconds without one (status 2); status 1 when the service cannot be reached
//
// Build it with CMake (find_package(KovaBpfClient), this directory's CMakeLists.txt) or with pkg-config:
//   g++ main.cpp $(pkg-config --cflags --libs kovabpfclient) -o kova-example

#include <stdio.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>

#include <kova/bpf_client.h>

int main(int argc, char** argv) {
    const std::string wanted = argc > 1 ? argv[1] : "";
    std::mutex mutex;
    std::condition_variable seen;
    bool found = false;

    Kova::Client::KovaBpfClient client;  // the socket: KOVA_SOCKET_NAME, or the system's
    client.subscribe(Kova::Client::kTaskCreated, [&](const Kova::Client::ClientEvent& event) {
        const auto created = Kova::Client::DecodeTaskCreated(event.record);
        if (!created) return;
        printf("created %d (parent %d, uid %u): %s\n", created->pid, created->ppid, created->uid, created->comm.c_str());
        fflush(stdout);
        if (!wanted.empty() && created->comm == wanted) {
            std::lock_guard<std::mutex> lock(mutex);
            found = true;
            seen.notify_all();
        }
    });
    client.start();
    if (!client.waitUntilSubscribed(std::chrono::seconds(10))) {
        fprintf(stderr, "kova-example: the service cannot be reached\n");
        return 1;
    }
    puts("subscribed");
    fflush(stdout);
    std::unique_lock<std::mutex> lock(mutex);
    if (wanted.empty()) {
        seen.wait(lock, [] { return false; });
    }
    return seen.wait_for(lock, std::chrono::seconds(20), [&] { return found; }) ? 0 : 2;
}
