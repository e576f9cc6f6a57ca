// SPDX-License-Identifier: Apache-2.0
/* Controllers and their samplers.
 *
 * A controller is found by its format, its transport and the destination that its options name:
 * queues whose monitoring is configured alike share one, queues configured otherwise have their
 * own. Each controller has one thread, the sampler, and a list of watches in the order of their
 * next sample.
 *
 * One lock guards everything here. The sampler marks the watch at the head of the list busy, drops
 * the lock, reads the queue and sends, takes the lock again and moves the watch to its new place.
 * A watch leaves the list only when it is not busy, so when qrnmon_evq_unmonitor() returns the
 * sampler is not inside that queue and cannot find it again. The lock is held around no call that
 * leaves the layer, so it nests with nothing.
 *
 * End of a controller: releases name no controller, so acquisitions are counted together. Each
 * creation leaves one acquisition `fresh` on its controller; the next attempt to monitor uses it
 * up, and the queue that is then watched holds it. When the count falls to what fresh and held
 * ones account for, nobody else can be about to use a controller that has neither, and it ends;
 * with the last release all of them end. The thread that ends a controller takes it off the list
 * first and then, without the lock, joins its sampler.
 *
 * Time: due times are monotonic, so a step of the system clock delays no sample. A sampler that
 * comes late by a whole interval or more skips what it missed.
 *
 * Weak definitions: a program may put its own in their place. */
#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <csignal>
#include <list>
#include <memory>
#include <mutex>
#include <pthread.h>
#include <unistd.h>

#include "qrnmon_layer.h"

namespace qrnmon {

namespace {

using steady = std::chrono::steady_clock;

/* How often the header line is repeated, before the next record. */
constexpr std::chrono::seconds header_interval{10};
/* After so many records in one go the sampler pauses, so that a receiver's buffer holds them. */
constexpr unsigned burst = 32;
constexpr std::chrono::milliseconds burst_pause{1};
/* What is due so soon is sampled along, so that many queues cost few wake-ups. */
constexpr std::chrono::milliseconds slack{5};

/* One queue under one controller. */
struct watch {
    /* Guarded by the lock. */
    qrn_event_queue_t *evq = nullptr; /* this and the next four never change */
    std::string app;
    std::uint64_t id = 0;
    unsigned interval = 0;
    bool holds = false; /* an acquisition */
    bool busy = false;
    steady::time_point due;

    /* The sampler's own. */
    bool named = false;
    std::array<char, 256> queue{};
    std::uint64_t seq = 0;
    figures before{}; /* what came before resets */
    figures last{};   /* what the last sample read */
};

/* Guards every controller, every watch and the two figures below. */
std::mutex lock;
unsigned long acquired; /* successful creations not yet released */
std::uint64_t last_queue_id;

} // namespace

} // namespace qrnmon

/* Guarded by the lock, but for what never changes: format, transport, sender. */
struct qrnmon_sctl_t_stct {
    const qrnmon_format_func_t *format;
    const qrnmon_transport_func_t *transport;
    qrnmon::endpoint to;
    qrnmon::udp_sender sender;
    unsigned long fresh = 0;
    bool ending = false;
    std::list<qrnmon::watch> watches; /* by due time */
    std::condition_variable wake;     /* the list's head or `ending` changed */
    std::condition_variable idle;     /* a watch is no longer busy */
    pthread_t sampler{};
    qrnmon::steady::time_point header_due{}; /* the sampler's own */
};

