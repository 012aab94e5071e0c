#!/bin/bash
# tunnelctl driven as a person drives it, with real processes: a publishing writer agent, `show`
# and `watch` readers in other processes (the mLDP table as well as the family's others), a refused
# second writer, a reload that readers are told of key by key, a RIB builder and its candidate tree
# read by `rib --candidates`, `validate` on a healthy and on a damaged table, and the error paths.
# Usage: tunnelctl_processes_test.sh TUNNELCTL SOURCE_DIR
set -u
ctl=$1
src=$2
work=$(mktemp -d /tmp/tunnelctl-test.XXXXXX)
export TUNNEL_SHMEM_ROOT=$work/root
mkdir -p "$TUNNEL_SHMEM_ROOT"
pids=()
cleanup() {
   for p in "${pids[@]}"; do kill -KILL "$p" 2>/dev/null; done
   wait 2>/dev/null
   rm -rf "$work"
}
trap cleanup EXIT
fail() {
   echo "FAIL: $*"
   for f in "$work"/*.out "$work"/*.err; do [ -f "$f" ] && { echo "--- $f"; cat "$f"; }; done
   exit 1
}
# wait_for FILE PATTERN SECONDS
wait_for() {
   for _ in $(seq $(($3 * 20))); do
      grep -q -- "$2" "$1" 2>/dev/null && return 0
      sleep 0.05
   done
   fail "'$2' did not appear in $1 within $3 s"
}
expect_eq() { [ "$1" == "$2" ] || fail "$3: expected [$2], got [$1]"; }

cp "$src/examples/network.json" "$work/net.json"

# A writer agent publishes the example.
"$ctl" publish "$work/net.json" >"$work/publish.out" 2>"$work/publish.err" &
pub=$!
pids+=($pub)
wait_for "$work/publish.out" '^ready: 96 tunnels in 19 tables under ' 30
grep -qx 'ldp: 23 tunnels (23 written, 0 removed)' "$work/publish.out" || fail "publish summary"
grep -qx 'mldpTunnel: 4 tunnels (4 written, 0 removed)' "$work/publish.out" || fail "publish summary"
grep -qx 'evpnVxlan: 6 tunnels (6 written, 0 removed)' "$work/publish.out" || fail "publish summary"

# A second writer of the same tables is refused.
"$ctl" publish --once "$work/net.json" >"$work/second.out" 2>"$work/second.err"
expect_eq $? 1 "second writer exit status"
grep -q "^tunnelctl: table $TUNNEL_SHMEM_ROOT/tunnel/table/bgpLu/entry already has a live writer (pid $pub); owner file says \"pid:$pub host:" \
   "$work/second.err" || fail "second writer message names the writer"

# list: every table, its live writer, its entries.
"$ctl" list >"$work/list.out" 2>&1 || fail "list"
line=$(grep '^ldp ' "$work/list.out")
[[ $line =~ ^ldp\ +pid\ $pub\ \(alive\)\ +0\ +23\ +[0-9]+\ +[0-9]+$ ]] || fail "list ldp line: $line"
expect_eq "$(grep -c '(alive)' "$work/list.out")" 19 "tables with a live writer"

# show --json in another process: what a reader sees, one entry per line.
"$ctl" show ldp --json >"$work/show.out" 2>"$work/show.err" || fail "show --json"
grep -q '^], "count": 23}$' "$work/show.out" || fail "show count"
expect_eq "$(grep -c '"text":"Value(.Tunnel::TunnelTable::LdpTunnelTableEntry.' "$work/show.out")" 23 "ldp entries shown"
grep -q '^{"tunnelId":{"value":52776558133257,"type":"ldpTunnel","typeCode":3,"index":9},' "$work/show.out" || fail "show ldp index 9 (0x300000000009)"
"$ctl" show static >"$work/static.out" 2>&1 || fail "show static"
expect_eq "$(head -1 "$work/static.out")" "static: 3 entries" "show static header"
# mLDP: the JSON gives each tree id beside the text form, and --detail lists those texts.
"$ctl" show mldpTunnel --json >"$work/show-mldp.out" 2>&1 || fail "show mldpTunnel --json"
grep -q '^], "count": 4}$' "$work/show-mldp.out" || fail "show mldpTunnel count"
# Index 1 of type 22: 22 << 44 | 1.
grep '"tunnelId":{"value":387028092977153,' "$work/show-mldp.out" |
   grep -q '"mcastTreeId":"p2mp root 10.255.0.7 lsp-id 1",' || fail "show mldpTunnel tree id"
grep -q "\"text\":\"Value('Tunnel::TunnelTable::MldpTunnelTableEntry', \*\* {'tunnelId': .*'mcastTreeId': Value('Routing::Multicast::MulticastTreeId', \*\* {'text': 'p2mp root 10.255.0.7 source 198.51.100.10 group 232.1.1.1'}), 'via': \[" \
   "$work/show-mldp.out" || fail "show mldpTunnel text form"
"$ctl" show mldpTunnel --detail >"$work/mldp.out" 2>&1 || fail "show mldpTunnel --detail"
expect_eq "$(tail -n +2 "$work/mldp.out")" "$(python3 -c 'import json, sys; [print(e["text"]) for e in json.load(open(sys.argv[1]))["entries"]]' "$work/show-mldp.out")" "show mldpTunnel texts"

# watch in two more processes, then the writer reloads an edited description (SIGHUP).
"$ctl" watch ldp --count 1 --seconds 30 >"$work/watch-ldp.out" 2>&1 &
wl=$!
pids+=($wl)
"$ctl" watch static --count 1 --seconds 30 >"$work/watch-static.out" 2>&1 &
ws=$!
pids+=($ws)
wait_for "$work/watch-ldp.out" '^ldp: synchronized, 23 entries$' 20
wait_for "$work/watch-static.out" '^static: synchronized, 3 entries$' 20
"$ctl" watch mldpTunnel --count 1 --seconds 30 >"$work/watch-mldp.out" 2>&1 &
wm=$!
pids+=($wm)
wait_for "$work/watch-mldp.out" '^mldpTunnel: synchronized, 4 entries$' 20
cp "$src/examples/network-update.json" "$work/net.json"
kill -HUP $pub
wait_for "$work/publish.out" '^reloaded .*: 7 changes$' 20
grep -qx "nexthop-group tunnel 198.51.100.1/32: written" "$work/publish.out" || fail "reload rewrites the changed nexthop-group tunnel"
wait $wl || fail "watch ldp exit status"
wait $ws || fail "watch static exit status"
wait $wm || fail "watch mldpTunnel exit status"
grep -q "^mldpTunnel index 2 changed: Value('Tunnel::TunnelTable::MldpTunnelTableEntry', .*'text': 'p2mp root 10.255.0.7 lsp-id 2'.*10\.0\.4\.1" \
   "$work/watch-mldp.out" || fail "watch saw the new mLDP branch"
grep -qx 'mldpTunnel: 1 changes' "$work/watch-mldp.out" || fail "watch mldpTunnel count"
grep -q "^ldp index 9 changed: Value('Tunnel::TunnelTable::LdpTunnelTableEntry', .*'entryMetric': 40," \
   "$work/watch-ldp.out" || fail "watch saw the ldp change"
grep -qx 'ldp: 1 changes' "$work/watch-ldp.out" || fail "watch ldp count"
grep -qx 'static index 3 removed' "$work/watch-static.out" || fail "watch saw the static removal"
for c in 'ldp index 9: written' 'static index 3: removed' 'bgpLu index 305: removed' \
   'sr index 23: written' 'evpnVxlan index 7: written' 'mldpTunnel index 2: written'; do
   grep -qx "$c" "$work/publish.out" || fail "reload change '$c'"
done

# validate a healthy table.
"$ctl" validate ldp >"$work/valid.out" 2>&1 || fail "validate healthy"
expect_eq "$(cat "$work/valid.out")" "ldp: valid: 23 occupied slots, $(($(grep '^ldp ' "$work/list.out" | awk '{print $7}') - 23)) free slots, 23 slab entries" "validate output"
"$ctl" validate mldpTunnel >"$work/valid-mldp.out" 2>&1 || fail "validate mldpTunnel"
expect_eq "$(cat "$work/valid-mldp.out")" "mldpTunnel: valid: 4 occupied slots, $(($(grep '^mldpTunnel ' "$work/list.out" | awk '{print $7}') - 4)) free slots, 4 slab entries" "validate mldpTunnel output"

# A reload refused whole, usage mistakes and bad descriptions: OperatorTest.cpp.
cp "$src/examples/network-update.json" "$work/net.json"

# A RIB builder agent; `rib --candidates` in another process reads the candidate tree it exports.
"$ctl" rib-builder --seconds 60 >"$work/builder.out" 2>"$work/builder.err" &
builder=$!
pids+=($builder)
wait_for "$work/builder.out" '^rib-builder: settled: ' 30
"$ctl" rib --candidates 10.255.0.11/32 >"$work/cand.out" 2>"$work/cand.err" || fail "rib --candidates"
expect_eq "$(head -2 "$work/cand.out")" "tunnelRib (id 0): 1 endpoints
10.255.0.11/32" "candidates header"
expect_eq "$(grep -c '^  \* ' "$work/cand.out")" 1 "one winner marked"
[ "$(wc -l <"$work/cand.out")" -ge 4 ] || fail "losing candidates shown too"
"$ctl" rib --candidates --colored --json >"$work/cand.json" 2>&1 || fail "rib --candidates --json"
grep -q '"rib": "coloredTunnelRib",' "$work/cand.json" || fail "candidates json names the RIB"
grep -q '"winner": true,' "$work/cand.json" || fail "candidates json marks the winner"
"$ctl" rib --candidates 10.9.9.9/32 >/dev/null 2>"$work/nocand.err"
expect_eq $? 1 "candidates of an unknown endpoint"
expect_eq "$(cat "$work/nocand.err")" "tunnelctl: no candidates for 10.9.9.9/32 in tunnelRib" "unknown endpoint message"
kill -TERM $builder
wait $builder || fail "rib-builder exit status"

# The writer stops; its files stay, and list shows the writer gone.
kill -TERM $pub
wait $pub || fail "publish exit status"
grep -qx 'stopped' "$work/publish.out" || fail "publish stopped"
"$ctl" list >"$work/list2.out" 2>&1 || fail "list after stop"
grep -q "^ldp  *pid $pub (gone)  *0  *23 " "$work/list2.out" || fail "list shows the writer gone"

# Damage a byte of the slot file: validation fails with the store's message, exit 1.
slots=$TUNNEL_SHMEM_ROOT/tunnel/table/ldp/entry/slots
printf '\x7f' | dd of="$slots" bs=1 seek=540 conv=notrunc status=none
"$ctl" validate ldp >"$work/damaged.out" 2>"$work/damaged.err"
expect_eq $? 1 "validate damaged exit status"
grep -Eqx 'tunnelctl: Dock tunnel/table/ldp/entry validation failed: checksum fail: [0-9a-f]+ != [0-9a-f]+' \
   "$work/damaged.err" || fail "validate damaged header message"
"$ctl" validate static >/dev/null 2>&1 || fail "other tables stay valid"
# A byte of a slot (the first slot's flags: the first entry written lives there).
printf '\xff' | dd of="$TUNNEL_SHMEM_ROOT/tunnel/table/static/entry/slots" bs=1 seek=608 conv=notrunc status=none
"$ctl" validate static >/dev/null 2>"$work/damaged-slot.err"
expect_eq $? 1 "validate damaged slot exit status"
expect_eq "$(cat "$work/damaged-slot.err")" "tunnelctl: Dock tunnel/table/static/entry validation failed: stuck LOOKASIDE bit: 0xff" "validate damaged slot message"
# A byte of the herald, which only readers use: validate checks every file readers depend on.
printf '\x00' | dd of="$TUNNEL_SHMEM_ROOT/tunnel/table/bgpLu/entry/herald" bs=1 seek=0 conv=notrunc status=none
"$ctl" validate bgpLu >/dev/null 2>"$work/damaged-herald.err"
expect_eq $? 1 "validate damaged herald exit status"
expect_eq "$(cat "$work/damaged-herald.err")" "tunnelctl: Dock tunnel/table/bgpLu/entry validation failed: herald: bad magic: 444c52484b434f00" "validate damaged herald message"

# Error paths.
"$ctl" show rsvpLerSub >"$work/missing.out" 2>"$work/missing.err"
expect_eq $? 1 "show of a table nobody published"
expect_eq "$(cat "$work/missing.err")" "tunnelctl: no table 'rsvpLerSub' under $TUNNEL_SHMEM_ROOT (no writer has published it)" "missing table message"
"$ctl" validate ldpp >/dev/null 2>"$work/unknown.err"
expect_eq $? 2 "unknown table exit status"
"$ctl" --help >/dev/null 2>&1 || fail "--help exit status"
grep -q "^tunnelctl: unknown table 'ldpp' (known: bgpLu, bgpLuPush, ldp, " "$work/unknown.err" || fail "unknown table message"
# list and remove, in a store root of their own. The writer is alive while it holds its lock,
# whatever pid the owner file names; readers are the live processes behind the wake sockets.
export TUNNEL_SHMEM_ROOT=$work/root2
mkdir -p "$TUNNEL_SHMEM_ROOT"
ldpdir=$TUNNEL_SHMEM_ROOT/tunnel/table/ldp/entry
printf '{"tunnels": [{"table": "ldp", "index": 1, "vias": [{"nextHop": "10.0.1.1"}]}, {"table": "rsvpLerSub", "index": 1, "endpoint": "10.9.0.1", "via": {"nextHop": "10.0.1.1"}}]}' >"$work/small.json"
"$ctl" publish "$work/small.json" >"$work/pub2.out" 2>"$work/pub2.err" &
pub2=$!
pids+=($pub2)
wait_for "$work/pub2.out" '^ready: 2 tunnels in 2 tables' 20
"$ctl" watch ldp --seconds 60 >"$work/reader1.out" 2>&1 &
r1=$!
pids+=($r1)
"$ctl" watch ldp --seconds 60 >"$work/reader2.out" 2>&1 &
r2=$!
pids+=($r2)
wait_for "$work/reader1.out" '^ldp: synchronized, 1 entries$' 20
wait_for "$work/reader2.out" '^ldp: synchronized, 1 entries$' 20
# list_line TABLE WRITER READERS: the exact text line, sizes taken from list --json.
list_line() {
   "$ctl" list --json | python3 -c '
import json, sys
t = [t for t in json.load(sys.stdin)["tables"] if t["table"] == sys.argv[1]][0]
print("%-26s%-20s%8s%9d%10d%10d" % (sys.argv[1], sys.argv[2], sys.argv[3], t["entries"], t["capacity"], t["maxSlots"]))' "$@"
}
# readers_json TABLE: its writer and reader pids as list --json gives them.
readers_json() {
   "$ctl" list --json | python3 -c '
import json, sys
t = [t for t in json.load(sys.stdin)["tables"] if t["table"] == sys.argv[1]][0]
print(json.dumps(t["writer"]), json.dumps(t["readers"]))' "$1"
}
"$ctl" list >"$work/list3.out" 2>&1 || fail "list with readers"
expect_eq "$(cat "$work/list3.out")" "TABLE                     WRITER               READERS  ENTRIES  CAPACITY       MAX
$(list_line ldp "pid $pub2 (alive)" 2)
$(list_line rsvpLerSub "pid $pub2 (alive)" 0)" "list with a live writer and two readers"
expect_eq "$(list_line ldp x 0 | awk '{print $4}')" 1 "ldp entries in list --json"
first=$((r1 < r2 ? r1 : r2))
second=$((r1 < r2 ? r2 : r1))
expect_eq "$(readers_json ldp)" "{\"pid\": $pub2, \"alive\": true} [{\"pid\": $first}, {\"pid\": $second}]" "list --json ldp writer and readers"
expect_eq "$(readers_json rsvpLerSub)" "{\"pid\": $pub2, \"alive\": true} []" "list --json rsvpLerSub readers"
# A removal while the writer holds the table is refused and leaves every file.
"$ctl" remove ldp >"$work/remove-live.out" 2>"$work/remove-live.err"
expect_eq $? 1 "remove with a live writer exit status"
expect_eq "$(cat "$work/remove-live.err")" "tunnelctl: ldp has a live writer (pid $pub2); not removed" "remove with a live writer message"
expect_eq "$(cat "$work/remove-live.out")" "" "remove with a live writer prints nothing"
[ -f "$ldpdir/slots" ] && [ -f "$ldpdir/owner" ] || fail "a refused remove left the files"
"$ctl" show ldp >/dev/null 2>&1 || fail "the table still reads after a refused remove"
# A reader killed outright leaves its socket name behind; it is not counted.
kill -KILL $r1
wait $r1 2>/dev/null
ls "$ldpdir/wake" | grep -q "^$r1-" || fail "the killed reader's socket name stays"
expect_eq "$(readers_json ldp)" "{\"pid\": $pub2, \"alive\": true} [{\"pid\": $r2}]" "list --json after a reader died"
kill -TERM $pub2
wait $pub2 || fail "second publish exit status"
expect_eq "$(grep '^ldp ' <("$ctl" list))" "$(list_line ldp "pid $pub2 (gone)" 1)" "list after the writer stopped"
kill -TERM $r2
wait $r2 2>/dev/null
# A process holding the lock is a live writer even when the owner file names nobody.
printf 'not an owner' >"$ldpdir/owner"
python3 -c 'import fcntl, sys, time
f = open(sys.argv[1])
fcntl.flock(f, fcntl.LOCK_EX)
print("locked", flush=True)
time.sleep(60)' "$ldpdir/owner" >"$work/holder.out" 2>&1 &
holder=$!
pids+=($holder)
wait_for "$work/holder.out" '^locked$' 20
expect_eq "$(grep '^ldp ' <("$ctl" list))" "$(list_line ldp "alive (pid unknown)" 0)" "list with the lock held, no owner named"
expect_eq "$(readers_json ldp)" '{"pid": null, "alive": true} []' "list --json with the lock held, no owner named"
"$ctl" remove ldp >/dev/null 2>"$work/remove-held.err"
expect_eq $? 1 "remove with the lock held exit status"
expect_eq "$(cat "$work/remove-held.err")" "tunnelctl: ldp has a live writer (pid unknown); not removed" "remove with the lock held message"
kill -KILL $holder
wait $holder 2>/dev/null
# An owner file naming a live process (this shell, its start time, this host) is no writer
# without the lock.
start=$(sed 's/.*) //' /proc/$$/stat | awk '{print $20}')
printf 'pid:%s host:%s start:%s' $$ "$(cat /proc/sys/kernel/hostname)" "$start" >"$ldpdir/owner"
expect_eq "$(grep '^ldp ' <("$ctl" list))" "$(list_line ldp "pid $$ (gone)" 0)" "list with a live pid but no lock"
"$ctl" remove ldp >"$work/remove.out" 2>"$work/remove.err" || fail "remove without a writer"
expect_eq "$(cat "$work/remove.out")" "ldp: removed $ldpdir" "remove output"
expect_eq "$(cat "$work/remove.err")" "" "remove says nothing on stderr"
[ ! -e "$TUNNEL_SHMEM_ROOT/tunnel/table/ldp" ] || fail "remove left $TUNNEL_SHMEM_ROOT/tunnel/table/ldp"
[ -f "$TUNNEL_SHMEM_ROOT/tunnel/table/rsvpLerSub/entry/slots" ] || fail "remove took another table"
expect_eq "$("$ctl" list)" "TABLE                     WRITER               READERS  ENTRIES  CAPACITY       MAX
$(list_line rsvpLerSub "pid $pub2 (gone)" 0)" "list after remove"
"$ctl" remove ldp >/dev/null 2>"$work/remove-missing.err"
expect_eq $? 1 "remove of a missing table exit status"
expect_eq "$(cat "$work/remove-missing.err")" "tunnelctl: no table 'ldp' under $TUNNEL_SHMEM_ROOT (no writer has published it)" "remove of a missing table message"
"$ctl" remove ldpp >/dev/null 2>"$work/remove-unknown.err"
expect_eq $? 2 "remove of an unknown table exit status"
grep -q "^tunnelctl: unknown table 'ldpp' (known: bgpLu, bgpLuPush, ldp, " "$work/remove-unknown.err" || fail "remove of an unknown table message"
# A new writer takes the removed table up again from nothing.
"$ctl" publish --once "$work/small.json" >/dev/null 2>&1 || fail "publish after remove"
expect_eq "$(grep '^ldp ' <("$ctl" list) | awk '{print $5, $6}')" "0 1" "the table written again: readers, entries"
echo PASS
