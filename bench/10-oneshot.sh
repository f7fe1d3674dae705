# One request from start to end, against a minimal program that opens the same two connections, joins the same group, reads
# events in a thread and asks for the same value.
. bench/lib.sh
serve "$run/s" "$tools/answers" "$run/s"
"$tools/compare" 200 floor "$tools/floor" "$run/s" Device.DeviceInfo.Uptime \
    -- kest "$kest" -u "$run/s" -r get Device.DeviceInfo.Uptime >"$run/oneshot"
title "kest -r get X, whole process (against the minimal C program)"
row "wall time" "$(field "$run/oneshot" kest 2) ms" "$(field "$run/oneshot" floor 2) ms" "$(field "$run/oneshot" kest 5)" "<= 1.15"
row "CPU time" "$(field "$run/oneshot" kest 3) ms" "$(field "$run/oneshot" floor 3) ms" "$(field "$run/oneshot" kest 6)" ""
row "peak memory, MiB" "$(field "$run/oneshot" kest 4 | awk '{printf "%.2f MiB", $1 / 1024}')" "2.60 MiB" \
    "$(field "$run/oneshot" kest 4 | awk '{printf "%.2f", $1 / 1024 / 2.6}')" "<= 1"
