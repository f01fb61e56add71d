// The program catalogues of the service: which pinned program of each object attaches where, and from
// which kernel version on. Constant, built at library load.

#include "service/kova_bpf_service.h"

namespace Kova::Bpf {

const ProgramCatalogue KovaBpfService::PROG_EVENT_MAP = {
        {"KovaBpfDefineset",
         {
                 {PROGRAM_ATTACH_TRACEPOINT,
                  {
                          {"sched_sched_switch", "sched", "sched_switch", "5.0+"},
                          {"sched_sched_process_exit", "sched", "sched_process_exit", "5.0+"},
                          {"sched_sched_process_fork", "sched", "sched_process_fork", "5.0+"},
                          {"kmem_rss_stat", "kmem", "rss_stat", "5.0+"},
                  }},
                 {PROGRAM_ATTACH_KPROBE,
                  {
                          {"enter_fd_install", "fd_install", "", "5.0+"},
                  }},
                 {PROGRAM_ATTACH_KRETPROBE, {}},
         }},
};

// The process-exit tracepoint is here too, on purpose: this object carries its own program for it, and
// both are attached. The dmabuf functions are only probed from 6.1 on.
const ProgramCatalogue KovaBpfService::PROG_GPL_EVENT_MAP = {
        {"KovaBpfGplDefineset",
         {
                 {PROGRAM_ATTACH_TRACEPOINT,
                  {
                          {"sched_sched_process_exit", "sched", "sched_process_exit", "5.0+"},
                          {"cgroup_cgroup_attach_task", "cgroup", "cgroup_attach_task", "5.0+"},
                  }},
                 {PROGRAM_ATTACH_KPROBE,
                  {
                          {"dma_buf_file_release", "dma_buf_file_release", "", "6.1+"},
                          {"dma_buf_stats_setup", "dma_buf_stats_setup", "", "6.1+"},
                          {"dma_buf_dynamic_attach", "dma_buf_dynamic_attach", "", "6.1+"},
                          {"dma_buf_vmap", "dma_buf_vmap", "", "6.1+"},
                          {"dma_buf_mmap_internal", "dma_buf_mmap_internal", "", "6.1+"},
                  }},
         }},
};

const PlatformBuildType KovaBpfService::BUILD_TYPE = ReadPlatformBuildType();

}  // namespace Kova::Bpf
