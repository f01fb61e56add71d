// What the service writes into its diagnostics directory (KOVA_DIAGNOSTICS_DIR), and the real-time
// signals that ask it to: one definition for the service and for kovabpfctl, which sends the signals
// and reads the files.
#pragma once

namespace Kova::Bpf {

inline constexpr char KOVA_STATE_FILE_NAME[] = "bpfservice_state.csv";  // per-second event counters
inline constexpr char KOVA_DUMP_FILE_NAME[] = "DUMPTASK_INFO";          // the task table
inline constexpr char KOVA_ERROR_LOG_NAME[] = "error.log";
inline constexpr char KOVA_ERROR_OLD_LOG_NAME[] = "error.old.log";      // the previous start's

enum KovaDiagnosticSignal : int {
    KOVA_SIGNAL_STATE = 50,                  // write KOVA_STATE_FILE_NAME
    KOVA_SIGNAL_DUMP = 51,                   // dump every task, all columns
    KOVA_SIGNAL_DUMP_NO_KERNEL = 52,         // without kernel tasks
    KOVA_SIGNAL_DUMP_SHORT = 53,             // short columns
    KOVA_SIGNAL_DUMP_SHORT_NO_KERNEL = 54,   // short columns, without kernel tasks
};

}  // namespace Kova::Bpf