namespace qrnmon {

namespace {

using controllers = std::list<std::unique_ptr<qrnmon_sctl_t>>;

/* Never destroyed: queues may be deleted while the process exits. */
controllers &all()
{
    static controllers &list = *new controllers;
    return list;
}

/* --- One sample ------------------------------------------------------------------------------- */

/* An option of a running queue; `otherwise` when it cannot be read. */
template <class T>
T option(qrn_event_queue_t *evq, const char *name, T otherwise)
{
    T value{};
    std::size_t size = sizeof value;
    return qrn_event_queue_getopt(evq, name, &value, &size) == QRN_OK ? value : otherwise;
}

/* A queue's name never changes. */
void learn_name(watch &of)
{
    std::size_t size = of.queue.size();
    if (qrn_event_queue_str_getopt(of.evq, "event_queue_name", of.queue.data(), &size) != QRN_OK)
        of.queue[0] = '\0';
    of.named = true;
}

/* Makes totals that never go back out of totals that a reset sets to zero. The total of all events
 * is summed up again, so that it agrees with its parts. */
void bridge_resets(watch &of, figures &stats)
{
    qrn_ulong_t sum = 0;
    for (std::size_t i = 0; i < stats.size(); ++i) {
        if (columns[first_figure + i].what != kind::total)
            continue;
        if (stats[i] < of.last[i])
            of.before[i] += of.last[i];
        of.last[i] = stats[i];
        stats[i] += of.before[i];
        sum += stats[i];
    }
    stats[column_at("events_tot") - first_figure] = sum;
}

/* The size is counted apart from the statistics, and only where a size warning is set. */
std::uint64_t depth_of(const watch &of, const sample &taken, std::size_t size_limit)
{
    constexpr std::size_t events = column_at("events") - first_figure;
    if (taken.counted)
        return static_cast<std::uint64_t>(std::max(static_cast<long>(taken.stats[events]), 0L));
    int size = size_limit > 0 ? qrn_event_queue_size(of.evq) : -1;
    return size < 0 ? unknown : static_cast<std::uint64_t>(size);
}

/* The thresholds that the queue is above now, as the monitor callback's report would put it. */
void look_at_warnings(const watch &of, sample &taken)
{
    constexpr std::size_t age_mean = column_at("age_mean") - first_figure;
    auto size_limit = option(of.evq, "queue_size_warning", std::size_t{0});
    auto delay_limit = option(of.evq, "queue_delay_warning", qrn_ulong_t{0});
    taken.depth = depth_of(of, taken, size_limit);
    taken.warning = 0;
    if (size_limit > 0 && taken.depth != unknown && taken.depth > size_limit)
        taken.warning |= QRN_EVQ_MON_SIZE_WARNING;
    if (delay_limit > 0 && taken.stats[age_mean] > delay_limit)
        taken.warning |= QRN_EVQ_MON_DELAY_WARNING;
    qrn_event_queue_retrieve_warnings(of.evq, &taken.size_warnings, &taken.delay_warnings);
}

/* False when the queue gives no statistics. */
bool take_sample(watch &of, sample &taken)
{
    if (!of.named)
        learn_name(of);
    qrn_event_queue_stats_t stats;
    if (qrn_event_queue_retrieve_stats(of.evq, &stats) != QRN_OK)
        return false;
    taken.stats = std::bit_cast<figures>(stats);
    clock_gettime(CLOCK_REALTIME, &taken.real);
    clock_gettime(CLOCK_MONOTONIC, &taken.mono);
    taken.seq = ++of.seq;
    taken.pid = getpid();
    taken.app = of.app;
    taken.queue = of.queue.data();
    taken.queue_id = of.id;
    taken.interval = of.interval;
    taken.counted = option(of.evq, "queue_count_enabled", 0) != 0;
    bridge_resets(of, taken.stats);
    look_at_warnings(of, taken);
    return true;
}

void send_sample(qrnmon_sctl_t &from, watch &of)
{
    sample taken;
    if (!take_sample(of, taken))
        return;
    record_buffer out;
    if (steady::time_point now = steady::now(); now >= from.header_due) {
        from.sender.send(from.format->header(out));
        from.header_due = now + header_interval;
    }
    from.sender.send(from.format->record(out, taken));
}

/* --- The sampler ------------------------------------------------------------------------------ */

/* Puts the watch at the head where its due time belongs. Equal intervals make that the end, which
 * is looked at first. */
void sort_in_first(std::list<watch> &watches)
{
    auto first = watches.begin();
    auto place = watches.end();
    while (std::prev(place) != first && std::prev(place)->due > first->due)
        --place;
    watches.splice(place, watches, first);
}

void sample_first(qrnmon_sctl_t &from, std::unique_lock<std::mutex> &held)
{
    watch &first = from.watches.front();
    first.busy = true;
    held.unlock();
    send_sample(from, first);
    held.lock();
    first.busy = false;
    steady::time_point now = steady::now();
    std::chrono::seconds interval{first.interval};
    first.due += interval;
    if (first.due <= now)
        first.due = now + interval;
    /* A queue that was added meanwhile may stand before it. */
    auto self = std::ranges::find_if(from.watches, [&](const watch &w) { return &w == &first; });
    from.watches.splice(from.watches.begin(), from.watches, self);
    sort_in_first(from.watches);
    from.idle.notify_all();
}

void run_sampler(qrnmon_sctl_t &from)
{
    std::unique_lock held(lock);
    unsigned in_a_row = 0;
    while (!from.ending) {
        if (from.watches.empty()) {
            from.wake.wait(held);
        } else if (steady::time_point due = from.watches.front().due; steady::now() + slack < due) {
            from.wake.wait_until(held, due);
            in_a_row = 0;
        } else if (in_a_row == burst) {
            from.wake.wait_for(held, burst_pause);
            in_a_row = 0;
        } else {
            sample_first(from, held);
            ++in_a_row;
        }
    }
}

/* The application's signal handlers do not run on the sampler. */
int start_sampler(qrnmon_sctl_t &of)
{
    auto body = [](void *sctl) -> void * {
        run_sampler(*static_cast<qrnmon_sctl_t *>(sctl));
        return nullptr;
    };
    sigset_t every;
    sigset_t before;
    sigfillset(&every);
    pthread_sigmask(SIG_SETMASK, &every, &before);
    int failed = pthread_create(&of.sampler, nullptr, body, &of);
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    if (failed != 0)
        return fail(error_system, "no thread for the sampler (error %d)", failed);
    pthread_setname_np(of.sampler, "qrnmon");
    return 0;
}

/* --- Life of a controller --------------------------------------------------------------------- */

/* The lock is held. */
qrnmon_sctl_t *find_alike(const qrnmon_format_func_t *format,
                          const qrnmon_transport_func_t *transport, const endpoint &to)
{
    for (const auto &each : all())
        if (each->format == format && each->transport == transport && each->to == to)
            return each.get();
    return nullptr;
}

/* The lock is held. A controller is looked up rather than trusted: a null or stale one is an
 * error. */
qrnmon_sctl_t *find(const qrnmon_sctl_t *sctl)
{
    for (const auto &each : all())
        if (each.get() == sctl)
            return each.get();
    fail(error_argument, "the controller does not exist");
    return nullptr;
}

/* Without the lock, since a host may take long to resolve; null on failure. */
std::unique_ptr<qrnmon_sctl_t> make(const qrnmon_format_func_t *format,
                                    const qrnmon_transport_func_t *transport, const endpoint &to)
{
    auto made = std::make_unique<qrnmon_sctl_t>();
    made->format = format;
    made->transport = transport;
    made->to = to;
    if (made->sender.open(to) != 0)
        return nullptr;
    return made;
}

/* Modules are opaque, so only the layer's own can be valid. */
int check_modules(const qrnmon_format_func_t *format, const void *format_opts,
                  const qrnmon_transport_func_t *transport)
{
    if (format != &csv_format)
        return fail(error_argument, "unknown format");
    if (format_opts != nullptr)
        return fail(error_argument, "the format takes no options");
    if (transport != &transport_qrn && transport != &transport_qrnsnmp)
        return fail(error_argument, "unknown transport");
    return 0;
}

/* The lock is held: the controller, with its sampler running, joins the others. */
qrnmon_sctl_t *add(std::unique_ptr<qrnmon_sctl_t> made)
{
    all().push_back(std::move(made));
    if (start_sampler(*all().back()) == 0)
        return all().back().get();
    all().pop_back();
    return nullptr;
}

/* Counts one acquisition of the controller that suits, or of `made` when there is none: null then
 * when that is null too. */
qrnmon_sctl_t *acquire(const qrnmon_format_func_t *format, const qrnmon_transport_func_t *transport,
                       const endpoint &to, std::unique_ptr<qrnmon_sctl_t> made)
{
    std::lock_guard held(lock);
    qrnmon_sctl_t *found = find_alike(format, transport, to);
    if (found == nullptr && made != nullptr)
        found = add(std::move(made));
    if (found != nullptr) {
        ++found->fresh;
        ++acquired;
    }
    return found;
}

int create(qrnmon_sctl_t **sctl, const qrnmon_format_func_t *format, const void *format_opts,
           const qrnmon_transport_func_t *transport, const char *transport_opts)
{
    if (sctl == nullptr)
        return fail(error_argument, "nowhere to store the controller");
    if (check_modules(format, format_opts, transport) != 0)
        return -1;
    endpoint to;
    to.port = transport->default_port;
    if (parse_endpoint(transport_opts, to) != 0)
        return -1;
    qrnmon_sctl_t *found = acquire(format, transport, to, nullptr);
    if (found == nullptr) {
        auto made = make(format, transport, to);
        if (made != nullptr)
            found = acquire(format, transport, to, std::move(made));
    }
    if (found == nullptr)
        return -1;
    *sctl = found;
    return 0;
}

/* The lock is held: takes the controllers that nobody can use any more off the list. */
controllers take_unused()
{
    unsigned long accounted = 0;
    for (const auto &each : all())
        accounted += each->fresh + static_cast<unsigned long>(
                                       std::ranges::count_if(each->watches, &watch::holds));
    controllers unused;
    for (auto it = all().begin(); it != all().end();) {
        auto next = std::next(it);
        bool idle = (*it)->fresh == 0 && (*it)->watches.empty();
        if (acquired == 0 || (idle && acquired <= accounted))
            unused.splice(unused.end(), all(), it);
        it = next;
    }
    for (const auto &each : unused) {
        each->ending = true;
        each->wake.notify_all();
    }
    return unused;
}

/* --- Watches ---------------------------------------------------------------------------------- */

struct watched {
    qrnmon_sctl_t *by; /* null: nobody watches the queue */
    std::list<watch>::iterator where;
};

/* The lock is held. */
watched find_watch(const qrn_event_queue_t *evq)
{
    for (const auto &each : all())
        for (auto it = each->watches.begin(); it != each->watches.end(); ++it)
            if (it->evq == evq)
                return {each.get(), it};
    return {nullptr, {}};
}

int monitor(qrnmon_sctl_t *sctl, qrn_event_queue_t *evq, const char *appid, unsigned interval)
{
    std::lock_guard held(lock);
    qrnmon_sctl_t *by = find(sctl);
    if (by == nullptr)
        return -1;
    bool holds = by->fresh > 0;
    by->fresh -= holds ? 1 : 0;
    if (evq == nullptr)
        return fail(error_argument, "no queue");
    if (interval == 0)
        return fail(error_argument, "the interval must be at least a second");
    if (find_watch(evq).by != nullptr)
        return fail(error_state, "the queue is watched already");
    std::string app = appid != nullptr ? appid : "";
    watch &added = by->watches.emplace_front();
    added.evq = evq;
    added.app = std::move(app);
    added.id = ++last_queue_id;
    added.interval = interval;
    added.holds = holds;
    added.due = steady::now();
    sort_in_first(by->watches);
    by->wake.notify_all();
    return 0;
}

/* Whichever controller the queue was handed to: a queue may have been told of another since. */
int unmonitor(const qrn_event_queue_t *evq)
{
    std::unique_lock held(lock);
    watched found = find_watch(evq);
    while (found.by != nullptr && found.where->busy) {
        found.by->idle.wait(held);
        found = find_watch(evq);
    }
    if (found.by == nullptr)
        return fail(error_state, "the queue is not watched");
    found.by->watches.erase(found.where);
    return 0;
}

} // namespace

} // namespace qrnmon

