#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Plants one fault at a time in a copy of the last commit and shows which test notices it: one of the
# programs that test the core, else the same under the address or the thread sanitizer. A fault whose text
# is not found exactly once is an error, and so is one that does not compile. Fails when more than one
# fault in ten survives.
#
# usage: scripts/mutants.sh [PATTERN]       only the faults whose name matches the regular expression
set -euo pipefail
cd "$(dirname "$0")/.."

pattern=${1:-.}
work=build/mutants
copy=$work/tree
report=$work/report.txt
names=() files=() edits=()

# fault FILE NAME OLD NEW [OLD NEW]...: each OLD stands exactly once in src/lib/qrn/FILE.
fault() {
    local file=src/lib/qrn/$1 name=$2
    shift 2
    [[ $name =~ $pattern ]] || return 0
    names+=("$name") files+=("$file")
    edits+=("$(printf '%s\x1e' "$@")")
}

# --- The faults ------------------------------------------------------------------------------------

q=qrnqueue.cpp
fault $q "append: post before link" '        n->value = value;' '        n->value = value;
        has_credit = use_credit(q);
        if (!has_credit)
            sem_post(&q->sem_sz);' '        has_credit = use_credit(q);
    }' '    }' '    if (!has_credit)
        sem_post(&q->sem_sz);
    wake_one' '    wake_one'
fault $q "append: no token" '    if (!has_credit)
        sem_post(&q->sem_sz);' ''
fault $q "append: a token in spite of a credit" '    if (!has_credit)
        sem_post' '    sem_post'
fault $q "append: a credit is used for ever" '    --q->credit;' ''
fault $q "append: wakes nobody" '    wake_one(q, idle_after_append(q));' ''
fault $q "append: looks for sleepers before the post" '    if (!has_credit)
        sem_post(&q->sem_sz);
    wake_one(q, idle_after_append(q));' '    wake_one(q, idle_after_append(q));
    if (!has_credit)
        sem_post(&q->sem_sz);'
fault $q "append: published without order" \
    'std::memory_order_release); // publishes' 'std::memory_order_relaxed); // publishes'
fault $q "take: the link is read without order" 'return kfx::load(n->next, std::memory_order_acquire);' \
    'return kfx::load(n->next, std::memory_order_relaxed);'
fault $q "take: without the head lock" '    end_guard head(q->head_lock);
    node *first' '    node *first'
fault $q "take: hook after unlock" '    if (cbinfo != nullptr)
        cbinfo->cbproc(*value, cbinfo->clientd);
    return true;' '    pthread_mutex_unlock(&q->head_lock);
    if (cbinfo != nullptr)
        cbinfo->cbproc(*value, cbinfo->clientd);
    pthread_mutex_lock(&q->head_lock);
    return true;'
fault $q "take: the node is not retired" '    retire(q, q->head);
    q->head = first;
    update_fd(q);' '    q->head = first;
    update_fd(q);'
