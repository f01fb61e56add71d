// The service's error log: "error.log" in the diagnostics directory, newest entry first, at most the
// new entry plus 4999 older lines, with the previous start's file kept as "error.old.log".
#pragma once

#include <string>

#include "utils/kova_bpf_diagnostics.h"

namespace Kova::Bpf {

// Creates the diagnostics directory and renames "error.log" to "error.old.log", replacing an older
// one. Returns the rename's result: 0, or -1 when there was no log yet. Called once per service start.
int InitBpfServiceErrorLog();

// Puts one entry (time, pid, tid, command line, thread name, code, text) at the top of "error.log".
// Failures are logged under "BpfUtils" and otherwise ignored. Safe to call from any thread; concurrent
// callers are serialised, so no entry is lost.
void RecordBpfServiceErrorInfo(int errorCode, const std::string& error);

}  // namespace Kova::Bpf
