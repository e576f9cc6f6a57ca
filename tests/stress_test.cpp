// SPDX-License-Identifier: Apache-2.0
//
// Everything at once: producers, dispatchers, a thread that purges and one that deletes receivers; some
// queues are shut down in the end, with what they still hold. Each event ends once, each dispatcher gets
// a producer's events in order, and nobody is inside an event of a receiver whose cancellation callback
// was made.
#include <list>
#include <random>
#include <thread>

#include "objects.h"

using namespace test;

namespace {

constexpr unsigned producers = 4, dispatchers = 4, each = 1200;

struct Target {
    qrn_rcv_t *rcv = kfx::alloc_zeroed<qrn_rcv_t>();
    std::atomic<int> deleted = 0, gone = 0; // gone: calls of its cancellation callback
};

struct Item {
    int type = 0;
    unsigned producer = 0, number = 0;
    Target *target = nullptr;
    std::atomic<int> delivered = 0, discarded = 0;
};

thread_local unsigned next[producers]; // number that this thread may get of a producer, at least

template <class... Args>
int reach(Args... args)
{
    const void *clientd = std::get<sizeof...(args) - 1>(std::tie(args...));
    Item &item = *static_cast<Item *>(const_cast<void *>(clientd));
    for (int look = 0; look < 2; ++look) {
        EXPECT_TRUE(!item.target || (item.target->gone == 0 && item.target->rcv->ctx));
        std::this_thread::yield();
    }
    EXPECT_LE(std::exchange(next[item.producer], item.number + 1), item.number);
    ++item.delivered;
    return 0;
}

// Both messages of a bundle stand for one item and one receiver, so a purge takes out both or none.
int reach_bundle(qrn_event_bundle_t *bundle, void *)
{
    EXPECT_EQ(bundle->data_msgs, 2);
    return reach(bundle->events[1].info.msg.clientd);
}

struct Producer : World {
    std::mutex lock; // events of a receiver are made with it held, and the receiver is replaced
    std::list<Target> targets;
    std::array<Item, each> items;
    std::atomic<unsigned> made = 0;

    Producer()
    {
        ctx.rcv_delivery_batching_cb = reach_bundle;
        req.proc = reach;
        renew();
    }
    Target *renew()
    {
        std::lock_guard guard(lock);
        Target *old = targets.empty() ? nullptr : &targets.back();
        targets.emplace_back().rcv->ctx = &ctx;
        return old;
    }

    // The handle of an I/O event tells the item.
    int make(Q *q, Item &item)
    {
        std::lock_guard guard(lock);
        const int type = item.type, handle = static_cast<int>(item.producer * each + item.number);
        item.target = type == MSG || type == BUNDLE ? &targets.back() : nullptr;
        qrn_rcv_t *of = targets.back().rcv;
        qrn_event_bundle_t *bundle = type == BUNDLE ? new_bundle({MSG, MSG}) : nullptr;
        for (int i = 0; bundle != nullptr && i < 2; ++i)
            bundle->events[i].info.msg = {of, bundle->events[i].info.msg.msg, &item, nullptr};
        req.clientd = &item;
        const auto ran = [](Q *, void *i) { reach(i); };
        const auto gone = [](Q *, void *i) { ++static_cast<Item *>(i)->discarded; };
        return type == MSG       ? qrn_evq_enq_msg_with_proc(q, of, reach, new_msg(), &item)
               : type == WRCV    ? qrn_evq_enq_wrcv_msg_with_proc(q, &wrcv, reach, new_msg(), &item)
               : type == TIMER   ? qrn_evq_enq_timer(q, &ctx, 37, &item, reach, 0)
               : type == IO      ? qrn_evq_enq_io(q, &ctx, handle, 1, &item, reach)
               : type == SRC     ? qrn_evq_enq_src(q, &src, 1, &item, new_block(), 1, reach)
               : type == CTX_SRC ? qrn_evq_enq_ctx_src(q, &ctx, 1, &item, new_block(), 1, reach)
               : type == IMSG    ? qrn_evq_enq_imsg(q, &ctx, new_msg(), &item, reach)
               : type == CALLBACK ? qrn_evq_enq_callback(q, ran, gone, &item)
               : type == BUNDLE   ? qrn_evq_enq_msg_bundle(q, bundle)
                                  : enqueue(q, type);
    }
};

class StressTest : public EventFixture, public testing::WithParamInterface<unsigned> {
protected:
    Queue queue{"count svc age size=5 delay=1 notify cancel",
                [](auto, auto, auto, auto, auto) { return 0; }};
    std::array<Producer, producers> makers;
    std::atomic<bool> stop = false;
    std::atomic<int> processed = 0, working = producers;
    int others = 0; // events that are nobody's item

