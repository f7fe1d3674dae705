# Tab and hints: long lists against a bare sort of their names, requests at levels that are known (there must be none), and
# the first Tab at every level of a whole standard model.
. bench/lib.sh
ratio() { awk -v a="$1" -v b="$2" 'BEGIN { printf "%.2f", a / b }'; }
data=$run/names
mkdir -p "$data"
/usr/bin/python3 bench/generate.py "$data"
# The callback that the editor calls, its levels fetched before over a link as ever: what Tab costs but for drawing.
for count in 10000 100000; do
    rows=$data/rows-$count
    serve "$run/names-$count" "$tools/answers" "$run/names-$count" "GetParameterAttributes:.=$data/attributes-root" \
        "GetParameterAttributes:Device.=$data/attributes-device" "GetParameterAttributes:Device.Words.=$data/attributes-words" \
        "GetParameterAttributes:Device.Rows.=$rows-self" "GetParameterNames:Device.Rows.=$rows-names" \
        "GetParameterAttributes:Device.Rows.1.=$rows-attributes"
done
title "Tab over a known level of 100,000: list, filter, sort (against a bare sort of the names)"
for level in Words Rows; do
    read -r names took sorted ratio < <("$tools/complete" tab "$run/names-100000" "Device.$level.")
    row "$names $([ $level = Words ] && echo parameters || echo instances)" "$took ms" "$sorted ms" "$ratio" "<= 1.3"
done
title "a hint at a known level of 10,000 instances (against what may be noticed)"
took=$("$tools/complete" hint "$run/names-10000" Device.Rows.9999)
row "hint" "$took ms" "10.00 ms" "$(ratio "$took" 10)" "<= 1"

# The client on a terminal, through a relay that counts what it asks. Hints: for every object whose name begins no other
# name beside it, all but its final dot is typed. (Instances come and go meanwhile: processes of this machine.)
title "requests at known levels (against those of the first Tabs there)"
serve "$run/gateway" "$veld" --socket "$run/gateway" --model models/gateway.json
printf 'login admin -p admin\ncolor hint 300 100 100\n' >"$run/colored"
names_of() {
    "$kest" -u "$1" --raw '{"id":1,"method":"GetParameterNames","params":{"ParameterPath":".","NextLevel":false}}' |
        sed -n 's/^ *"Name": "\(..*\)",*$/\1/p'
}
names_of "$run/gateway" >"$run/gateway.names"
sed -n 's/\.$/./p' "$run/gateway.names" | sed 's/^/cat /' >"$run/gateway.lines"
awk '{ name = $0; sub(/\.$/, "", name); at = match(name, /[^.]*$/); above = substr(name, 1, at - 1)
       last = substr(name, at); beside[above] = beside[above] "\n" last
       if ($0 ~ /[^0-9]\.$/) { object[++count] = name; parent[count] = above; own[count] = last } }
     END { for (i = 1; i <= count; i++)
               if (gsub("\n" own[i], "&", beside[parent[i]]) == 1) print "cat " object[i] }' "$run/gateway.names" >"$run/gateway.hints"
read -r first tabs hints asked < <("$tools/typist" count "$run/gateway" "$run/gateway.lines" "$run/gateway.hints" "$kest" -c "$run/colored")
row "$tabs Tabs and $hints hints" "$asked" "$first" "$(ratio "$asked" "$first")" "<= 0"

xml=${TR181_XML:-../shared/data/tr-181-2-19-1-usp-full.xml.gz}
[ -r "$xml" ] || exit 0
case $xml in
*.gz) gunzip -c "$xml" >"$run/model.xml" ;;
*) cp "$xml" "$run/model.xml" ;;
esac
"$veld" --import "$run/model.xml" --output "$run/model.json" 2>"$run/imported"
serve "$run/model" "$veld" --socket "$run/model" --model "$run/model.json" --populate 50,1
# Every object and every table of the model, below the first instance of each table: all instances are alike.
names_of "$run/model" | sed -nE '/\.$/{ s/\.[0-9]+\./.1./g; p }' | awk '!seen[$0]++' | sed 's/^/cat /' >"$run/model.lines"
printf 'login admin -p admin\nopt hint off\n' >"$run/unhinted"
read -r levels longest usual peak slowest < <("$tools/typist" tabs "$run/model.lines" "$kest" -u "$run/model" -c "$run/unhinted")
title "the standard's whole model with 50 instances in each table: first Tab at $levels levels, in a terminal"
row "the slowest (against what may be noticed)" "$longest ms" "100 ms" "$(ratio "$longest" 100)" "<= 1"
row "the median" "$usual ms" "100 ms" "$(ratio "$usual" 100)" "<= 1"
row "peak memory behind the last, MiB" "$(ratio "$peak" 1024) MiB" "32.00 MiB" "$(ratio "$peak" 32768)" "<= 1"
# Without the terminal: how much of the slowest is the client's own work.
slowest=${slowest#cat }
read -r names took own < <("$tools/complete" level "$run/model" "$slowest")
row "$slowest: the client's work (against all)" "$own ms" "$took ms" "$(ratio "$own" "$took")" ""

# The user's own shells, with the files that are installed for them: every tenth level. Each Tab starts a client that asks the daemon.
title "Tab in the user's own shell on that model, whole, in a terminal (against what may be noticed while typing)"
awk -v to="kest -u $run/model -r ls" 'NR % 10 == 1 { print to, $2 }' "$run/model.lines" >"$run/shell.lines"
printf 'PS1="> "; unset HISTFILE; PATH=%q:$PATH; bind "set bell-style none"; source %q\n' "${kest%/*}" "$BENCH_BUILD/completion/kest" >"$run/rc"
printf 'PS1="> "; LISTMAX=100000; unsetopt beep; path=(%q $path); fpath=(%q $fpath)\nautoload -Uz compinit; compinit -u -d %q\n' \
    "${kest%/*}" "$BENCH_BUILD/completion" "$run/dump" >"$run/.zshrc"
for shell in bash:--noprofile,--rcfile,$run/rc,-i zsh:-d,-i; do
    program=$(command -v "${shell%%:*}") || continue
    IFS=, read -ra options <<<"${shell#*:}"
    read -r levels longest usual _ < <(ZDOTDIR=$run "$tools/typist" tabs "$run/shell.lines" "$program" "${options[@]}")
    row "${shell%%:*}, the median of $levels levels" "$usual ms" "30 ms" "$(ratio "$usual" 30)" "<= 1"
    row "${shell%%:*}, the slowest" "$longest ms" "30 ms" "$(ratio "$longest" 30)" ""
done
