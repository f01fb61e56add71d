// Signal-triggered work, done on a normal thread.
//
// The diagnostics that signals 50 to 54 ask for (counter CSV, task dumps) allocate, take locks and
// write files, none of which is allowed inside a signal handler. A handler installed here only records
// which signal arrived and wakes the signal worker thread, which then runs the work for it. Signals of
// one kind that arrive while their work is pending are served by that one run, so a storm of signals
// costs at most one run per kind at a time and can never deadlock the interrupted thread.
#pragma once

namespace Kova::Bpf {

using SignalWork = void (*)(int signo);

// Installs the deferring handler for `signo` (1 to 64) with SA_RESTART and makes `work` the function
// the worker runs for it, replacing any earlier one. Starts the worker thread ("KovaSignalWork") on
// first use. Returns false with errno when the signal or the worker cannot be set up. Safe to call from
// any thread, any number of times.
bool InstallDeferredSignalHandler(int signo, SignalWork work);

}  // namespace Kova::Bpf
