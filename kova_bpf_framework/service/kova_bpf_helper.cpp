// Program catalogues and attachment: kernel-version conditions, retrieval of pinned programs and their
// attachment through BCC. Runs on the event producers at start-up; logs under "BpfUtils".

#include "service/kova_bpf_helper.h"

#define LOG_TAG "BpfUtils"

#include <android-base/logging.h>
#include <android-base/properties.h>
#include <android-base/strings.h>
#include <android/api-level.h>
#include <bcc/libbpf.h>  // BCC's attach functions
#include <dirent.h>
#include <errno.h>
#include <linux/bpf.h>
#include <log/log.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <climits>
#include <memory>

#include "service/kova_bpf_syscall.h"

namespace Kova::Bpf {
namespace {

constexpr char kKernelVersionProperty[] = "ro.kernel.version";
constexpr char kProbeEventSuffix[] = "_kovabpf";
constexpr char kProgramPathFormat[] = "%s/prog_%s_%s_%s";

int RetrieveReadOnly(const std::string& path) { return BpfObjGet(path.c_str(), BPF_F_RDONLY); }

// The leading base-10 digits of `piece` (after optional blanks and a sign), as strtol reads them.
// Text that does not begin with a number, or a number out of range, ends the process.
int LeadingInt(const std::string& piece, const std::string& version) {
    errno = 0;
    char* end = nullptr;
    const long value = strtol(piece.c_str(), &end, 10);
    if (end == piece.c_str()) LOG(FATAL) << "[convertVersionToInt] Not a version number: \"" << version << "\"";
    if (errno == ERANGE || value < INT_MIN || value > INT_MAX) {
        LOG(FATAL) << "[convertVersionToInt] Version number out of range: \"" << version << "\"";
    }
    return static_cast<int>(value);
}

bool Contains(const std::string& s, const char* fragment) { return s.find(fragment) != std::string::npos; }

// The attach result of a program whose retrieval succeeded. The program descriptor is not closed: it
// stays open with the attachment it backs, whether the attach worked or not.
int AttachTracepoint(int progFd, const std::string& subSystem, const std::string& eventName) {
    return bpf_attach_tracepoint(progFd, subSystem.c_str(), eventName.c_str());
}

int AttachProbe(int progFd, bool entry, const std::string& progName, const std::string& functionName) {
    const std::string probeEvent = progName + kProbeEventSuffix;
    // Offset 0 is the function's start; a limit of 0 puts no bound on concurrent return probes.
    return bpf_attach_kprobe(progFd, entry ? BPF_PROBE_ENTRY : BPF_PROBE_RETURN, probeEvent.c_str(),
                             functionName.c_str(), 0, 0);
}

}  // namespace

int convertVersionToInt(const std::string& version) {
    const std::vector<std::string> pieces = Split(version, ".");
    if (pieces.size() < 2) LOG(FATAL) << "[convertVersionToInt] Not a version number: \"" << version << "\"";
    const long long value = 1000LL * LeadingInt(pieces[0], version) + LeadingInt(pieces[1], version);
    if (value < INT_MIN || value > INT_MAX) {
        LOG(FATAL) << "[convertVersionToInt] Version number out of range: \"" << version << "\"";
    }
    return static_cast<int>(value);
}

bool CheckBpfCompatibility(const std::string& condition) {
    const int kernel = convertVersionToInt(android::base::GetProperty(kKernelVersionProperty, "0.0"));
    // The suffix forms come first, so that a range whose upper bound ends in a digit is not taken for one.
    const char last = condition.empty() ? '\0' : condition.back();
    if (last == '-') return kernel <= convertVersionToInt(condition.substr(0, condition.size() - 1));
    if (last == '+') return kernel >= convertVersionToInt(condition.substr(0, condition.size() - 1));
    if (Contains(condition, "-")) {
        const std::vector<std::string> bounds = Split(condition, "-");
        if (bounds.size() < 2) LOG(FATAL) << "[CheckBpfCompatibility] Not a version range: \"" << condition << "\"";
        return convertVersionToInt(bounds[0]) <= kernel && kernel <= convertVersionToInt(bounds[1]);
    }
    return kernel == convertVersionToInt(condition);
}

bool IsBpfProg(const std::string& name) { return android::base::StartsWith(name, "prog_"); }

int RetrieveProgramFd(const std::string& dir, const std::string& fileName) {
    return RetrieveReadOnly(dir + "/" + fileName);
}

int RetrieveProgramFd(const std::string& dir, const std::string& group, const std::string& kind,
                      const std::string& progName) {
    return RetrieveReadOnly(
            StringPrintf(kProgramPathFormat, dir.c_str(), group.c_str(), kind.c_str(), progName.c_str()));
}

int AttachTracepointProgram(const std::string& dir, const std::string& group, const std::string& progName,
                            const std::string& subSystem, const std::string& eventName) {
    const int progFd = RetrieveProgramFd(dir, group, KIND_TRACEPOINT, progName);
    if (progFd < 0) {
        ALOGE("[AttachTracepointProgram] Retrieve tracepoint prog failed: %s", progName.c_str());
        return -1;
    }
    return AttachTracepoint(progFd, subSystem, eventName);
}

int AttachTracepointProgram(const std::string& dir, const std::string& fileName, const std::string& subSystem,
                            const std::string& eventName) {
    const int progFd = RetrieveProgramFd(dir, fileName);
    if (progFd < 0) {
        ALOGE("[AttachTracepointProgram] Retrieve tracepoint prog failed, subSystem: %s, eventName: %s",
              subSystem.c_str(), eventName.c_str());
        return -1;
    }
    return AttachTracepoint(progFd, subSystem, eventName);
}

int AttachTracepointProgram(const std::string& dir, const std::string& group, const std::string& progName) {
    int progFd = RetrieveProgramFd(dir, group, KIND_TRACEPOINT, progName);
    if (progFd < 0) progFd = RetrieveProgramFd(dir, group);
    if (progFd < 0) {
        ALOGE("[AttachTracepointProgram] Retrieve tracepoint prog failed: %s", progName.c_str());
        return -1;
    }
    const size_t separator = progName.find('_');
    const std::string subSystem = progName.substr(0, separator);
    const std::string eventName = separator == std::string::npos ? "" : progName.substr(separator + 1);
    return AttachTracepoint(progFd, subSystem, eventName);
}

int AttachKProbeProgram(const std::string& dir, const std::string& group, const std::string& progName,
                        const std::string& functionName, bool entry) {
    const int progFd = RetrieveProgramFd(dir, group, entry ? KIND_KPROBE : KIND_KRETPROBE, progName);
    if (progFd < 0) {
        if (entry) {
            ALOGE("[AttachKProbeProgram] Retrieve kprobe prog failed: %s, function: %s", progName.c_str(),
                  functionName.c_str());
        } else {
            ALOGE("[AttachKProbeProgram] Retrieve kretprobe prog failed: %s, function: %s", progName.c_str(),
                  functionName.c_str());
        }
        return -1;
    }
    if (entry) {
        ALOGI("[AttachKProbeProgram] Attach kprobe prog: enter: progName: %s, functionName: %s", progName.c_str(),
              functionName.c_str());
    } else {
        ALOGI("[AttachKProbeProgram] Attach kretprobe prog: return: progName: %s, functionName: %s",
              progName.c_str(), functionName.c_str());
    }
    return AttachProbe(progFd, entry, progName, functionName);
}

int AttachKProbeProgram(const std::string& dir, const std::string& group, const std::string& progName) {
    const int progFd = RetrieveProgramFd(dir, group, KIND_KPROBE, progName);
    if (progFd < 0) {
        ALOGE("[AttachKProbeProgram] Retrieve kprobe prog failed: %s, prog: %s", group.c_str(), progName.c_str());
        return -1;
    }
    const size_t separator = progName.find('_');
    const std::string eventType = progName.substr(0, separator);
    const std::string eventName = separator == std::string::npos ? "" : progName.substr(separator + 1);
    if (Contains(eventType, "enter")) {
        ALOGI("[AttachKProbeProgram] Attach kprobe prog: enter: eventType: %s, eventName: %s", eventType.c_str(),
              eventName.c_str());
        return AttachProbe(progFd, true, progName, eventName);
    }
    if (Contains(eventType, "return")) {
        ALOGI("[AttachKProbeProgram] Attach kprobe prog: return: eventType: %s, eventName: %s", eventType.c_str(),
              eventName.c_str());
        return AttachProbe(progFd, false, progName, eventName);
    }
    ALOGE("[AttachKProbeProgram] (UNKNOW TYPE) kprobe prog failed: %s, prog: %s", eventType.c_str(),
          progName.c_str());
    errno = EINVAL;
    return -1;
}

int AttachAllKovaBpfProgram(const std::string& dir, const ProgramCatalogue& catalogue) {
    int failures = 0;
    for (const auto& [group, types] : catalogue) {
        for (const auto& [type, rows] : types) {
            for (const ProgramRow& row : rows) {
                if (row.size() != 4) {
                    ALOGE("Error format!: %s", group.c_str());
                    continue;
                }
                const std::string& progName = row[0];
                if (!CheckBpfCompatibility(row[3])) {
                    ALOGW("Skip bpf prog: %s, progName: %s, kernelCompat: %s", group.c_str(), progName.c_str(),
                          row[3].c_str());
                    continue;
                }
                ALOGI("Attach bpf prog start: %s, progName: %s", group.c_str(), progName.c_str());
                int result;
                switch (type) {
                    case PROGRAM_ATTACH_TRACEPOINT:
                        result = AttachTracepointProgram(dir, group, progName, row[1], row[2]);
                        if (result == -1) {
                            ALOGE("Attach tracepoint prog failed: %s, type: %s, msg: %s", group.c_str(),
                                  progName.c_str(), strerror(errno));
                        }
                        break;
                    case PROGRAM_ATTACH_KPROBE:
                        result = AttachKProbeProgram(dir, group, progName, row[1], true);
                        if (result == -1) {
                            ALOGE("Attach kprobe prog failed: %s, progname: %s, msg: %s", group.c_str(),
                                  progName.c_str(), strerror(errno));
                        }
                        break;
                    case PROGRAM_ATTACH_KRETPROBE:
                        result = AttachKProbeProgram(dir, group, progName, row[1], false);
                        if (result == -1) {
                            ALOGE("Attach kretprobe prog failed: %s, progname: %s, msg: %s", group.c_str(),
                                  progName.c_str(), strerror(errno));
                        }
                        break;
                    default:
                        ALOGE("(UNKNOW TYPE) attach prog failed: %s, type: %s", group.c_str(), progName.c_str());
                        continue;
                }
                // Only -1, the attach functions' failure, counts.
                if (result == -1) ++failures;
            }
        }
    }
    return failures;
}

int AttachAllKovaBpfProgram(const std::string& dir) {
    std::unique_ptr<DIR, int (*)(DIR*)> entries(opendir(dir.c_str()), closedir);
    if (entries == nullptr) {
        ALOGE("[AttachAllKovaBpfProgram] Open dir failed: %s, msg: %s", dir.c_str(), strerror(errno));
        return -1;
    }
    int failures = 0;
    while (const dirent* entry = readdir(entries.get())) {
        const std::string fileName = entry->d_name;
        if (!IsBpfProg(fileName)) continue;
        // prog_<group>_<kind>_<name>, where the name may itself hold underscores.
        const std::vector<std::string> pieces = android::base::Split(fileName, "_");
        if (pieces.size() < 4) continue;
        const std::string& group = pieces[1];
        const std::string& kind = pieces[2];
        std::string progName = pieces[3];
        for (size_t i = 4; i < pieces.size(); ++i) progName += "_" + pieces[i];
        ALOGI("Attach bpf prog (%s, type: %s) to %s", fileName.c_str(), kind.c_str(), progName.c_str());

        if (kind == KIND_KPROBE) {
            // A program attached there already (EEXIST) is not a failure of this scan.
            if (AttachKProbeProgram(dir, group, progName) == -1 && errno != EEXIST) {
                ALOGE("Attach kprobe prog failed: %s, type: %s, msg: %s", fileName.c_str(), kind.c_str(),
                      strerror(errno));
                ++failures;
            }
        } else if (kind == KIND_TRACEPOINT) {
            if (AttachTracepointProgram(dir, group, progName) == -1 && errno != EEXIST) {
                ALOGE("Attach tracepoint prog failed: %s, type: %s, msg: %s", fileName.c_str(), kind.c_str(),
                      strerror(errno));
                ++failures;
            }
        } else {
            ALOGE("(UNKNOW TYPE) attach prog failed: %s, type: %s", fileName.c_str(), kind.c_str());
        }
    }
    return failures;
}

PlatformBuildType ReadPlatformBuildType() {
    const bool isPreRelease = android::base::GetProperty("ro.build.version.codename", "REL") != "REL";
    return {isPreRelease, isPreRelease ? 10000 : android_get_device_api_level()};
}

const PlatformBuildType ATTACH_BUILD_TYPE = ReadPlatformBuildType();

}  // namespace Kova::Bpf
