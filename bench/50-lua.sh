# Lua: the printer against a plain writer and the usual inspectors, bindings against the script runner, and what entering
# costs.
. bench/lib.sh
title "a nested table of a million scalars as text (CPU)"
printer=$("$tools/luatext" printer)
exact=$("$tools/luatext" exact)
ratio() { awk -v a="$1" -v b="$2" 'BEGIN { printf "%.2f", a / b }'; }
row "printer (against a plain writer)" "${printer}ms" "${exact}ms" "$(ratio "$printer" "$exact")" "<= 1.3"
cat >"$run/inspect.lua" <<'LUA'
local T = {}
for g = 1, 100 do
  local G = {}
  T["group" .. g] = G
  for i = 1, 1000 do G[i] = {id = i, name = "row-" .. i, on = i % 2 == 0, v = {i, i + 1, i + 2, i * 0.5, i, i, i}} end
end
collectgarbage()
local write = ... == "inspect" and require "inspect" or require "pl.pretty".write
local begin = os.clock()
local text = write(T)
print(("%.1f"):format((os.clock() - begin) * 1e3))
LUA
for peer in inspect penlight; do
    if took=$(lua5.3 "$run/inspect.lua" $peer 2>/dev/null); then
        row "$peer (against the printer)" "${took}ms" "${printer}ms" "$(ratio "$took" "$printer")" ">= 15"
    fi
done

title "dm.get in a Lua script (against get in a script)"
count=20000
pin=(taskset -c 0)
serve "$run/s" "${pin[@]}" "$tools/answers" "$run/s"
awk -v n=$count 'BEGIN { while (n-- > 0) print "get Device.DeviceInfo.Uptime" }' >"$run/script"
echo "for _ = 1, $count do local value = dm.get('Device.DeviceInfo.Uptime') end" >"$run/script.lua"
"${pin[@]}" "$tools/compare" 7 script "$kest" -u "$run/s" -s "$run/script" -- lua "$kest" -u "$run/s" -S "$run/script.lua" >"$run/rates"
rate() { awk -v n=$count -v ms="$(field "$run/rates" "$1" 2)" 'BEGIN { printf "%d/s", n / ms * 1000 }'; }
row "rate" "$(rate lua)" "$(rate script)" "$(inverse "$(field "$run/rates" lua 5)")" ">= 0.8"

title "entering Lua (against a request that uses none)"
"$tools/compare" 60 get "$kest" -u "$run/s" -r get Device.DeviceInfo.Uptime -- lua "$kest" -u "$run/s" -r lua "x = 1" >"$run/enter"
row "lua STATEMENT" "$(field "$run/enter" lua 2)ms" "$(field "$run/enter" get 2)ms" "$(field "$run/enter" lua 5)" ""
