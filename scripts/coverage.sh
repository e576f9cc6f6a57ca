#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Runs the tests on a build that counts branches, and prints how many of the library's branches they
# take, file by file, and each line with a branch that none takes. Branches that only exceptions take are
# not counted. A process that aborts, as tests of fatal reports do, leaves no counts.
#
# usage: scripts/coverage.sh
set -euo pipefail
cd "$(dirname "$0")/.."

build=build/coverage
# Only the library is instrumented. One test of qrnmon fills a disk, which counting would not survive.
flags="--coverage -fprofile-update=atomic -fprofile-filter-files=.*src/lib/qrn/.*"

./scripts/setup.sh build test coverage
cmake -S . -B $build -G Ninja -DCMAKE_BUILD_TYPE=Debug -DQRN_BUILD_EXAMPLES=OFF \
    -DCMAKE_C_FLAGS="$flags" -DCMAKE_CXX_FLAGS="$flags" \
    -DCMAKE_EXE_LINKER_FLAGS=-Wl,-u,__gcov_dump >/dev/null # for a test that ends without storing its counts
cmake --build $build --parallel "$(nproc)" >/dev/null
find $build -name '*.gcda' -delete
ctest --test-dir $build --parallel "$(nproc)" --output-on-failure --exclude-regex "full_disk|^sched_test" \
    >$build/test.log ||
    { tail -n 50 $build/test.log >&2; exit 1; }

# The explorer's own build of the sources has other branches, so it is left out.
gcovr $build/src --root . --object-directory $build --filter src/lib/qrn/ --branches --exclude-throw-branches \
    --exclude-unreachable-branches --json $build/coverage.json --txt $build/coverage.txt
cat $build/coverage.txt
echo "Lines with a branch that no test takes, and why:"
python3 - $build/coverage.json <<'END'
import json, re, sys