    void produce(unsigned p)
    {
        std::minstd_rand random(GetParam() * 10 + p);
        for (unsigned n = 0; n < each; ++n) {
            Item &item = makers[p].items[n];
            item.type = static_cast<int>(random() % BUNDLE) + 1;
            item.producer = p;
            item.number = n;
            EXPECT_EQ(makers[p].make(queue, item), 0);
            makers[p].made = n;
        }
        --working;
    }
    void purge()
    {
        for (std::minstd_rand random(1); working > 0;) {
            const auto p = static_cast<unsigned>(random() % producers),
                       last = makers[p].made.load();
            qrn_evq_purge_timer_all(&makers[p].ctx, 37);
            qrn_evq_purge_ctx_src(queue, &makers[p].ctx);
            for (unsigned n = last; n + 30 > last && n != 0; n -= std::min(n, 3U))
                qrn_evq_purge_io(queue, &makers[p].ctx, static_cast<int>(p * each + n), 1);
        }
    }
    void remove(Producer &p)
    {
        Target *old = p.renew();
        old->deleted = 1;
        cancel_info info{queue, [](int, void *t) { ++static_cast<Target *>(t)->gone; }, old};
        EXPECT_EQ(qrn_evq_purge_rcv(queue, old->rcv), 0);
        EXPECT_EQ(qrn_evq_cancel_cb_rcv(old->rcv, &info), 0);
        EXPECT_EQ(qrn_evq_enq_cancel(queue, &p.ctx, old->rcv), 0);
        ++others;
    }
    void run(bool shutdown)
    {
        std::vector<std::jthread> threads, takers;
        for (unsigned d = 1; d <= dispatchers; ++d)
            takers.emplace_back([this, d] {
                for (std::minstd_rand random(d); !stop;) {
                    const auto how = random() % 3; // milliseconds, or no deadline
                    processed += qrn_event_dispatch(queue, how == 2 ? QRN_EVQ_DISPATCH_BLOCK : how);
                }
            });
        for (unsigned p = 0; p < producers; ++p)
            threads.emplace_back([this, p] { produce(p); });
        threads.emplace_back([this] { purge(); });
        for (std::minstd_rand random(2); working > 0; std::this_thread::yield())
            remove(makers[random() % producers]);
        threads.clear();
        EXPECT_EQ(shutdown ? qrn_event_queue_shutdown(queue) : 0, 0);
        stop = true;
        for (unsigned d = 0; d < dispatchers; ++d, ++others)
            EXPECT_EQ(qrn_event_dispatch_unblock(queue), 0);
    }
};

TEST_P(StressTest, EveryEventEndsOnceAndInOrder)
{
    const bool shutdown = GetParam() % 3 == 0;
    run(shutdown);
    std::ranges::fill(next, 0U); // this thread got nothing of this queue yet
    while (const int events = qrn_event_dispatch(queue, QRN_EVQ_DISPATCH_POLL))
        processed += events;
    std::vector<int> resumed(producers * each);
    for (const std::string &line : done.take())
        if (unsigned handle; std::sscanf(line.c_str(), "resume %*s %u", &handle) == 1)
            ++resumed[handle];
    int delivered = others;
    for (Producer &p : makers) {
        for (Item &i : p.items) {
            const bool purged = i.type == TIMER || i.type == IO || i.type == CTX_SRC ||
                                (i.target != nullptr && i.target->deleted);
            EXPECT_LE(i.delivered, 1);
            EXPECT_TRUE(i.delivered || purged || shutdown || !has_callback(i.type)) << i.type;
            EXPECT_EQ(i.discarded, i.type == CALLBACK && !i.delivered);
            EXPECT_EQ(resumed[i.producer * each + i.number], i.type == IO);
            delivered += has_callback(i.type) ? i.delivered.load() : 1;
        }
        for (Target &target : p.targets) {
            EXPECT_EQ(target.gone, target.deleted);
            if (!target.deleted)
                std::free(target.rcv);
        }
    }
    EXPECT_TRUE(shutdown || processed == delivered);
    EXPECT_EQ(counts_of(queue), counts{});
    EXPECT_EQ(queue->qsz, 0);
    EXPECT_EQ(queue->thrd_tail.next, &queue->thrd_head);
}

INSTANTIATE_TEST_SUITE_P(Seeds, StressTest, testing::Range(1U, 7U));

} // namespace
