#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# What qrnfeed and qrnmon do from the outside. Each test below is run on its own.
#
# usage: tests/tools_test.sh TEST FOLDER-OF-THE-TOOLS
set -euo pipefail

PATH=$2:$PATH
work=$(mktemp -d)
trap 'kill $(jobs -p) 2>/dev/null || true; rm -rf "$work"' EXIT
cd "$work"

fail() {
    echo "FAILED: $*" >&2
    cat out err >&2
    exit 1
}

# Runs qrnfeed and keeps what it prints.
run() {
    qrnfeed "$@" >out 2>err || fail "status $? of: $*"
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
        { [ $SECONDS -lt 60 ] && kill -0 $!; } || fail "no line '$1'"
        sleep 0.02
    done
}

test_refusals_are_one_line_and_status_2() {
    local program arguments message status
    exec 3< <(exec qrnfeed --udp 127.0.0.1:0 --for 60 2>&1 >/dev/null)
    local holder=$!
    read -r _ _ _ taken <&3
    local monitored='--option monitor_interval=1 --option monitor_transport_opts'
    local failed='no queue: automatic monitoring failed:'
    while IFS='|' read -r program arguments message; do
        status=0
        # The arguments are words.
        # shellcheck disable=SC2086
        $program $arguments >out 2>err </dev/null || status=$?
        expect "status of $program $arguments" 2 $status
        expect "lines of $program $arguments" 1 "$(cat out err | wc -l)"
        [[ $(cat err) == "$program: $message"* ]] || fail "$program $arguments: no '$message'"
    done <<END
qrnfeed|missing.tsv|cannot open 'missing.tsv': No such file or directory
qrnfeed|--unknown|unknown flag '--unknown' (see --help)
qrnfeed|--udp $taken|--udp '$taken': Address already in use
qrnfeed|--udp 127.0.0.1:0 lines|--udp and the file 'lines': only one can be read
qrnfeed|--delete a@5|--delete 'a': no --receive has this topic
qrnfeed|--option queue_age_enabled=2|--option 'queue_age_enabled=2': CoreApi-5688-351: optval must be 0 or 1
qrnfeed|$monitored=port=1,x|$failed transport options: expected host=NAME or port=NUMBER: 'x'
qrnfeed|$monitored=port=65536|$failed transport options: port must be a number from 1 to 65535: '65536'
qrnfeed|$monitored=host=no.such.host.invalid|$failed host 'no.such.host.invalid' does not resolve: 
qrnmon|--port ${taken#*:}|cannot listen on 127.0.0.1 port ${taken#*:}: Address already in use
qrnmon|--port 0 --csv /dev/full|cannot write /dev/full: No space left on device
qrnmon|--plot x.jpg|--plot must name a .png file: 'x.jpg'
qrnmon|--nonsense|unknown option '--nonsense'
END
    kill -INT $holder
}

test_file_replay_gives_each_line_to_its_receivers() {
    qrngen --lines 20000 --seed 7 >sample
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
}

test_datagrams_hold_one_or_several_lines() {
    qrnfeed --udp 127.0.0.1:0 --receive a --match '*.*' --for 60 >out 2>err &
    wait_for 'listening on 127.0.0.1:[0-9]+'
    local port
    port=$(sed -nE 's/.*listening on .*:([0-9]+)$/\1/p' err)
    printf 'a\t1\na\t2\nbad\na\t3' >"/dev/udp/127.0.0.1/$port"
    qrngen --lines 500 --udp "$port"
    wait $! || fail "status $?"
    expect_sum $((504 - $(number '[0-9]+ datagrams dropped')))
    expect a 3 "$(number 'a +[0-9]+ delivered')"
}

# A bundle that is not full does not wait for more.
test_a_stream_ends_by_signal() {
    mkfifo pipe
    qrnfeed --batch --receive a --for 60 <pipe >out 2>err &
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

# A record that qrnmon takes: QUEUE SEQUENCE TOTAL DEPTH [AGE [INTERVAL]]
record() {
    local line='' column warns=0
    [ "$1" != orders ] || warns=1
    [ -s columns ] || qrnmon --port 0 --for 0.01 --csv columns >out 2>&1
    local -A value=([schema]=1 [epoch_s]=17.000000 [mono_s]=$2.000000 [seq]=$2 [pid]=4242 [app]=feed
        [queue]=$1 [queue_id]=${#1} [interval_s]=${6-1000} [depth]=$4 [warning]=$warns
        [size_warnings]=$((40 * warns)) [delay_warnings]=0 [events]=$4 [events_tot]=$3 [data_msgs]=$4
        [data_msgs_tot]=$3 [data_msgs_svc_mean]=35 [age_mean]=${5-1200} [age_max]=$((9 * ${5-1200})))
    IFS=, read -r -a names <columns
    for column in "${names[@]}"; do line+=${value[$column]-},; done
    echo "${line%,}"
}

# Sends each argument as a datagram to the program that says where it listens.
send() {
    local each port
    wait_for 'listening on 127.0.0.1:[0-9]+$'
    port=$(sed -nE 's/.*listening on .*:([0-9]+)$/\1/p' err)
    for each in "$@"; do printf '%b' "$each" >"/dev/udp/127.0.0.1/$port"; done
}

# Two samples of three queues, a second apart.
three_queues() {
    local i
    for i in 1 2; do
        record orders $i $((100 * i)) $((3 * i))
        record quotes-of-a-very-long-name $i $((150000 * i)) 0
        record audit $i 7 7 61000000
    done
}

# Starts qrnmon in a terminal; what is written to descriptor 5 are keys.
open_terminal() {
    mkfifo keys
    script -qefc "stty rows 10 cols 100; tty >tty; TERM=xterm exec qrnmon --port 0 $* 2>err" drawn \
        <keys >out 2>&1 &
    exec 5>keys
}

# Waits until the last picture, with '|' for the ends of its lines, matches each pattern.
shown() {
    local pattern
    for pattern in "$@"; do
        until awk 'BEGIN { RS = "\033\\[H" } { last = $0 } END { print last }' drawn |
            sed -E 's/\x1b\[[?0-9;]*[A-Za-z]//g; s/ *\r*$//' | tr '\n' '|' | grep -qE "$pattern"; do
            { [ $SECONDS -lt 60 ] && kill -0 $!; } || fail "no picture with '$pattern'"
            sleep 0.05
        done
    done
}

test_the_live_table_follows_keys_and_the_terminals_size() {
    mapfile -t lines < <(three_queues)
    open_terminal --sort i
    send "${lines[@]}"
    local keys rows columns pattern
    for keys in ' qoa' daoq rqoa nqoa raoq; do # and the order then
        printf '%s' "${keys:0:1}" >&5
        shown "\|.${keys:1:1}[^|]*\|.${keys:2:1}[^|]*\|.${keys:3:1}"
    done
    while read -r rows columns pattern; do
        stty -F "$(cat tty)" rows "$rows" cols "$columns"
        shown "$pattern"
    done <<'END'
10 120 \| audit    .* feed             4242      7      0      0
24 80 \| QUEUE      APP          DEPTH  IN/s OUT/s   AGE OLDEST   SVC   WARN  LOST HEARD\|
24 80 \|!orders     feed             6   100    97 1.2ms   11ms  35us    S40     0
24 80 \| quotes-of~ feed             0  150k  150k 1.2ms   11ms  35us      0     0
4 40 \| audit         7     0     0  1.0m  35us\| and 2 more\|
1 1 ^~\|
END
    printf q >&5
    wait $! || fail "status $?"
}

test_loss_silence_and_foreign_datagrams_are_told() {
    local good
    good=$(record audit 7 40 4)
    open_terminal
    # With no interval, silence is soon.
    send "$(record audit 1 5 0 1 0)" "$(record audit 5 25 0 1 0)" "$(record audit 4 20 0 1 0)"
    shown 'audit .feed, pid 4242.: 3 samples lost before sample 5' '\|[?]audit ' \
        'audit .feed, pid 4242.: silent for ' '1 queue  3 lost  1 silent'
    send "$(record audit 6 30 0 1 0)" 'hello\n' '1,2,3\n' "${good:0:99}" "$good$good" "2${good:1}" \
        "$(printf '%3000s' '' | tr ' ' ,)" "$good\"" '\x1b[2J\0' "$good"
    shown 'audit .feed, pid 4242.: back after' '8 malformed' \
        'malformed datagram from 127.0.0.1:' '\| audit +feed +4242      4 '
    printf q >&5
    wait $! || fail "status $?"
}

test_records_figures_and_a_picture_are_left() {
    local plot='' pid
    ! command -v gnuplot >/dev/null || plot='--plot a.png'
    mapfile -t lines < <(three_queues)
    # shellcheck disable=SC2086
    qrnmon --port 0 --csv csv --prom prom $plot >out 2>err &
    pid=$!
    send "${lines[0]}" "$(cat columns)" rubbish "${lines[@]:1}"
    until [ "$(cat csv)" = "$(cat columns; printf '%s\n' "${lines[@]}")" ]; do
        [ $SECONDS -lt 60 ] || fail "other records: $(cat csv)"
        sleep 0.02
    done
    kill $pid
    wait $pid || fail "status $?"
    local of='{host="127.0.0.1",pid="4242",app="feed",queue="orders",queue_id="6"'
    local line
    for line in "qrn_queue_up$of} 1" '# TYPE qrn_queue_events_total counter' \
        "qrn_queue_events_total$of,type=\"data_msgs\"} 200" \
        "qrn_queue_age_seconds$of,stat=\"max\"} 0.010800" 'qrnmon_malformed_total 1'; do
        grep -qxF "$line" prom || fail "no $line"
    done
    [ -z "$plot" ] || [ "$(head -c 4 a.png)" = $'\x89PNG' ] || fail "no picture"
}

"$1"
