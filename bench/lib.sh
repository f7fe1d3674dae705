# Sourced by the measuring scripts: where things are, daemons that end with their script, the rows of the table.
set -euo pipefail
tools=$BENCH_BUILD/bench
kest=$BENCH_BUILD/bin/kest
veld=$BENCH_BUILD/bin/veld
run=$BENCH_RUN

daemons=()
end_daemons() {
    [ ${#daemons[@]} = 0 ] || kill "${daemons[@]}" 2>/dev/null || true
    wait 2>/dev/null || true
}
trap end_daemons EXIT

# serve SOCKET COMMAND...: starts a daemon and waits for its socket.
serve() {
    local socket=$1
    shift
    rm -f "$socket"
    "$@" </dev/null >"$run/daemon.log" 2>&1 &
    daemons+=($!)
    for _ in $(seq 1000); do
        [ -S "$socket" ] && return
        sleep 0.01
    done
    cat "$run/daemon.log" >&2
    echo "bench: $1 does not start" >&2
    exit 1
}

# title TEXT
title() { printf '\n%s\n' "$1"; }

# row WHAT MEASURED AGAINST RATIO TARGET: TARGET is "<= N", ">= N" or empty. The ratio that the row had before comes from before.tsv.
row() {
    local before
    before=$(awk -F'\t' -v script="$(basename "$0" .sh)" -v what="$1" '$1 == script && $2 == what { print $3 }' bench/before.tsv)
    printf '%-58s %12s %12s %8s %8s %9s' "$1" "$2" "$3" "$4" "$before" "$5"
    if [ -n "$5" ] && ! awk -v r="$4" -v t="${5#* }" -v o="${5%% *}" 'BEGIN { exit !(o == "<=" ? r + 0 <= t + 0 : r + 0 >= t + 0) }'; then
        printf '  MISSED'
    fi
    printf '\n'
}

# field FILE LABEL N: a figure of compare's output: 2 wall ms, 3 CPU ms, 4 peak KiB, 5 to 7 their ratios to the first.
field() { awk -v label="$2" -v n="$3" '$1 == label { printf "%.2f", $n }' "$1"; }

# share TEXT: a ratio turned round.
inverse() { awk -v r="$1" 'BEGIN { printf "%.2f", 1 / r }'; }
