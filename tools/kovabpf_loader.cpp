// kovabpf-loader: the host's stand-in for the platform's BPF loader.
//
// Loads the kernel-side objects with libbpf and pins every program and map under the pin directory
// ("/sys/fs/bpf/kova/", moved by KOVA_PIN_DIR), with the names the service looks for:
//   prog_<object>_<kind>_<program>   kind from the program's section: tracepoint, kprobe, kretprobe
//   map_<object>_<map>
// Then it sets "ro.kernel.version" to the running kernel's major.minor and, last, "sys.kova_bpf_ready"
// to "1". It never attaches anything: the service does.
//
// Readiness is cleared before anything else and set only after every object is pinned, so a failed
// run never leaves it at "1". Pins of these objects left by an earlier run are removed first, so the
// directory afterwards holds exactly what these objects define. When pinning fails half-way, the pins
// made by this run are removed again.

#include <android-base/properties.h>
#include <android-base/unique_fd.h>
#include <bpf/bpf.h>
#include <bpf/libbpf.h>
#include <dirent.h>
#include <errno.h>
#include <getopt.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <sys/utsname.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <memory>
#include <string>
#include <vector>

#include "kova_bpf_records.h"
#include "service/kova_bpf_service.h"
#include "utils/kova_bpf_common.h"
#include "utils/kova_bpf_paths.h"