fault $q "take: owes two tokens for an item" '    ++q->owed;
    if (q->flow' '    q->owed += 2;
    if (q->flow'
fault $q "take: owes nothing" '        owe_token(q);' '        ;'
fault $q "take: owes nothing for an item it looked for" '    if (first != nullptr)
        ++q->owed; // settled' '    // settled'
fault $q "take: looks without the head lock" \
    '    node *first = who == taker::waits ? look_for_item(q) : nullptr;' '    node *first = nullptr;
    if (who == taker::waits) {
        pthread_mutex_unlock(&q->head_lock);
        first = look_for_item(q);
        pthread_mutex_lock(&q->head_lock);
    }'
fault $q "take: what was lent stays lent" '        call_in_tokens(q);' '        ;'
fault $q "take: tokens are lent and owed" 'std::exchange(q->owed, 0)' 'q->owed'
fault $q "take: a stale token stays owed" '            return after(q->head);
        --q->owed;' '            return after(q->head);'
fault $q "take: drops the token of an item" '            return after(q->head);
        --q->owed;' '            return nullptr;
        --q->owed;'
fault $q "wait: parks without another try" '    *got = try_token(q); // rule W1' '    *got = false;'
fault $q "wait: leaves looking without passing on" \
    '    pass_on(q, kfx::sub(q->idle, one_looking) - one_looking);' '    kfx::sub(q->idle, one_looking);'
fault $q "wait: leaves parked without passing on" 'return pass_on(q, idle - one_parked);' 'return;'
fault $q "wait: insists on the waker's post" '        if (sem_trywait(&q->park) == 0)
            return leave_looking(q);' '        while (sem_wait(&q->park) != 0)
            ;
        return leave_looking(q);'
fault $q "wait: the woken does not count as looking" \
    'idle - one_parked + one_looking,' 'idle - one_parked,'
fault $q "wait: wakes only when somebody looks" \
    'return somebody_is_parked(idle) && !somebody_looks(idle);' \
    'return somebody_is_parked(idle) && somebody_looks(idle);'
fault $q "pass: a removed item keeps its token twice" '    ++q->owed;
    settle_tokens(q);' '    q->owed += 2;
    settle_tokens(q);'
fault $q "pass: last item without the tail lock" \
    '        kfx::lock_guard tail(q->tail_lock); // an appender may be linking behind it
' ''
fault $q "pass: last item without a second look" '        next = after(gone);
        if (next == nullptr)' '        if (next == nullptr)'
fault $q "pass: the tail stays on the removed node" '            q->tail = prev;' '            ;'
fault $q "pass: without the head lock" '    kfx::lock_guard head(q->head_lock);
    node *const last' '    node *const last'
fault $q "pass: callback before the unlink" '            unlink_after(q, prev);
            gone(item);' '            gone(item);
            unlink_after(q, prev);'
fault $q "memory: a segment is given up one node early" \
    '++s->retired == segment_nodes' '++s->retired == segment_nodes - 1'
fault $q "memory: a segment is used again as it was" '    s->retired = 0;' ''
fault $q "memory: the segment cut last is lost" \
    'if (q->fresh != q->fresh_end && segment_of(q->fresh)' 'if (false && segment_of(q->fresh)'
fault $q "memory: a second spare segment is lost" \
    '    std::free(kfx::exchange(q->spare' '    static_cast<void>(kfx::exchange(q->spare'
fault $q "descriptor: not shown on append" '        show_queued(q, fd);
    if (!has' '        static_cast<void>(fd);
    if (!has'
fault $q "descriptor: cleared without a look" \
    'if (q->fd_readable == 0 || after(q->head) != nullptr)' 'if (q->fd_readable == 0)'
fault $q "list: equal priorities come last first" 'prev->pri > pri' 'prev->pri >= pri'

e=qrnev_enqueue.cpp
fault $e "enqueue: counts after the append" '    if (kfx::load(evq->attr->q_count) != 0) [[unlikely]]
        count_in(ev);
    probe' '    probe' '    if (result == -1) [[unlikely]]' '    if (kfx::load(evq->attr->q_count) != 0)
        count_in(ev);
    if (result == -1)'
fault $e "enqueue: a failure keeps the total" '            kfx::sub(evq->*g.now, n);
            kfx::sub(evq->*g.tot, n);' '            kfx::sub(evq->*g.now, n);'
fault $e "enqueue: a failure keeps the size" '        kfx::sub(evq->qsz, entering_size(ev));' '        ;'
fault $e "enqueue: a failure keeps the descriptor suspended" \
    '        qrn_fd_resume(ev->ctx->fdm, ev->info.io.handle, ev->info.io.ev);
    std::free(ev);' '        ;
    std::free(ev);'
fault $e "enqueue: a failure keeps the record" '    std::free(ev);
    return -1;' '    return -1;'
fault $e "enqueue: ages only with a monitor" \
    'evq->monproc != nullptr || kfx::load(evq->attr->q_age) != 0' 'evq->monproc != nullptr'
fault $e "enqueue: cancel events decline after shutdown" \
    '    qrn_event_t *ev = make_event(evq, QRN_EVQ_CANCEL_TYPE' \
    '    if (is_shut_down(evq))
        return 0;
    qrn_event_t *ev = make_event(evq, QRN_EVQ_CANCEL_TYPE'
fault $e "enqueue: a bundle sizes as one" 'size_and_stamp(evq, ev, entering_size(ev))' \
    'size_and_stamp(evq, ev, 1)'
fault $e "enqueue: a descriptor is not suspended" '    qrn_fd_suspend(ctx->fdm, handle, ev);' ''

d=qrnev_dispatch.cpp
fault $d "dispatch: the deadline itself is too late" 'now.tv_usec > end_.tv_usec' 'now.tv_usec >= end_.tv_usec'
fault $d "dispatch: warns at the limit" 'if (sz > limit)' 'if (sz >= limit)'
fault $d "dispatch: a bundle leaves as one" 'kfx::sub(evq->qsz, size_of(ev))' 'kfx::sub(evq->qsz, 1)'
fault $d "dispatch: no hook" 'return node_ != nullptr ? &hook_ : nullptr;' 'return nullptr;'
fault $d "dispatch: unblock goes on" 'ended_ = failed_ || ev->type == QRN_EVQ_UNBLOCK_TYPE;' 'ended_ = failed_;'
fault $d "dispatch: a bundle ends before its registration" '        int result = finish();
        qrn_event_t *ev = std::exchange(ev_, nullptr);
        free_released_bundle(ev);' '        free_released_bundle(ev_);
        int result = finish();
        qrn_event_t *ev = std::exchange(ev_, nullptr);'
fault $d "dispatch: in flow, events keep what they own" '        release_owned(ev, 0);
' ''
fault $d "dispatch: a thrown warning keeps the message" '            release_undelivered(ev_);' '            ;'
fault $d "dispatch: the minimum rises" 'if (sample < kfx::load(*min))' 'if (sample > kfx::load(*min))'
fault $d "dispatch: means weigh the newest most" \
    '0.9 * static_cast<double>(old) + 0.1 *' '0.1 * static_cast<double>(old) + 0.9 *'

l=qrnev_deliver.cpp
fault $l "deliver: message released before its callback" \
    '    message_guard message(msg);' '    { message_guard message(msg); }'
fault $l "deliver: defunct objects get messages" \
    '(target != nullptr && kfx::load(*target) != 0) || is_shut_down(evq)' 'target == ptr(evq) || is_shut_down(evq)'
fault $l "deliver: a live recurring timer loses its id" 'if (timer_.recurring == 0 ||' 'if (timer_.recurring < 1000000 ||'
fault $l "deliver: a cancelled timer keeps its id" \
    'timer_.recurring == 0 || is_cancelled(timer_.timer, timer_.id)' 'timer_.recurring == 0'
fault $l "deliver: a delivered callback is deleted too" '    callback.delproc = nullptr;
' ''
fault $l "deliver: a cancel event frees its object twice" '    cancel.exec_on_delete = 0;
' ''
fault $l "deliver: an object in use is freed" \
    'if (qrn_evq_check_obj(evq, ev) == 0) {' 'if (qrn_evq_check_obj(evq, ev) >= 0) {'
fault $l "deliver: a bundle's time is not shared out" \
    'data_svctime / data);' 'data_svctime);'

c=qrnev_cancel.cpp
fault $c "cancel: hook without the lock" \
    '    kfx::lock_guard lock(evq_cb_info->evq->cancel_cb_lock);
' ''
fault $c "cancel: a finished event stays in the registry" '        node->ev = nullptr;
    else' '        ;
    else'
fault $c "cancel: a second deferred free replaces the first" \
    '    if (node->cancel_info == nullptr) {
        node->cancel_info = record;' '    if (node->cancel_info == nullptr || record != nullptr) {
        node->cancel_info = record;'
fault $c "cancel: one holder is not counted" 'record->dispatch_thrd_cnt = ++matches;' \
    'record->dispatch_thrd_cnt = ++matches > 1 ? matches - 1 : matches;'
fault $c "cancel: the last but one makes the call" 'if (cbinfo->dispatch_thrd_cnt > 0)' 'if (cbinfo->dispatch_thrd_cnt > 1)'
fault $c "cancel: only the first entry of a bundle counts" 'i < bundle->num_events; ++i) {
        const qrn_event_t &entry = bundle->events[i];
        if (entry.ctx == nullptr)' 'i < bundle->num_events && i < 1; ++i) {
        const qrn_event_t &entry = bundle->events[i];
        if (entry.ctx == nullptr)'
fault $c "cancel: unregisters without the lock" '    kfx::lock_guard lock(evq->cancel_cb_lock);
    KFX_ASSERT(node != nullptr, "node!=NULL");
    KFX_ASSERT(node->next' '    KFX_ASSERT(node != nullptr, "node!=NULL");
    KFX_ASSERT(node->next'
fault $c "cancel: at once in spite of a failure" 'cbinfo) != 0)
        return 0;' 'cbinfo) > 0)
        return 0;'

p=qrnev_purge.cpp
fault $p "purge: the size stays" '    if (sized)
        kfx::sub(evq->qsz, 1);' '    static_cast<void>(sized);'
fault $p "purge: a message stays counted" '        kfx::sub(evq->*groups[kind.group].now, 1);' '        ;'
fault $p "purge: a bundle's entry is not emptied" '        entry.ctx = nullptr;
' ''
fault $p "purge: a bundle goes with the other kind's messages" \
    'if (bundle->data_msgs != 0 || bundle->wrcv_msgs != 0)' 'if (bundle->*kind.carried != 0)'
fault $p "purge: readiness must be the same" '(q.info.io.ev & k.info.io.ev) != 0' 'q.info.io.ev == k.info.io.ev'
fault $p "purge: a response keeps its message" \
    '    release_undelivered(static_cast<const qrn_event_t *>(outbuff));' '    ;'
fault $p "purge: an emptied event keeps its record" \
    '        qrn_event_delete_ex(static_cast<event *>(const_cast<void *>(elem)), 0);' '        ;'
fault $p "purge: timers also where they stay" 'if (node->q->attr->q_purge_on_close != 0)' 'if (node->q != nullptr)'

v=qrnev.cpp
fault $v "shutdown: drains before the flag" '    kfx::store(evq->shutdown, 1);
    while' '    while' '    KFX_TRACE(KFX_DBG_LIFE, "evq %p shutdown' '    kfx::store(evq->shutdown, 1);
    KFX_TRACE(KFX_DBG_LIFE, "evq %p shutdown'
fault $v "shutdown: a discarded event stays counted" '    count_out(evq, ev);
    release_undelivered(ev);
    qrn_event_delete_ex' '    release_undelivered(ev);
    qrn_event_delete_ex'
fault $v "shutdown: a discarded message is kept" '    release_undelivered(ev);
    qrn_event_delete_ex' '    qrn_event_delete_ex'
fault $v "release: the report is cleared too late" '    qrn_msg_clr_wqx_cr(msg);
    qrn_msg_delete(msg);' '    qrn_msg_delete(msg);
    qrn_msg_clr_wqx_cr(msg);'
fault $v "delete: runs delete procedures" 'discard(evq, ev, 1);' 'discard(evq, ev, 0);'
fault $v "create: a failed monitor keeps its controller" '        qrn_automon_sctl_destroy();
        evq->mon_sctl = nullptr;' '        evq->mon_sctl = nullptr;'

r=qrnev_record.cpp
fault $r "records: the depot without its lock" '    kfx::lock_guard lock(depot_lock);
    idle_record *batch = depot;' '    idle_record *batch = depot;'
fault $r "records: a thread's stash outlives it" '        empty_stash(0);
        ended = true;' '        ended = true;'

t=qrntime.cpp
fault $t "timers: a recurring one skips a beat too many" '(missed + 1) *' '(missed + 2) *'
fault $t "timers: due together, the newest comes first" 'return x.seq < y.seq;' 'return x.seq > y.seq;'
fault $t "timers: an id is given back while it is named" \
    'if (node.defunct != 0 && !in_limbo(node))' 'if (node.defunct != 0)'

# --- Playing them ----------------------------------------------------------------------------------

# The program that is most likely to notice a fault of a file comes first.
declare -A own=(
    [qrnqueue]=queue_test [qrnev_enqueue]=enqueue_test [qrnev_dispatch]=dispatch_test
    [qrnev_deliver]=deliver_test [qrnev_cancel]=cancel_test [qrnev_purge]=purge_test
    [qrnev]=evq_test [qrnev_record]=stress_test [qrntime]=time_test
)
likely=(queue_test sched_test)
further=(cancel_test deliver_test dispatch_test enqueue_test evq_test purge_test stats_test
    stress_test ctx_test fault_test alloc_test descriptor_test time_test qrnsoak)
unset SCHED_RUNS SCHED_SEED

configure() {
    local launcher=()
    ! command -v ccache >/dev/null || launcher=(-DCMAKE_CXX_COMPILER_LAUNCHER=ccache)
    cmake -S $copy -B "$work/$1" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo "${launcher[@]}" \
        -DQRN_BUILD_EXAMPLES=OFF -DQRN_INSTALL=OFF -DQRN_SANITIZE="$2" >/dev/null
}

# build TREE PROGRAM...
build() {
    ninja -C "$work/$1" "${@:2}" >$work/build.log 2>&1 && return
    tail -n 20 $work/build.log >&2
    return 1
}

# runs TREE PROGRAM: whether the program passes; else says what failed in it. The explorer finds deadlocks
# by itself; whatever else runs for a minute hangs.
runs() {
    local start=() program seconds=60 status=0 test
    [ "$1" != thread ] || ! setarch -R true 2>/dev/null || start=(setarch -R)
    program=$(find "$work/$1" -name "$2" -type f -perm -u+x)
    start+=("$program")
    [ "$2" != qrnsoak ] || start+=(4 1)
    [ "$2" != sched_test ] || seconds=300
    GTEST_FAIL_FAST=1 timeout -k 5 $seconds "${start[@]}" >$work/test.log 2>&1 || status=$?
    [ $status -ne 0 ] || return 0
    test=$(sed -nE 's/^\[  FAILED  \] ([^ ,]+).*/\1/p' $work/test.log | head -n 1)
    [ -n "$test" ] || test=$(sed -n '/Sanitizer:/q; s/^\[ RUN      \] //p' $work/test.log | tail -n 1)
    [ $status -ne 124 ] || test+=" hangs"
    echo "$2${test:+: $test}$([ "$1" = plain ] || echo " ($1 sanitizer)")"
    return 1
}

# killer TREE PROGRAM...: the first that fails, built in one go; nothing when all pass.
killer() {
    build "$@" || return 1
    local program
    for program in "${@:2}"; do
        runs "$1" "$program" || return 0
    done
}

# killer_of FILE: goes from what is quick to what is slow.
killer_of() {
    local mine=${own[$(basename "$1" .cpp)]} found try
    for try in "plain $mine" "plain ${likely[*]}" "plain ${further[*]}" \
        "address $mine ${likely[*]} stress_test qrnsoak" "thread ${likely[*]} stress_test qrnsoak"; do
        read -ra try <<<"$try"
        found=$(killer "${try[@]}") || return 1
        [ -z "$found" ] || break
    done
    echo "$found"
}

# Replaces each OLD by its NEW in a file of the copy.
edit() {
    perl -0777 -e '
        my ($file, @pairs) = ($ARGV[0], split /\x1e/, $ARGV[1], -1);
        open(my $in, "<", $file) or die "$file: $!\n";
        my $text = <$in>;
        while (@pairs > 1) {
            my ($old, $new) = splice @pairs, 0, 2;
            my $at = index $text, $old;
            die "text not found: $old\n" if $at < 0;
            die "text found more than once: $old\n" if index($text, $old, $at + 1) >= 0;
            substr($text, $at, length $old) = $new;
        }
        open(my $out, ">", $file) or die "$file: $!\n";
        print $out $text;' "$copy/$1" "$2"
}

restore() {
    git show "$commit:$1" >"$copy/$1"
}

check_edits() {
    local i wrong=0
    for i in "${!names[@]}"; do
        edit "${files[$i]}" "${edits[$i]}" || { echo "mutants: ${names[$i]}: does not apply" >&2; wrong=1; }
        restore "${files[$i]}"
    done
    return $wrong
}

check_without_fault() {
    local try failed
    for try in "plain ${likely[*]} ${further[*]}" "address ${likely[*]} stress_test qrnsoak" \
        "thread ${likely[*]} stress_test qrnsoak"; do
        read -ra try <<<"$try"
        failed=$(killer "${try[@]}") || exit 1
        [ -z "$failed" ] || { echo "mutants: $failed fails without any fault" >&2; exit 1; }
    done
}

./scripts/setup.sh build test
commit=$(git rev-parse HEAD)
rm -rf $work
mkdir -p $copy
git archive "$commit" | tar -x -C $copy
check_edits
configure plain ""
configure address address,undefined
configure thread thread
check_without_fault

survivors=0
for i in "${!names[@]}"; do
    edit "${files[$i]}" "${edits[$i]}"
    found=$(killer_of "${files[$i]}") || {
        echo "mutants: ${names[$i]}: does not compile" >&2
        exit 1
    }
    [ -n "$found" ] || survivors=$((survivors + 1))
    printf '%-54s %s\n' "${names[$i]}" "${found:-SURVIVES}" | tee -a $report
    restore "${files[$i]}"
done
echo "mutants: ${#names[@]} faults, $((${#names[@]} - survivors)) noticed, $survivors survive ($report)"
[ $((survivors * 10)) -le ${#names[@]} ]
