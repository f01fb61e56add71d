# bash completion for kovabpfctl: its commands, each command's options and words, and the event names
# of `watch`. Installed as /usr/share/bash-completion/completions/kovabpfctl; for a try, source it.

_kovabpfctl() {
    local cur=${COMP_WORDS[COMP_CWORD]} prev=${COMP_WORDS[COMP_CWORD-1]}
    local commands="watch stats dump-tasks top cpu-time help"
    local events="task_created task_exited thread_count_changed rss_changed total_time_in_state
        process_time_in_state thread_time_in_state total_time_reset process_time_reset thread_time_reset
        dmabuf_size cgroup_move fd_count dmabuf_update"

    # The command is the first word after the options of kovabpfctl itself.
    local command="" i
    for ((i = 1; i < COMP_CWORD; i++)); do
        case ${COMP_WORDS[i]} in
            -v|--verbose) ;;
            *) command=${COMP_WORDS[i]}; break ;;
        esac
    done

    # Options that take a value: nothing to offer for the value itself.
    case $prev in
        --pid|--comm|--count|--duration|--connect-timeout|--timeout|--interval) COMPREPLY=(); return ;;
    esac

    local words
    case $command in
        "") words="$commands -v --verbose --help" ;;
        watch) words="--json --pid --comm --count --duration --connect-timeout --help $events" ;;
        stats) words="--csv --timeout --help" ;;
        dump-tasks) words="--short --no-kernel --timeout --help" ;;
        top)
            if [[ $prev == --sort ]]; then words="memory cpu"; else words="--once --sort --interval --connect-timeout --help"; fi ;;
        cpu-time)
            if [[ " ${COMP_WORDS[*]:i+1:COMP_CWORD-i-1} " == *" reset "* ]]; then
                words="total processes threads all --json --timeout --connect-timeout --help"
            else
                words="total processes threads reset --json --timeout --connect-timeout --help"
            fi ;;
        help) words=$commands ;;
        *) words="" ;;
    esac
    COMPREPLY=($(compgen -W "$words" -- "$cur"))
}
complete -F _kovabpfctl kovabpfctl