namespace {

using Kova::Bpf::KovaPath;
using Kova::Bpf::StringPrintf;

constexpr char kReadyProperty[] = "sys.kova_bpf_ready";
constexpr char kKernelVersionProperty[] = "ro.kernel.version";
constexpr const char* kObjectNames[] = {"KovaBpfDefineset", "KovaBpfGplDefineset", "KovaBpfTimeInState"};
constexpr char kTimeInState[] = "KovaBpfTimeInState";
constexpr long kBpfFsMagic = 0xcafe4a11;

// The maps the service reads or writes, with the layout kova_bpf_records.h gives them. An object built
// from another version of that header is refused here rather than misread later.
struct ExpectedMap {
    const char* object;  // nullptr: every object with a ring buffer
    const char* name;
    bpf_map_type type;
    unsigned keySize;
    unsigned valueSize;
};
constexpr ExpectedMap kExpectedMaps[] = {
    {nullptr, "ringbuf_map", BPF_MAP_TYPE_RINGBUF, 0, 0},
    {nullptr, "ringbuf_status", BPF_MAP_TYPE_ARRAY, sizeof(__u32), sizeof(__u64)},
    {"KovaBpfDefineset", "open_fd_caller_map", BPF_MAP_TYPE_HASH, sizeof(__u32), sizeof(kova_open_fd_caller)},
    {"KovaBpfGplDefineset", "dmabuf_allocate_map", BPF_MAP_TYPE_HASH, sizeof(__u32), sizeof(kova_dmabuf_stat)},
    {"KovaBpfGplDefineset", "dmabuf_size_map", BPF_MAP_TYPE_HASH, sizeof(__u32), sizeof(kova_dmabuf_stat)},
    {"KovaBpfGplDefineset", "dmabuf_perprocess_size_map", BPF_MAP_TYPE_HASH, sizeof(__u32), sizeof(kova_dmabuf_stat)},
    {"KovaBpfGplDefineset", "process_inode_map", BPF_MAP_TYPE_HASH, sizeof(__u32), sizeof(kova_dmabuf_inode_set)},
    {"KovaBpfGplDefineset", "process_mmap_infos", BPF_MAP_TYPE_HASH, sizeof(__u32), sizeof(kova_dmabuf_inode_set)},
    {kTimeInState, "total_time_in_state_map", BPF_MAP_TYPE_PERCPU_ARRAY, sizeof(__u32), sizeof(__u64)},
    {kTimeInState, "tgid_delta_time_map", BPF_MAP_TYPE_HASH, sizeof(__u32), sizeof(__u64)},
    {kTimeInState, "tgid_freq_delta_time_map", BPF_MAP_TYPE_PERCPU_HASH, sizeof(__u32), sizeof(kova_tis_freq_times)},
    {kTimeInState, "pid_delta_time_map", BPF_MAP_TYPE_HASH, sizeof(kova_tis_pid_key), sizeof(kova_tis_pid_time)},
    {kTimeInState, "pid_freq_delta_time_map", BPF_MAP_TYPE_PERCPU_HASH, sizeof(kova_tis_pid_key),
     sizeof(kova_tis_freq_times)},
    {kTimeInState, "pid_last_update_map", BPF_MAP_TYPE_HASH, sizeof(kova_tis_pid_key), sizeof(__u64)},
    {kTimeInState, "cpu_policy_map", BPF_MAP_TYPE_HASH, sizeof(__u32), sizeof(__u32)},
    {kTimeInState, "freq_to_idx_map", BPF_MAP_TYPE_HASH, sizeof(kova_tis_freq_key), sizeof(__u32)},
    {kTimeInState, "cpu_last_update_map", BPF_MAP_TYPE_PERCPU_ARRAY, sizeof(__u32), sizeof(__u64)},
    {kTimeInState, "policy_freq_idx_map", BPF_MAP_TYPE_ARRAY, sizeof(__u32), sizeof(__u32)},
    {kTimeInState, "time_in_state_lost_map", BPF_MAP_TYPE_ARRAY, sizeof(__u32), sizeof(__u64)},
};

// Exit statuses, as documented in --help.
enum ExitStatus {
    kOk = 0,
    kUsage = 1,
    kPropertyFailed = 2,
    kPinDirFailed = 3,
    kObjectMissing = 4,
    kLoadFailed = 5,
    kPinFailed = 6,
    kSeedFailed = 7,
};

void Fail(const char* format, ...) __attribute__((__format__(printf, 1, 2)));
void Fail(const char* format, ...) {
    va_list args;
    va_start(args, format);
    fputs("kovabpf-loader: error: ", stderr);
    vfprintf(stderr, format, args);
    fputc('\n', stderr);
    va_end(args);
}

// libbpf's own warnings (verifier logs among them) go to stderr; its debug chatter does not.
int PrintLibbpf(enum libbpf_print_level level, const char* format, va_list args) {
    if (level == LIBBPF_DEBUG) return 0;
    fputs("kovabpf-loader: ", stderr);  // libbpf starts its own messages with "libbpf: "
    return vfprintf(stderr, format, args);
}

// The objects installed beside this program (KOVA_INSTALLED_OBJECT_DIR from its directory) when there
// are any there, else those of the build tree it was built in.
std::string DefaultObjectDir() {
    char self[4096];
    const ssize_t length = readlink("/proc/self/exe", self, sizeof(self) - 1);
    if (length > 0) {
        const std::string program(self, static_cast<size_t>(length));
        const std::string installed = program.substr(0, program.rfind('/') + 1) + KOVA_INSTALLED_OBJECT_DIR;
        if (access((installed + "/KovaBpfDefineset.o").c_str(), R_OK) == 0) return installed;
    }
    return KOVA_BPF_OBJECT_DIR;
}

void PrintUsage(FILE* out) {
    fprintf(out,
            "usage: kovabpf-loader [--objects DIR]\n"
            "       kovabpf-loader --seed-fd-counts\n"
            "\n"
            "Loads the BPF objects KovaBpfDefineset.o, KovaBpfGplDefineset.o and KovaBpfTimeInState.o and\n"
            "pins their programs as prog_<object>_<kind>_<program> and their maps as map_<object>_<map>\n"
            "under the pin directory (/sys/fs/bpf/kova/, or $KOVA_PIN_DIR). Then sets ro.kernel.version\n"
            "to the running kernel's major.minor and sys.kova_bpf_ready to 1. Programs are not attached.\n"
            "\n"
            "  --objects DIR     where the object files are (default: %s)\n"
            "  --seed-fd-counts  load nothing: write every process's open-descriptor count and name into\n"
            "                    the pinned map_KovaBpfDefineset_open_fd_caller_map, from /proc. The service\n"
            "                    does not do this itself and the fd program only sees changes, so run it\n"
            "                    once the service runs; exit status 7 when the map cannot be opened\n"
            "  --help            this text\n"
            "\n"
            "Exit status: 0 loaded and ready; 1 bad usage; 2 a property could not be set; 3 the pin\n"
            "directory is unusable; 4 an object file is missing or unreadable; 5 the kernel refused an\n"
            "object; 6 pinning failed. On any failure sys.kova_bpf_ready is left at 0.\n",
            DefaultObjectDir().c_str());
}

// "tracepoint", "kprobe" or "kretprobe" from a program's section ("kprobe/fd_install"); "" otherwise.
std::string KindOf(const bpf_program* program) {
    const std::string section = bpf_program__section_name(program);
    const std::string kind = section.substr(0, section.find('/'));
    if (kind == "tracepoint" || kind == "kprobe" || kind == "kretprobe") return kind;
    return "";
}

// "6.18" from a release such as "6.18.44-fc-v669"; "" when it does not start with two numbers.
std::string MajorMinor(const char* release) {
    unsigned major = 0, minor = 0;
    if (sscanf(release, "%u.%u", &major, &minor) != 2) return "";
    return StringPrintf("%u.%u", major, minor);
}

struct ObjectCloser {
    void operator()(bpf_object* object) const { bpf_object__close(object); }
};
using ObjectPtr = std::unique_ptr<bpf_object, ObjectCloser>;

class Loader {
  public:
    Loader(std::string objectDir, std::string pinDir) : objectDir_(std::move(objectDir)), pinDir_(std::move(pinDir)) {}
    ~Loader() {
        if (!committed_) Unpin();
    }