# Why the tests of this build cannot take a branch: part of its file's name, what its line looks like.
system = "Linux does not refuse this with valid arguments"
close = "two threads within a few instructions"
race = close + ": left to the explorer"
build = "another build, processor or clock takes it"
never = "no operation of the library makes this: a defence"
reasons = [
    ("", r"KFX_ASSERT\(|->rcv_delivery_batching_cb != nullptr", "fatal: no test goes on behind it"),
    ("qrnqueue", r"pthread_mutex_init|sem_init|init_locks|eventfd_write|errno != EINTR", system),
    ("qrnqueue", r"sem_trywait\(&q->park|a waker is between|q->credit == 0|fd_readable == 0 \|\||"
                 r"q->owed == 0|somebody_is_parked\(idle\)\) \{|idle - one_parked, std|leave_looking\(q\);|"
                 r"^if \(next == nullptr\)|!try_token\(q\) &&", race),
    ("qrnev.cpp", r"if \(ev == nullptr\)|take_event\(evq\)", race),
    ("qrnev_deliver", r"compare_exchange", race),
    ("qrnev_record", r"batch == nullptr", race),
    ("qrnmsg", r"kfx::load\(msg->refs\) > 0", race),
    ("qrnev_record", r"used_again", build),
    ("kfxhrtime", r"cpuid|file == nullptr|read &&|counter_is_invariant|clock_base found|use_counter|"
                  r"refine_age_nsec", build),
    ("kfx.cpp", r"wanted < 0", system),
    ("kfx.cpp", r"slash == nullptr|fatal|kfx_logf", "the process ends, and leaves no counts"),
    ("kfxlog", r"vsnprintf", system),
    ("qrnerr", r"vsnprintf", system),
    ("qrnfd", r"epoll_fd < 0|errno|armed", system),
    ("qrnctx", r"qrn_fd_wait|ends: %s", system),
    ("qrntime", r"QRN_TIMER_MAX_IDS|^if \(node == nullptr\) \{", "would need 16 million timers"),
    ("qrnev_stats.h", r"kinds\[type\]", never),
    ("qrnev_account", r"group; id >= 0", never),
    ("qrnev_cancel", r"bool known|KFX_CHECK", never),
    ("qrnev_deliver", r"timer->hp->xmap == nullptr|ctx == nullptr \|\|", never),
    ("qrnev_dispatch", r"dequeue_ex\(evq_->q, &ev, [01]|value [!=]= nullptr|settle\(|thread_\.end\(", never),
    ("qrnctx", r"known != nullptr|!queue\.detached|queue != nullptr &&|QRN_EVQ_WRCV_MSG_TYPE\)|"
               r"qrn_timer_cancel\(", never),
    ("qrntime", r"timer == nullptr \|\|", never),
    ("qrnfd", r"fdm == nullptr \|\|", never),
    ("qrnev.cpp", r"bool carries|carries\)|link = &evq_head", never),
    ("qrnev_purge", r"bool carries|carries &&|num_events < 1|!= QRN_EVQ_MSG_BUNDLE_TYPE", never),
    ("qrnev_options", r"has_part|rest\.empty|has_text_form", "the table of options has no such name"),
]
# Why the tests leave a branch out that they could take.
each = "compiled once for each type or caller: taken in others"
left = [
    ("", r"KFX_TRACE", "a side of a trace: taken in others"),
    ("qrnctx", r"args == nullptr", "the tests leave out all arguments at once"),
    ("qrnctx", r"qrn_evq_enq_(msg_bundle|cancel)\(", "memory runs out: tested with other events"),
    ("qrnctx", r"ev->ctx != ctx", "two contexts with immediate messages on one queue"),
    ("qrnctx", r"strcmp", "two topics that share a bucket"),
    ("qrnctx", r"accepts\(", "a context raises a source event on a queue that is shut down"),
    ("qrnev", r"copy == nullptr|initialise\(|attr_create\(&made", "a configuration put in the library's place refuses"),
    ("qrnev_account", r"otherwise", "an event that no enqueue operation made"),
    ("qrnev_cancel", r"more_cancels|entry\.type ==", "two objects of one bundle: left to the explorer"),
    ("qrnev_handlers", r"row\.|quote\.", each),
    ("qrnev_monitor", r"KFX_CHECK", "the tests call the hook where it must complain"),
    ("qrnev_options", r"compare_exchange", close),
    ("kfxhrtime", r"refinement_due", close),
    ("qrntime", r"node->defunct == 0", "ids without a timer stand behind the ids in use"),
]


def why(table, name, text):
    return next((r for part, look, r in table if part in name and re.search(look, text)), None)


def shown(taken, total):
    return f"{taken} of {total}, {taken / total:.1%}"


unexplained = 0
taken, missed, unreachable = ({"all": 0, "core": 0} for _ in range(3))
for file in json.load(open(sys.argv[1]))["files"]:
    name = file["file"].rsplit("/", 1)[-1]
    source = open(file["file"]).read().splitlines()
    for line in file["lines"]:
        text = source[line["line_number"] - 1].strip()
        branches = [b["count"] > 0 for b in line["branches"] if not b["throw"]]
        reason = why(reasons, name, text)
        for part in ["all"] + (["core"] if re.match("qrnev|qrnqueue", name) else []):
            taken[part] += branches.count(True)
            missed[part] += branches.count(False)
            unreachable[part] += branches.count(False) if reason else 0
        if not all(branches):
            reason = reason or why(left, name, text)
            unexplained += reason is None
            print(f'{name}:{line["line_number"]}: {text}\n    {reason or "NOT EXPLAINED"}')
for part, what in [("all", "the library"), ("core", "the module and its containers")]:
    total = taken[part] + missed[part]
    print(f"branches of {what}: {shown(taken[part], total)};",
          f"of those it can take: {shown(taken[part], total - unreachable[part])}")
print("lines without an explanation:", unexplained)
END
