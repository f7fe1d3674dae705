# A large file over the one-shot server, against two netcats on the same machine.
. bench/lib.sh
file=/dev/shm/kest-bench.$$
trap 'rm -f "$file"; end_daemons' EXIT
head -c 1G /dev/zero >"$file"
/usr/bin/python3 bench/transfer.py "$kest" "$file" >"$run/transfer"
read -r kest_rate nc_rate anonymous <"$run/transfer"
title "1 GiB to the daemon over TCP (against nc)"
row "rate" "$kest_rate MB/s" "$nc_rate MB/s" "$(awk -v a="$kest_rate" -v b="$nc_rate" 'BEGIN { printf "%.2f", a / b }')" ">= 0.9"
row "memory beyond the mapping" "$anonymous KiB" "4096 KiB" "$(awk -v a="$anonymous" 'BEGIN { printf "%.2f", a / 4096 }')" "<= 1"