    int Run() {
        if (!android::base::SetProperty(kReadyProperty, "0")) {
            Fail("cannot clear %s: %s", kReadyProperty, strerror(errno));
            return kPropertyFailed;
        }
        if (int status = PreparePinDir(); status != kOk) return status;
        for (const char* name : kObjectNames) {
            if (int status = Open(name); status != kOk) return status;
        }
        for (const Object& object : objects_) {
            if (bpf_object__load(object.object.get()) != 0) {
                const int error = errno;
                Fail("the kernel refused object %s: %s (libbpf's messages above tell why)", object.name.c_str(),
                     strerror(error));
                return kLoadFailed;
            }
        }
        for (const char* name : kObjectNames) RemoveStalePins(name);
        for (const Object& object : objects_) {
            if (int status = Pin(object); status != kOk) return status;
        }
        return Announce();
    }

  private:
    // An object's name is its file name without ".o" (libbpf keeps only 15 characters of it).
    struct Object {
        std::string name;
        ObjectPtr object;
    };

    int PreparePinDir() {
        if (!Kova::Bpf::MakeDirectories(pinDir_, 0755)) {
            Fail("cannot create pin directory %s: %s", pinDir_.c_str(), strerror(errno));
            return kPinDirFailed;
        }
        struct statfs fs {};
        if (statfs(pinDir_.c_str(), &fs) != 0) {
            Fail("cannot inspect pin directory %s: %s", pinDir_.c_str(), strerror(errno));
            return kPinDirFailed;
        }
        if (fs.f_type != kBpfFsMagic) {
            Fail("pin directory %s is not on a BPF file system (mount one with: mount -t bpf bpf /sys/fs/bpf)",
                 pinDir_.c_str());
            return kPinDirFailed;
        }
        return kOk;
    }

    int Open(const char* name) {
        const std::string path = objectDir_ + "/" + name + ".o";
        if (access(path.c_str(), R_OK) != 0) {
            Fail("object file %s: %s", path.c_str(), strerror(errno));
            return kObjectMissing;
        }
        ObjectPtr object(bpf_object__open_file(path.c_str(), nullptr));
        if (!object) {
            Fail("cannot open object file %s: %s", path.c_str(), strerror(errno));
            return kObjectMissing;
        }
        bpf_program* program;
        bpf_object__for_each_program(program, object.get()) {
            if (KindOf(program).empty()) {
                Fail("program %s of %s has section \"%s\"; expected tracepoint/, kprobe/ or kretprobe/",
                     bpf_program__name(program), path.c_str(), bpf_program__section_name(program));
                return kObjectMissing;
            }
        }
        if (!HasExpectedMaps(name, path, object.get())) return kObjectMissing;
        objects_.push_back({name, std::move(object)});
        return kOk;
    }

    bool HasExpectedMaps(const char* name, const std::string& path, bpf_object* object) {
        for (const ExpectedMap& expected : kExpectedMaps) {
            if (expected.object == nullptr ? strcmp(name, kTimeInState) == 0 : strcmp(expected.object, name) != 0) {
                continue;
            }
            const bpf_map* map = bpf_object__find_map_by_name(object, expected.name);
            if (map == nullptr) {
                Fail("object file %s has no map %s", path.c_str(), expected.name);
                return false;
            }
            const bool ringBuffer = expected.type == BPF_MAP_TYPE_RINGBUF;
            if (bpf_map__type(map) != expected.type ||
                (!ringBuffer && (bpf_map__key_size(map) != expected.keySize ||
                                 bpf_map__value_size(map) != expected.valueSize))) {
                Fail("map %s of %s has type %d, key size %u and value size %u; expected type %d, key size %u "
                     "and value size %u",
                     expected.name, path.c_str(), bpf_map__type(map), bpf_map__key_size(map),
                     bpf_map__value_size(map), expected.type, expected.keySize, expected.valueSize);
                return false;
            }
        }
        return true;
    }

