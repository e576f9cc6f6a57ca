#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# What qrnfeed does from the outside. Each test below is run on its own.
#
# usage: tests/feed_test.sh TEST QRNFEED QRNGEN
set -euo pipefail

feed=$2 gen=$3
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work"

fail() {
    echo "FAILED: $*" >&2
    cat out err >&2
    exit 1
}

# Runs qrnfeed and keeps what it prints.
run() {
    "$feed" "$@" >out 2>err || fail "status $? of: $*"
}

# The first number of the output's first part that matches: number 'purged [0-9]+'
number() {
    grep -oE -m 1 "$1" out | grep -oE -m 1 '[0-9]+'
}

expect() {
    [ "$2" = "$3" ] || fail "$1: expected $2, not $3"
}

# The sum holds, and it says that so many lines were read.
expect_sum() {
    local sum
    read -r -a sum <<<"$(grep -E '^sum: delivered .* lines, [0-9]+ further copies\)$' out | tr -cs 0-9 ' ')"
    [ ${#sum[@]} -eq 7 ] || fail "no sum that holds"
    expect "the sum" "${sum[4]}" $((sum[0] + sum[1] + sum[2] + sum[3]))
    expect "what was sent" "${sum[4]}" $((sum[5] + sum[6]))
    expect "lines" "$1" "${sum[5]}"
    grep -qE '^feed +all, and their age +0 ' out || fail "something is still queued"
}

# Waits until the file `err` has a line that matches.
wait_for() {
    until grep -qsE "$1" err; do
        kill -0 $! || fail "qrnfeed ended early"
        sleep 0.02
    done
}

test_refusals_are_one_line_and_status_2() {
    local arguments message status
    exec 3< <(exec "$feed" --udp 127.0.0.1:0 --for 60 2>&1 >/dev/null)
    local holder=$!
    read -r _ _ _ taken <&3
    while IFS='|' read -r arguments message; do
        status=0
        # The arguments are words.
        # shellcheck disable=SC2086
        "$feed" $arguments >out 2>err </dev/null || status=$?
        expect "status of $arguments" 2 $status
        expect "message of $arguments" "qrnfeed: $message" "$(cat out err)"
    done <<END
missing.tsv|cannot open 'missing.tsv': No such file or directory
.|cannot read '.': Is a directory
--unknown|unknown flag '--unknown' (see --help)
--udp 127.0.0.1|--udp '127.0.0.1': expected ADDRESS:PORT
--udp $taken|--udp '$taken': Address already in use
--udp 127.0.0.1:0 lines|--udp and the file 'lines': only one can be read
--dispatchers 0|--dispatchers '0': expected a number from 1 to 256
--work 5us|--work '5us': expected a number from 0 to 10000000
--receive a --receive a|--receive 'a': it is given twice
--delete a@5|--delete 'a': no --receive has this topic
--option queue_age_enabled|--option 'queue_age_enabled': expected NAME=VALUE
--option queue_age_enabled=2|--option 'queue_age_enabled=2': CoreApi-5688-351: optval must be 0 or 1
END
    kill -INT $holder
}

test_file_replay_gives_each_line_to_its_receivers() {
    "$gen" --lines 20000 --seed 7 >sample
    local how topic pattern
    for how in '--dispatchers=1' '--dispatchers=4' '--batch'; do
        run ${how/=/ } --receive orders.new --match 'quotes.*' --match '*.alpha' <sample
        expect_sum 20000
        for topic in orders.new 'quotes.*' '*.alpha'; do
            pattern=${topic//\*/[^$'\t']*}
            expect "$topic" "$(grep -cE "^$pattern"$'\t[^\t]*$' sample)" "$(number "${topic//\*/\\*} +[0-9]+")"
        done
    done
}

# The first callback is still busy when the last message is handed in.
test_deletion_in_mid_stream_accounts_for_each_message() {
    for ((i = 0; i < 40; i++)); do printf 'doomed\t%d\nother\t%d\n' $i $i; done >lines
    local how deleted
    for how in 2 '2 --batch'; do
        # shellcheck disable=SC2086
        run --receive doomed --receive other --work 20000 --delete doomed@20 --dispatchers $how lines
        expect_sum 80
        expect unmatched 20 "$(number '[0-9]+ unmatched')"
        expect other 40 "$(number 'other +[0-9]+')"
        deleted=$(grep '^deleted ' out)
        [[ $deleted =~ after\ 20\ messages:\ ([0-9]+)\ delivered,\ ([0-9]+)\ purged,\ ([0-9]+)\ taken ]]
        expect "what was handed" 20 $((BASH_REMATCH[1] + BASH_REMATCH[2] + BASH_REMATCH[3]))
        [ "${BASH_REMATCH[2]}" -gt 0 ] || fail "nothing was purged"
        [[ $deleted =~ cancellation\ callback\ after\ [0-9]+\ us\ on ]] || fail "no cancellation callback"
    done
    run --receive doomed --delete doomed@41 lines
    grep -q "^not deleted: 'doomed' was handed 40 of 41 messages$" out || fail "an early deletion"
}

test_datagrams_hold_one_or_several_lines() {
    "$feed" --udp 127.0.0.1:0 --receive a --match '*.*' --for 60 >out 2>err &
    wait_for 'listening on 127.0.0.1:[0-9]+'
    local port
    port=$(sed -nE 's/.*listening on .*:([0-9]+)$/\1/p' err)
    printf 'a\t1\na\t2\nbad\na\t3' >"/dev/udp/127.0.0.1/$port"
    "$gen" --lines 500 --udp "$port"
    wait $! || fail "status $?"
    expect_sum $((504 - $(number '[0-9]+ datagrams dropped')))
    expect a 3 "$(number 'a +[0-9]+ delivered')"
}

# A bundle that is not full does not wait for more.
test_a_stream_ends_by_signal() {
    mkfifo pipe
    "$feed" --batch --receive a --for 60 <pipe >out 2>err &
    exec 4>pipe
    { printf 'a\t%d\n' {1..20} && printf 'a\tunfinished'; } >&4
    wait_for '^ *[0-9]+ s: +[1-9][0-9]* deliveries/s,'
    kill -INT $!
    wait $! || fail "status $?"
    expect_sum 20
}

test_broken_lines_are_counted_as_malformed() {
    printf 'a\tgood\n\n\tno topic\nno tab\na\t\nzero\0byte\tx\na\t%065534d\na\t%065535d\na\tlast' 0 0 >lines
    run --match '*' lines
    expect_sum 9
    expect delivered 4 "$(number 'delivered [0-9]+')"
    expect "first malformed" 2 "$(number 'first is line [0-9]+')"
}

test_options_are_set_and_shown() {
    run --option queue_delay_warning=77 --option monitor_transport=qrnsnmp --options
    expect rows 15 "$(wc -l <out)"
    expect live 7 "$(grep -c ' yes$' out)"
    grep -qE '^queue_delay_warning +77 +0 +yes$' out || fail "no delay warning"
    grep -qE '^monitor_transport +qrnsnmp +qrn +no$' out || fail "no transport"
}

"$1"
