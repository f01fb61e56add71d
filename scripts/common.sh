# Shared by scripts/run and scripts/test: installs what the project needs on a fresh Debian 12
# machine, mounts the kernel file systems the service uses, and builds. Meant to be sourced; runs as
# root.

KOVA_ROOT="$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)"

KOVA_PACKAGES=(cmake ninja-build g++ clang llvm libclang-rt-14-dev libc++-14-dev libc++abi-14-dev libgtest-dev libgmock-dev
               libbenchmark-dev libbpf-dev libbpfcc-dev bpftool linux-libc-dev pkg-config procps systemd python3 tmux)

kova_log() { printf '[kova] %s\n' "$*" >&2; }

kova_require_root() {
    if [ "$(id -u)" -ne 0 ]; then
        kova_log "run this as root: it installs packages, mounts bpffs and tracefs and loads BPF programs"
        exit 1
    fi
}

kova_install_packages() {
    local missing=()
    for package in "${KOVA_PACKAGES[@]}"; do
        dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q "install ok installed" || missing+=("$package")
    done
    [ ${#missing[@]} -eq 0 ] && return 0
    kova_log "installing: ${missing[*]}"
    export DEBIAN_FRONTEND=noninteractive
    apt-get update -qq
    apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
}

# Mounts bpffs and tracefs where the kernel expects them, unless the right file system is already
# there. Mounting bpffs again over a mounted one would hide every existing pin, so the type is checked.
kova_mount_kernel_fs() {
    if [ "$(stat -f -c %t /sys/fs/bpf 2>/dev/null)" != "cafe4a11" ]; then
        kova_log "mounting bpffs on /sys/fs/bpf"
        mount -t bpf bpf /sys/fs/bpf
    fi
    if [ "$(stat -f -c %t /sys/kernel/tracing 2>/dev/null)" != "74726163" ]; then
        kova_log "mounting tracefs on /sys/kernel/tracing"
        mount -t tracefs tracefs /sys/kernel/tracing
    fi
}

# kova_build DIR [CMAKE_ARGS...]: configures (once) and builds the project in DIR.
kova_build() {
    local dir="$1"
    shift
    cmake -S "$KOVA_ROOT" -B "$dir" -G Ninja "$@" >/dev/null
    ninja -C "$dir"
}

# kova_generate_cpufreq DIR: a cpufreq tree for a machine without a cpufreq driver (a VM, for one), in
# the layout of /sys/devices/system/cpu/cpufreq: one policy per CPU, holding that CPU alone, with one
# frequency, the CPU's nominal one from /proc/cpuinfo ("cpu MHz"; 1000 MHz where it is not given).
# Prints the frequencies in MHz, one per CPU.
kova_generate_cpufreq() {
    local dir="$1"
    rm -rf "$dir"
    mkdir -p "$dir"
    awk -F: '/^processor/ { cpu = $2 + 0 } /^cpu MHz/ { mhz[cpu] = $2 + 0 }
             END { for (c in mhz) print c, int(mhz[c] * 1000) }' /proc/cpuinfo >"$dir/.nominal"
    local cpus
    cpus=$(grep -c '^processor' /proc/cpuinfo)
    for ((cpu = 0; cpu < cpus; cpu++)); do
        local khz
        khz=$(awk -v c="$cpu" '$1 == c { print $2 }' "$dir/.nominal")
        khz=${khz:-1000000}
        mkdir -p "$dir/policy$cpu"
        echo "$cpu" >"$dir/policy$cpu/related_cpus"
        echo "$khz" >"$dir/policy$cpu/scaling_available_frequencies"
        echo "$khz" >"$dir/policy$cpu/scaling_cur_freq"
        echo $((khz / 1000))
    done
    rm -f "$dir/.nominal"
}