    // Removes every prog_<name>_* and map_<name>_* left in the pin directory by an earlier run.
    void RemoveStalePins(const std::string& name) {
        std::unique_ptr<DIR, int (*)(DIR*)> dir(opendir(pinDir_.c_str()), closedir);
        if (!dir) return;
        const std::string progPrefix = "prog_" + name + "_";
        const std::string mapPrefix = "map_" + name + "_";
        while (dirent* entry = readdir(dir.get())) {
            const std::string file = entry->d_name;
            if (file.starts_with(progPrefix) || file.starts_with(mapPrefix)) {
                const std::string path = pinDir_ + "/" + file;
                if (unlink(path.c_str()) != 0 && errno != ENOENT) {
                    fprintf(stderr, "kovabpf-loader: warning: cannot remove stale pin %s: %s\n", path.c_str(),
                            strerror(errno));
                }
            }
        }
    }

    bool PinOne(int fd, const std::string& file) {
        const std::string path = pinDir_ + "/" + file;
        unlink(path.c_str());  // whatever survived RemoveStalePins is replaced too
        if (bpf_obj_pin(fd, path.c_str()) != 0) {
            Fail("cannot pin %s: %s", path.c_str(), strerror(errno));
            return false;
        }
        pinned_.push_back(path);
        return true;
    }

    int Pin(const Object& loaded) {
        const std::string& name = loaded.name;
        bpf_object* object = loaded.object.get();
        bpf_map* map;
        bpf_object__for_each_map(map, object) {
            // Internal maps (.rodata, .bss) have no name of their own; they live as long as their programs.
            if (bpf_map__is_internal(map)) continue;
            if (!PinOne(bpf_map__fd(map), "map_" + name + "_" + bpf_map__name(map))) return kPinFailed;
            ++mapCount_;
        }
        bpf_program* program;
        bpf_object__for_each_program(program, object) {
            const std::string file = "prog_" + name + "_" + KindOf(program) + "_" + bpf_program__name(program);
            if (!PinOne(bpf_program__fd(program), file)) return kPinFailed;
            ++programCount_;
        }
        return kOk;
    }

    int Announce() {
        utsname host {};
        uname(&host);
        const std::string version = MajorMinor(host.release);
        if (version.empty()) {
            Fail("cannot read the kernel version from release \"%s\"", host.release);
            return kPropertyFailed;
        }
        if (!android::base::SetProperty(kKernelVersionProperty, version)) {
            Fail("cannot set %s to %s: %s", kKernelVersionProperty, version.c_str(), strerror(errno));
            return kPropertyFailed;
        }
        if (!android::base::SetProperty(kReadyProperty, "1")) {
            Fail("cannot set %s to 1: %s", kReadyProperty, strerror(errno));
            return kPropertyFailed;
        }
        committed_ = true;
        printf("kovabpf-loader: pinned %d programs and %d maps under %s (kernel %s)\n", programCount_, mapCount_,
               pinDir_.c_str(), version.c_str());
        return kOk;
    }

    void Unpin() {
        for (const std::string& path : pinned_) unlink(path.c_str());
        pinned_.clear();
    }

    const std::string objectDir_;
    const std::string pinDir_;
    std::vector<Object> objects_;
    std::vector<std::string> pinned_;
    int programCount_ = 0;
    int mapCount_ = 0;
    bool committed_ = false;
};

}  // namespace

int main(int argc, char** argv) {
    std::string objectDir = DefaultObjectDir();
    static const option kOptions[] = {
        {"objects", required_argument, nullptr, 'o'},
        {"seed-fd-counts", no_argument, nullptr, 's'},
        {"help", no_argument, nullptr, 'h'},
        {nullptr, 0, nullptr, 0},
    };
    bool seedFdCounts = false;
    int option;
    while ((option = getopt_long(argc, argv, "o:h", kOptions, nullptr)) != -1) {
        switch (option) {
            case 'o':
                objectDir = optarg;
                break;
            case 's':
                seedFdCounts = true;
                break;
            case 'h':
                PrintUsage(stdout);
                return kOk;
            default:
                PrintUsage(stderr);
                return kUsage;
        }
    }
    if (optind != argc) {
        Fail("unexpected argument \"%s\"", argv[optind]);
        PrintUsage(stderr);
        return kUsage;
    }
    if (seedFdCounts) {
        const int written = Kova::Bpf::KovaBpfService::initFdBpfProg();
        if (written < 0) {
            Fail("cannot open the pinned open_fd_caller_map (is the loader's run done?)");
            return kSeedFailed;
        }
        printf("kovabpf-loader: wrote the open descriptors of %d processes\n", written);
        return kOk;
    }
    libbpf_set_print(PrintLibbpf);

    // The path seam keeps the trailing slash of the pin directory; pins are joined with one more.
    std::string pinDir = KovaPath("/sys/fs/bpf/kova/");
    while (pinDir.size() > 1 && pinDir.back() == '/') pinDir.pop_back();
    Loader loader(objectDir, pinDir);
    return loader.Run();
}
