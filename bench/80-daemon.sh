# How soon the daemon answers beside clients that make trouble, how many requests it answers, how it starts.
. bench/lib.sh
model=$BENCH_SOURCE/models/gateway.json
# BENCH_DATA_MODEL: a document of the standard's own, for example the largest there is. Without one, the daemon's own model stands in.
document=${BENCH_DATA_MODEL:-${TR181_XML:-../shared/data/tr-181-2-19-1-usp-full.xml.gz}}
large=$model
share() { awk -v a="$1" -v b="$2" 'BEGIN { printf "%.2f", a / b }'; }

/usr/bin/python3 bench/daemon.py "$veld" "$model" "$BENCH_BUILD/tests/programs/troubled.so" >"$run/daemon"
figure() { awk -v label="$1" -v n="$2" '$1 == label { print $n }' "$run/daemon"; }
title "a get beside 1,000 idle clients, a flood, a guesser and a slow disk"
row "p99 alone" "$(figure alone 3) ms" "5 ms" "$(share "$(figure alone 3)" 5)" "<= 1"
row "p99 beside them" "$(figure trouble 3) ms" "5 ms" "$(share "$(figure trouble 3)" 5)" "<= 1"
title "requests per second (against one client)"
for count in 1 50 1000; do
    row "$count clients" "$(figure rate-$count 2)" "$(figure rate-1 2)" "$(share "$(figure rate-$count 2)" "$(figure rate-1 2)")" ""
done

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
title "start-up"
start "as it comes" "$model"
start "--populate 50,1" "$model" --populate 50,1
if [ -r "$document" ]; then
    large=$run/imported.json
    began=$(date +%s%N)
    "$veld" --import "$document" --output "$large" 2>/dev/null
    row "$(basename "$document"): import" "$(share $(($(date +%s%N) - began)) 1000000000) s" "" "" ""
    start "imported, --populate 1" "$large" --populate 1
    start "imported, --populate 50,1" "$large" --populate 50,1
fi

/usr/bin/python3 bench/daemon.py "$veld" "$large" 50,1 >"$run/daemon"
title "a get beside one who asks for all $(figure everything 2) parameters of a large model, $(figure everything 3) ms each time"
row "p99 alone" "$(figure large-alone 3) ms" "" "" ""
row "p99 beside that" "$(figure large-beside 3) ms" "5 ms" "$(share "$(figure large-beside 3)" 5)" "<= 1"
row "longest beside that" "$(figure large-beside 4) ms" "$(figure large-alone 4) ms" "$(share "$(figure large-beside 4)" "$(figure large-alone 4)")" ""
