# The daemon and the commands that change it: instances in a script, attributes of a whole standard model, requests of many clients.
. bench/lib.sh
count=1000
now() { date +%s%N; }
ms() { awk -v ns=$(($2 - $1)) 'BEGIN { printf "%.1f", ns / 1e6 }'; }
ratio() { awk -v a="$1" -v b="$2" 'BEGIN { printf "%.2f", a / b }'; }

serve "$run/s" "$veld" --socket "$run/s" --model models/gateway.json
echo "login admin -p admin" >"$run/config"
seq $count | sed 's/.*/add Device.Hosts.Host/' >"$run/add"
seq 4 $((count + 3)) | sed 's/^/del Device.Hosts.Host./' >"$run/del"
title "$count instances in a script (against as many requests of a ping-pong)"
t0=$(now)
"$tools/pingpong" "$run/s" $count Device.DeviceInfo.Uptime >"$run/pingpong"
t1=$(now)
"$kest" -u "$run/s" -c "$run/config" -s "$run/add" >"$run/added" || true # the last instance's number
t2=$(now)
"$kest" -u "$run/s" -c "$run/config" -s "$run/del" >"$run/deleted"
t3=$(now)
for out in added deleted; do
    [ "$(grep -c '^Status: OK$' "$run/$out")" = $count ] || { echo "bench: not everything was $out" >&2; exit 1; }
done
row "add" "$(ms $t1 $t2) ms" "$(ms $t0 $t1) ms" "$(ratio "$(ms $t1 $t2)" "$(ms $t0 $t1)")" ""
row "del" "$(ms $t2 $t3) ms" "$(ms $t0 $t1) ms" "$(ratio "$(ms $t2 $t3)" "$(ms $t0 $t1)")" ""

title "requests of the daemon (50 clients at once against one)"
requests=50000
t0=$(now)
"$tools/pingpong" "$run/s" $requests Device.Time.Enable >"$run/pingpong"
t1=$(now)
clients=()
for _ in $(seq 50); do
    "$tools/pingpong" "$run/s" $((requests / 50)) Device.Time.Enable >"$run/pingpong" &
    clients+=($!)
done
wait "${clients[@]}"
t2=$(now)
rate() { awk -v n=$requests -v ns=$(($2 - $1)) 'BEGIN { printf "%d/s", n / ns * 1e9 }'; }
row "rate" "$(rate $t1 $t2)" "$(rate $t0 $t1)" "$(ratio $((t1 - t0)) $((t2 - t1)))" ""

xml=${TR181_XML:-../shared/data/tr-181-2-19-1-usp-full.xml.gz}
[ -r "$xml" ] || exit 0
case $xml in
*.gz) gunzip -c "$xml" >"$run/model.xml" ;;
*) cp "$xml" "$run/model.xml" ;;
esac
title "the standard's whole model"
t0=$(now)
"$veld" --import "$run/model.xml" --output "$run/model.json"
t1=$(now)
cat "$run/model.xml" >"$run/copy"
t2=$(now)
row "import, against a copy of the file" "$(ms $t0 $t1) ms" "$(ms $t1 $t2) ms" "$(ratio "$(ms $t0 $t1)" "$(ms $t1 $t2)")" ""
serve "$run/model.s" "$veld" --socket "$run/model.s" --model "$run/model.json" --populate 2,2
"$kest" -u "$run/model.s" --raw '{"id":1,"method":"GetParameterNames","params":{"ParameterPath":".","NextLevel":false}}' |
    sed -n 's/^ *"Name": "\(.*\.\)",*$/\1/p' | grep -v '^\.$' >"$run/objects"
# One word of a command line holds no request for all of them.
split -l 1500 "$run/objects" "$run/part."
for part in "$run"/part.??; do
    names=$(sed 's/.*/"&"/' "$part" | paste -sd,)
    "$kest" -u "$run/model.s" --raw '{"id":1,"method":"GetParameterAttributes","params":{"ParameterNames":['"$names"']}}' |
        sed '1s/^<< //' >"$part.answer"
done
"$tools/compare" 5 parsedump "$tools/parsedump" "$run"/part.*.answer \
    -- attr "$kest" -u "$run/model.s" -r attr $(cat "$run/objects") >"$run/attr"
row "attr of $(wc -l <"$run/objects") objects, wall (against parse and dump)" "$(field "$run/attr" attr 2) ms" \
    "$(field "$run/attr" parsedump 2) ms" "$(field "$run/attr" attr 5)" ""
row "attr, peak memory" "$(field "$run/attr" attr 4) KiB" "$(field "$run/attr" parsedump 4) KiB" "$(field "$run/attr" attr 7)" ""
