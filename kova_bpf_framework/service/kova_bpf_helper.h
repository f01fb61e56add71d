// Program catalogues and their attachment: which pinned programs go where, under which kernel
// versions, and the functions that retrieve the pins and attach them to tracepoints and kprobes.
//
// The platform's loader pins every program as "<dir>/prog_<group>_<kind>_<name>" and every map as
// "<dir>/map_<group>_<name>"; the service only retrieves and attaches. An attachment lives as long as
// the perf-event descriptor that the attach functions return, and nothing here closes those
// descriptors: the service keeps its programs attached for the life of the process. The program
// descriptors retrieved on the way stay open too, whether the attach worked or not.
//
// Everything here logs under the tag "BpfUtils" and may be called from any thread; the catalogue forms
// are called once per catalogue by the event producers at start-up.
#pragma once

#include <stdint.h>

#include <map>
#include <string>
#include <vector>

#include "utils/kova_bpf_common.h"

namespace Kova::Bpf {

// Where a catalogue row attaches. Values other than these may appear in a catalogue; they are logged
// and left out.
enum ProgramAttachType : int32_t {
    PROGRAM_ATTACH_TRACEPOINT = 0,
    PROGRAM_ATTACH_KPROBE = 1,
    PROGRAM_ATTACH_KRETPROBE = 2,
};

// The kind words of pinned program names.
inline constexpr char KIND_TRACEPOINT[] = "tracepoint";
inline constexpr char KIND_KPROBE[] = "kprobe";
inline constexpr char KIND_KRETPROBE[] = "kretprobe";

// A catalogue row: program name, tracepoint subsystem or kernel function, tracepoint event (empty for
// probes), kernel compatibility condition ("5.0+", "5.4-", "5.4-5.15" or "5.10").
using ProgramRow = std::vector<std::string>;
// Group (the object file's name) -> attach type -> rows, iterated in key order and then row order.
using ProgramCatalogue = std::map<std::string, std::map<ProgramAttachType, std::vector<ProgramRow>>>;

// "major.minor[.more]" as major * 1000 + minor; 5.10.198 gives 5010. Each of the first two pieces is
// read by its leading digits ("10-rc1" counts as 10). Text with fewer than two pieces that begin with
// digits is a fatal error: the catalogues never hold one.
int convertVersionToInt(const std::string& version);

// Whether the running kernel ("ro.kernel.version", "0.0" when unset) meets `condition`: "V+" at
// least V, "V-" at most V, "A-B" from A to B inclusive, "V" exactly major.minor V.
bool CheckBpfCompatibility(const std::string& condition);

// Whether a pinned file name names a program (it begins with "prog_"), as opposed to a map.
bool IsBpfProg(const std::string& name);

// Opens a pinned program read-only with the raw bpf(BPF_OBJ_GET) call: "<dir>/<fileName>", or
// "<dir>/prog_<group>_<kind>_<progName>". Returns the new descriptor, which the caller owns, or -1
// with errno.
int RetrieveProgramFd(const std::string& dir, const std::string& fileName);
int RetrieveProgramFd(const std::string& dir, const std::string& group, const std::string& kind,
                      const std::string& progName);

// The attach functions return BCC's result: a perf-event descriptor that keeps the attachment alive
// (owned by the caller, normally kept open for the life of the process), or -1 with errno. BCC prints
// the real cause of a failure on stderr and may leave errno at EINVAL.
//
// A catalogue row's tracepoint program.
int AttachTracepointProgram(const std::string& dir, const std::string& group, const std::string& progName,
                            const std::string& subSystem, const std::string& eventName);
// The program pinned as "<dir>/<fileName>".
int AttachTracepointProgram(const std::string& dir, const std::string& fileName, const std::string& subSystem,
                            const std::string& eventName);
// A program found by a directory scan: the subsystem and event come from its name, split at the
// first '_' ("sched_sched_switch" attaches to sched/sched_switch).
int AttachTracepointProgram(const std::string& dir, const std::string& group, const std::string& progName);

// A catalogue row's probe: an entry probe ("kprobe" pin) or a return probe ("kretprobe" pin) on
// `functionName`, under the probe event name "<progName>_kovabpf".
int AttachKProbeProgram(const std::string& dir, const std::string& group, const std::string& progName,
                        const std::string& functionName, bool entry);
// A "kprobe" pin found by a directory scan, named "enter_<function>" or "return_<function>".
int AttachKProbeProgram(const std::string& dir, const std::string& group, const std::string& progName);

// Attaches every row of `catalogue` whose condition the kernel meets, pinned under `dir` (passed with
// its trailing slash, as "/sys/fs/bpf/kova/"). Returns the number of rows whose retrieval or attach
// failed; malformed rows, rows skipped for the kernel version and unknown attach types are logged but
// not counted.
int AttachAllKovaBpfProgram(const std::string& dir, const ProgramCatalogue& catalogue);
// Attaches every "prog_<group>_<kind>_<name>" program pinned in `dir` by its kind word, without
// version checks. Returns the number of attaches that failed for a reason other than the program
// being attached there already (EEXIST).
int AttachAllKovaBpfProgram(const std::string& dir);

// Whether the platform build is a pre-release ("ro.build.version.codename", default "REL", is not
// "REL") and the device API level it implies: 10000 for a pre-release, android_get_device_api_level()
// otherwise.
struct PlatformBuildType {
    bool isPreRelease;
    int deviceApiLevel;
};
PlatformBuildType ReadPlatformBuildType();

// The attachment module's build-type values, recorded at library load. Informational only.
extern const PlatformBuildType ATTACH_BUILD_TYPE;

}  // namespace Kova::Bpf
