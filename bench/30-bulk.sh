# Large answers: read, turned into values, printed. Against Jansson's own parse and dump of the same answer.
. bench/lib.sh
data=$run/bulk
mkdir -p "$data"
/usr/bin/python3 bench/generate.py "$data"
level=("GetParameterAttributes:.=$data/attributes-root" "GetParameterAttributes:Device.=$data/attributes-device"
    "GetParameterAttributes:Device.Bulk.=$data/attributes-bulk" "GetParameterValues:Device.Bulk.=$data/values"
    "GetParameterValues:Device.Empty.=$data/empty")
serve "$run/s" "$tools/answers" "$run/s" "${level[@]}"
title "100,000 parameters (against Jansson's parse and dump of the answer)"
"$tools/compare" 9 parsedump "$tools/parsedump" "$data/answer" -- cat "$kest" -u "$run/s" -r cat Device.Bulk. >"$run/cat"
row "cat, wall time" "$(field "$run/cat" cat 2) ms" "$(field "$run/cat" parsedump 2) ms" "$(field "$run/cat" cat 5)" "<= 0.5"
row "cat, CPU time" "$(field "$run/cat" cat 3) ms" "$(field "$run/cat" parsedump 3) ms" "$(field "$run/cat" cat 6)" ""
size=$(($(wc -c <"$data/answer") / 1024))
row "cat, peak memory (against the answer's size)" "$(field "$run/cat" cat 4) KiB" "$size KiB" \
    "$(field "$run/cat" cat 4 | awk -v s=$size '{printf "%.2f", $1 / s}')" "<= 2"
"$tools/compare" 3 empty "$kest" -u "$run/s" -r cat Device.Empty. >"$run/empty"
size=$(($(wc -c <"$data/empty") / 1024))
row "a list of empty objects, peak memory (against its size)" "$(field "$run/empty" empty 4) KiB" "$size KiB" \
    "$(field "$run/empty" empty 4 | awk -v s=$size '{printf "%.2f", $1 / s}')" "<= 8"

title "the same drawn as a tree of 10,000 x 10, in the shell (against cat there)"
echo "cat Device.Bulk." >"$run/in-cat"
echo "catree Device.Bulk." >"$run/in-catree"
"$tools/compare" 7 cat "<$run/in-cat" "$kest" -u "$run/s" -- catree "<$run/in-catree" "$kest" -u "$run/s" >"$run/tree"
row "catree, wall time" "$(field "$run/tree" catree 2) ms" "$(field "$run/tree" cat 2) ms" "$(field "$run/tree" catree 5)" "<= 1.5"

echo "ls Device.Rows." >"$run/in-ls"
for count in 1000 10000; do
    rows=$data/rows-$count
    serve "$run/rows-$count" "$tools/answers" "$run/rows-$count" "${level[@]}" "GetParameterAttributes:Device.Rows.=$rows-self" \
        "GetParameterNames:Device.Rows.=$rows-names" "GetParameterAttributes:Device.Rows.1.=$rows-attributes"
done
rows=$data/rows-10000
title "ls of 10,000 names in the shell"
"$tools/compare" 7 ls-1000 "<$run/in-ls" "$kest" -u "$run/rows-1000" -- ls-10000 "<$run/in-ls" "$kest" -u "$run/rows-10000" >"$run/ls"
row "wall time, against ls of 1,000" "$(field "$run/ls" ls-10000 2) ms" "$(field "$run/ls" ls-1000 2) ms" \
    "$(field "$run/ls" ls-10000 5)" "<= 15"
"$tools/compare" 7 parsedump "$tools/parsedump" "$rows-self" "$rows-names" "$rows-attributes" \
    -- ls "<$run/in-ls" "$kest" -u "$run/rows-10000" >"$run/ls"
row "wall time, against parse and dump of its answers" "$(field "$run/ls" ls 2) ms" "$(field "$run/ls" parsedump 2) ms" \
    "$(field "$run/ls" ls 5)" ""
