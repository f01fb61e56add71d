// The service's error log: "error.log" in the diagnostics directory, newest entry first, at most the
// new entry plus 4999 older lines, with the previous start's file kept as "error.old.log".
#pragma once

#include <string>

#include "utils/kova_bpf_diagnostics.h"

namespace Kova::Bpf {

// Creates the diagnostics directory, removes the temporary files a crashed run left in it, and renames
// "error.log" to "error.old.log", replacing an older one. Returns the rename's result: 0, or -1 when
// there was no log yet. Called once per service start.
int InitBpfServiceErrorLog();

// Puts one entry (time, pid, tid, command line, thread name, code, text) at the top of "error.log",
// replacing the file whole, so a reader never sees half of it. A failed write loses the entry and is
// logged under "BpfUtils" once until a write succeeds again (RewrittenFile). Safe to call from any
// thread; concurrent callers are serialised, so no entry is lost while the file can be written.
void RecordBpfServiceErrorInfo(int errorCode, const std::string& error);

}  // namespace Kova::Bpf
