// memory_seeding_bench: the start-up seeding of the fd and dmabuf maps, per process, beside `ls -l` of
// the same fd directories in the same run. Over the real /proc, then over a generated tree of 5,000
// processes with 200 descriptors each (10 of them dmabufs, with fdinfo files, and a maps file that maps
// two of them). The maps are the real objects', pinned by the loader into a directory of the bench's
// own. Needs root and BPF.
//
//   build/bin/memory_seeding_bench [--processes N] [--fds N] [--rounds N]

#include <dirent.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include "kova_kernel_objects.h"
#include "service/kova_bpf_service.h"

namespace {

using namespace kova::test;
using Kova::Bpf::KovaBpfService;
using Clock = std::chrono::steady_clock;

constexpr int kDmabufsPerProcess = 10;

double MedianSeconds(int rounds, const std::function<void()>& body) {
    std::vector<double> seconds;
    for (int i = 0; i < rounds; ++i) {
        const auto start = Clock::now();
        body();
        seconds.push_back(std::chrono::duration<double>(Clock::now() - start).count());
    }
    std::sort(seconds.begin(), seconds.end());
    return seconds[seconds.size() / 2];
}

std::vector<std::string> ProcessDirs(const std::string& proc) {
    std::vector<std::string> dirs;
    DIR* dir = opendir(proc.c_str());
    while (dirent* entry = dir ? readdir(dir) : nullptr) {
        if (isdigit(static_cast<unsigned char>(entry->d_name[0]))) dirs.push_back(entry->d_name);
    }
    if (dir) closedir(dir);
    return dirs;
}

// `ls -l` of every process's fd directory, in one invocation as an operator would list them.
void ListFds(const std::string& proc, const std::vector<std::string>& pids) {
    std::vector<std::string> argv = {"/bin/ls", "-l", "--color=never"};
    for (const std::string& pid : pids) argv.push_back(proc + "/" + pid + "/fd");
    std::string output;
    RunProgram(argv, {"LC_ALL=C"}, &output);
}

void Generate(const std::string& root, int processes, int fds) {
    for (int p = 0; p < processes; ++p) {
        const std::string dir = root + "/" + std::to_string(100000 + p);
        WriteFile(dir + "/status", "Name:\tworker-" + std::to_string(p) + "\nUmask:\t0022\nState:\tS (sleeping)\n");
        std::string maps = "5555000000-5555001000 r-xp 00000000 08:01 4242 /usr/bin/worker\n";
        WriteFile(dir + "/fdinfo/.keep", "");
        for (int fd = 0; fd < fds; ++fd) {
            const std::string link = dir + "/fd/" + std::to_string(fd);
            const bool dmabuf = fd >= fds - kDmabufsPerProcess;
            const uint64_t inode = 1000000ull + static_cast<uint64_t>(p) * kDmabufsPerProcess + fd;
            const std::string target = dmabuf ? "/dmabuf:system" : "socket:[" + std::to_string(inode) + "]";
            if (fd == 0) mkdir((dir + "/fd").c_str(), 0755);
            if (symlink(target.c_str(), link.c_str()) != 0) {
                perror(link.c_str());
                exit(1);
            }
            if (!dmabuf) continue;
            WriteFile(dir + "/fdinfo/" + std::to_string(fd), "pos:\t0\nflags:\t02000002\nmnt_id:\t15\nino:\t" +
                                                                 std::to_string(inode) + "\nsize:\t1048576\ncount:\t1\n");
            if (fd >= fds - 2) {
                maps += "7f00000" + std::to_string(fd) + "0000-7f00000" + std::to_string(fd) +
                        "1000 rw-s 00000000 00:0f " + std::to_string(inode) + " /dmabuf:\n";
            }
        }
        WriteFile(dir + "/maps", maps);
    }
}

void Measure(const char* label, const std::string& proc, int rounds) {
    const std::vector<std::string> pids = ProcessDirs(proc);
    ScopedRoot procRoot(Kova::Bpf::KOVA_PROC_DIR, proc);
    KovaBpfService* service = KovaBpfService::GetInstance();
    const double ls = MedianSeconds(rounds, [&] { ListFds(proc, pids); });
    const double fd = MedianSeconds(rounds, [] { KovaBpfService::initFdBpfProg(); });
    const double dmabuf = MedianSeconds(rounds, [&] { service->initDmabufBpfProg(); });
    const double n = static_cast<double>(pids.size());
    printf("%-26s %6zu processes  ls -l %7.1f us/process | initFdBpfProg %7.1f us (%.2fx) | initDmabufBpfProg "
           "%7.1f us (%.2fx) | both %.2fx\n",
           label, pids.size(), ls / n * 1e6, fd / n * 1e6, fd / ls, dmabuf / n * 1e6, dmabuf / ls, (fd + dmabuf) / ls);
}

}  // namespace

int main(int argc, char** argv) {
    int processes = 5000, fds = 200, rounds = 5;
    for (int i = 1; i + 1 < argc; i += 2) {
        const int value = atoi(argv[i + 1]);
        if (strcmp(argv[i], "--processes") == 0) processes = value;
        if (strcmp(argv[i], "--fds") == 0) fds = value;
        if (strcmp(argv[i], "--rounds") == 0) rounds = value;
    }
    std::string reason;
    if (!HaveBpf(&reason)) {
        fprintf(stderr, "memory_seeding_bench: %s\n", reason.c_str());
        return 1;
    }
    PinnedObjects objects;
    if (!objects.ok()) {
        fprintf(stderr, "memory_seeding_bench: %s\n", objects.message().c_str());
        return 1;
    }
    ScopedRoot pins(Kova::Bpf::KOVA_PIN_DIR, objects.pins().path());
    // The seeding logs each process it cannot follow; a bench run only wants the figures.
    freopen("/dev/null", "w", stderr);

    Measure("real /proc", "/proc", rounds);
    TempDir tree;
    const auto start = Clock::now();
    Generate(tree.path(), processes, fds);
    printf("(generated %d processes x %d descriptors in %.1f s)\n", processes, fds,
           std::chrono::duration<double>(Clock::now() - start).count());
    Measure("generated tree", tree.path(), rounds);
    return 0;
}
