# Requests one after the other in a script, against a bare ping-pong of the same bytes with Jansson on both sides. Client and
# daemon share a core, because where the kernel puts them makes more difference than anything they do.
. bench/lib.sh
count=20000
pin=(taskset -c 0)
serve "$run/s" "${pin[@]}" "$tools/answers" "$run/s"
awk -v n=$count 'BEGIN { while (n-- > 0) print "get Device.DeviceInfo.Uptime" }' >"$run/script"
"${pin[@]}" "$tools/compare" 7 pingpong "$tools/pingpong" "$run/s" $count Device.DeviceInfo.Uptime \
    -- kest "$kest" -u "$run/s" -s "$run/script" >"$run/rates"
rate() { awk -v n=$count -v ms="$(field "$run/rates" "$1" 2)" 'BEGIN { printf "%d/s", n / ms * 1000 }'; }
title "get in a script (against a ping-pong of the same bytes)"
row "rate" "$(rate kest)" "$(rate pingpong)" "$(inverse "$(field "$run/rates" kest 5)")" ">= 0.7"
