# How soon the daemon answers beside clients that make trouble, how many requests it answers, how it starts.
. bench/lib.sh
model=$BENCH_SOURCE/models/gateway.json
library=$BENCH_BUILD/tests/programs/troubled.so
if [ -f "$library" ]; then
    /usr/bin/python3 bench/daemon.py "$veld" "$model" "$library" >"$run/daemon"
    figure() { awk -v label="$1" -v n="$2" '$1 == label { print $n }' "$run/daemon"; }
    share() { awk -v a="$1" -v b="$2" 'BEGIN { printf "%.2f", a / b }'; }
    title "a get beside 1,000 idle clients, a flood, a guesser and a slow disk"
    row "p99 alone" "$(figure alone 3) ms" "5 ms" "$(share "$(figure alone 3)" 5)" "<= 1"
    row "p99 beside them" "$(figure trouble 3) ms" "5 ms" "$(share "$(figure trouble 3)" 5)" "<= 1"
    title "requests per second (against one client)"
    for count in 1 50 1000; do
        row "$count clients" "$(figure rate-$count 2)" "$(figure rate-1 2)" "$(share "$(figure rate-$count 2)" "$(figure rate-1 2)")" ""
    done
fi

# start LABEL MODEL OPTION...: the time until clients can connect, and the memory then.
start() {
    local label=$1 began took
    shift
    began=$(date +%s%N)
    serve "$run/start.sock" "$veld" --socket "$run/start.sock" --model "$@"
    took=$((($(date +%s%N) - began) / 1000000))
    row "$label: start" "$took ms" "" "" ""
    row "$label: memory" "$(awk '/^VmRSS/ { print $2 }' "/proc/${daemons[-1]}/status") KiB" "" "" ""
    end_daemons
    daemons=()
}
# BENCH_DATA_MODEL: a document of the standard's own, for example the largest there is.
title "start-up"
start "as it comes" "$model"
start "--populate 50,1" "$model" --populate 50,1
if [ -n "${BENCH_DATA_MODEL:-}" ]; then
    began=$(date +%s%N)
    "$veld" --import "$BENCH_DATA_MODEL" --output "$run/imported.json" 2>/dev/null
    row "import" "$((($(date +%s%N) - began) / 1000000)) ms" "" "" ""
    start "imported, --populate 1" "$run/imported.json" --populate 1
    start "imported, --populate 50,1" "$run/imported.json" --populate 50,1
fi