[[gnu::weak]] int qrn_automon_sctl_create(qrnmon_sctl_t **sctl, const qrnmon_format_func_t *format,
                                          const void *format_opts,
                                          const qrnmon_transport_func_t *transport,
                                          const char *transport_opts)
try {
    int result = qrnmon::create(sctl, format, format_opts, transport, transport_opts);
    return result == 0 ? 0 : qrnmon::fail_creation();
} catch (const std::bad_alloc &) {
    qrnmon::fail(qrnmon::error_system, "out of memory");
    return qrnmon::fail_creation();
}

[[gnu::weak]] void qrn_automon_sctl_destroy(void)
{
    qrnmon::controllers unused;
    {
        std::lock_guard held(qrnmon::lock);
        if (qrnmon::acquired == 0)
            return;
        --qrnmon::acquired;
        unused = qrnmon::take_unused();
    }
    for (const auto &each : unused)
        pthread_join(each->sampler, nullptr);
}

[[gnu::weak]] int qrnmon_evq_monitor(qrnmon_sctl_t *sctl, qrn_event_queue_t *evq, const char *appid,
                                     unsigned interval)
try {
    return qrnmon::monitor(sctl, evq, appid, interval);
} catch (const std::bad_alloc &) {
    return qrnmon::fail(qrnmon::error_system, "out of memory");
}

[[gnu::weak]] int qrnmon_evq_unmonitor(qrnmon_sctl_t *, qrn_event_queue_t *evq)
{
    return qrnmon::unmonitor(evq);
}
