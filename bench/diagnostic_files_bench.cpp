// Diagnostics files: what replacing a file whole costs beside writing it in place, and what an fsync
// per write would add (the reason WriteFileAtomically does not sync).
//
//   - BM_WriteInPlace/bytes:N: open with O_TRUNC, write, close, as the files were written before: the
//     baseline.
//   - BM_WriteFileAtomically/bytes:N/synced:S: the service's writer; with S = 1 the new file is also
//     fsync'ed before the next write, which is what syncing inside the writer would cost.
//   - BM_ErrorLogEntry: one RecordBpfServiceErrorInfo() on an error log at its full 5,000 lines, the
//     real cost of an entry (read, rebuild, replace).
//
// N: 4 KiB (a task dump of a few dozen tasks), 128 KiB (the counters CSV at 1,800 seconds), 320 KiB
// (an error log at 5,000 lines). Files go to KOVA_BENCH_DIR, or /tmp: put it on the disk whose cost
// you want. Run: build/bin/diagnostic_files_bench --benchmark_repetitions=5
//   --benchmark_report_aggregates_only=true

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include <filesystem>
#include <string>

#include "utils/kova_bpf_error_log.h"
#include "utils/kova_bpf_file_writer.h"
#include "utils/kova_bpf_paths.h"

namespace kova::bench {
namespace {

// A directory of the run's own, removed at exit.
class BenchDir {
  public:
    BenchDir() {
        const char* base = getenv("KOVA_BENCH_DIR");
        std::string pattern = std::string(base != nullptr && *base != '\0' ? base : "/tmp") + "/kova-bench-XXXXXX";
        if (mkdtemp(pattern.data()) == nullptr) abort();
        path_ = pattern;
    }
    ~BenchDir() { std::filesystem::remove_all(path_); }
    std::string operator/(const std::string& name) const { return path_ + "/" + name; }
    const std::string& path() const { return path_; }

  private:
    std::string path_;
};

const BenchDir& Dir() {
    static const BenchDir dir;
    return dir;
}

std::string Content(size_t bytes) {
    std::string line = "0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, \r\n";
    std::string content;
    while (content.size() < bytes) content += line;
    content.resize(bytes);
    return content;
}

void BM_WriteInPlace(benchmark::State& state) {
    const std::string content = Content(static_cast<size_t>(state.range(0)));
    const std::string path = Dir() / "in_place";
    for (auto _ : state) {
        const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
        if (fd < 0 || write(fd, content.data(), content.size()) != static_cast<ssize_t>(content.size())) {
            state.SkipWithError("cannot write");
        }
        close(fd);
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * state.range(0));
}
BENCHMARK(BM_WriteInPlace)->ArgName("bytes")->Arg(4 << 10)->Arg(128 << 10)->Arg(320 << 10);

void BM_WriteFileAtomically(benchmark::State& state) {
    const std::string content = Content(static_cast<size_t>(state.range(0)));
    const std::string path = Dir() / "atomic";
    for (auto _ : state) {
        if (!Kova::Bpf::WriteFileAtomically(path, content)) state.SkipWithError("cannot write");
        if (state.range(1) != 0) {
            const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
            fsync(fd);
            close(fd);
        }
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * state.range(0));
}
BENCHMARK(BM_WriteFileAtomically)
        ->ArgNames({"bytes", "synced"})
        ->ArgsProduct({{4 << 10, 128 << 10, 320 << 10}, {0, 1}});

void BM_ErrorLogEntry(benchmark::State& state) {
    Kova::Bpf::RedirectKovaRoot(Kova::Bpf::KOVA_DIAGNOSTICS_DIR, Dir() / "diag");
    for (int i = 0; i < 700; ++i) Kova::Bpf::RecordBpfServiceErrorInfo(1, "filling the log to its 5,000 lines");
    for (auto _ : state) Kova::Bpf::RecordBpfServiceErrorInfo(2, "an entry of a full log");
}
BENCHMARK(BM_ErrorLogEntry)->Unit(benchmark::kMicrosecond);

}  // namespace
}  // namespace kova::bench

BENCHMARK_MAIN();
