// SPDX-License-Identifier: Apache-2.0
//
// Everything at once: producers, dispatchers, a thread that purges and one that deletes objects. Each
// event ends once, each dispatcher gets a producer's events in order, and nobody is inside an event
// of an object whose cancellation callback was made.
#include <list>
#include <random>
#include <thread>

#include "objects.h"

using namespace test;

namespace {

constexpr unsigned producers = 4, dispatchers = 4, each = 1200, deleted_kinds = 4;

// What the first kinds of object are; each begins with its context.
union any_object {
    qrn_rcv_t rcv;
    qrn_wildcard_rcv_t wrcv;
    qrn_src_t src;
    qrn_request_t req;
};

struct Target {
    any_object *object = kfx::alloc_zeroed<any_object>();
    std::atomic<int> deleted = 0, gone = 0; // gone: calls of its cancellation callback
};

struct Item {
    int type = 0;
    unsigned producer = 0, number = 0;
    Target *target = nullptr, *wildcard = nullptr; // the second in a bundle
    std::atomic<int> delivered = 0, discarded = 0;
};

thread_local unsigned next[producers]; // number that this thread may get of a producer, at least

template <class... Args>
int reach(Args... args)
{
    const void *clientd = std::get<sizeof...(args) - 1>(std::tie(args...));
    Item &item = *static_cast<Item *>(const_cast<void *>(clientd));
    const auto look = [&item] {
        for (Target *target : {item.target, item.wildcard})
            EXPECT_TRUE(target == nullptr || (target->gone == 0 && target->object->rcv.ctx));
    };
    look();
    EXPECT_LE(std::exchange(next[item.producer], item.number + 1), item.number);
    ++item.delivered;
    std::this_thread::yield();
    look();
    return 0;
}
// All messages of a bundle stand for one item; what purges took out is not looked at.
int reach_bundle(qrn_event_bundle_t *bundle, void *)
{
    Item seen;
    for (int i = 0; i < bundle->num_events; ++i) {
        const qrn_event_t &ev = bundle->events[i];
        if (ev.ctx == nullptr)
            continue;
        Item &item = *static_cast<Item *>(ev.info.msg.clientd);
        auto which = ev.type == MSG ? &Item::target : &Item::wildcard;
        seen.*which = item.*which;
        seen.producer = item.producer;
        seen.number = item.number;
        item.delivered += std::exchange(seen.type, BUNDLE) == 0;
    }
    return reach(&seen);
}

struct Producer : World {
    std::mutex lock; // events of an object are made with it held, and the object is replaced
    std::list<Target> targets;
    Target *target[BUNDLE] = {};
    std::array<Item, each> items;
    std::atomic<unsigned> made = 0;

    void renew(int kind)
    {
        target[kind] = &targets.emplace_back();
        target[kind]->object->rcv.ctx = &ctx;
        if (kind == REQ)
            target[kind]->object->req.proc = reach;
    }
    qrn_event_bundle_t *bundle_for(Item &item)
    {
        qrn_event_bundle_t *bundle = new_bundle({MSG, WRCV, MSG});
        for (int i = 0; i < 3; ++i) {
            bundle->events[i].info.msg.rcv = &(i == 1 ? item.wildcard : item.target)->object->rcv;
            bundle->events[i].info.msg.clientd = &item;
        }
        return bundle;
    }
    // The handle of an I/O event tells the item.
    int make(Q *q, Item &item)
    {
        std::lock_guard guard(lock);
        item.target = target[item.type == BUNDLE ? MSG : item.type];
        item.wildcard = item.type == BUNDLE ? target[WRCV] : nullptr;
        any_object *object = item.target == nullptr ? nullptr : item.target->object;
        const int handle = static_cast<int>(item.producer * each + item.number);
        if (item.type == REQ)
            object->req.clientd = &item;
        const auto ran = [](Q *, void *i) { reach(i); };
        const auto gone = [](Q *, void *i) { ++static_cast<Item *>(i)->discarded; };
        return item.type == MSG
                   ? qrn_evq_enq_msg_with_proc(q, &object->rcv, reach, new_msg(), &item)
               : item.type == WRCV
                   ? qrn_evq_enq_wrcv_msg_with_proc(q, &object->wrcv, reach, new_msg(), &item)
               : item.type == TIMER ? qrn_evq_enq_timer(q, &ctx, 37, &item, reach, 0)
               : item.type == IO    ? qrn_evq_enq_io(q, &ctx, handle, 1, &item, reach)
               : item.type == SRC
                   ? qrn_evq_enq_src(q, &object->src, 1, &item, new_block(), 1, reach)
               : item.type == CTX_SRC
                   ? qrn_evq_enq_ctx_src(q, &ctx, 1, &item, new_block(), 1, reach)
               : item.type == IMSG     ? qrn_evq_enq_imsg(q, &ctx, new_msg(), &item, reach)
               : item.type == CALLBACK ? qrn_evq_enq_callback(q, ran, gone, &item)
               : item.type == BUNDLE   ? qrn_evq_enq_msg_bundle(q, bundle_for(item))
               : item.type == REQ      ? qrn_evq_enq_req(q, &object->req, new_msg())
                                       : enqueue(q, item.type);
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
    void dispatch(unsigned seed)
    {
        for (std::minstd_rand random(seed); !stop;) {
            const auto how = random() % 3; // milliseconds, or no deadline
            processed += qrn_event_dispatch(queue, how == 2 ? QRN_EVQ_DISPATCH_BLOCK : how);
        }
    }
    void purge(std::minstd_rand &random)
    {
        const unsigned p = static_cast<unsigned>(random() % producers), last = makers[p].made;
        qrn_evq_purge_timer_all(&makers[p].ctx, 37);
        qrn_evq_purge_ctx_src(queue, &makers[p].ctx);
        for (unsigned n = last; n + 30 > last && n != 0; n -= std::min(n, 3U))
            qrn_evq_purge_io(queue, &makers[p].ctx, static_cast<int>(p * each + n), 1);
    }
    void remove(Producer &p, const kind &k)
    {
        Target *old = p.target[k.type];
        {
            std::lock_guard guard(p.lock);
            p.renew(k.type);
        }
        old->deleted = 1;
        cancel_info info{queue, [](int, void *t) { ++static_cast<Target *>(t)->gone; }, old};
        EXPECT_EQ(k.purge(queue, old->object), 0);
        EXPECT_EQ(k.cancel(old->object, &info), 0);
        EXPECT_EQ(qrn_evq_enq_cancel(queue, &p.ctx, old->object), 0);
        ++others;
    }
    void run(bool shutdown)
    {
        std::vector<std::jthread> threads, takers;
        for (unsigned d = 1; d <= dispatchers; ++d)
            takers.emplace_back([this, d] { dispatch(d); });
        for (unsigned p = 0; p < producers; ++p)
            threads.emplace_back([this, p] { produce(p); });
        threads.emplace_back([this] {
            for (std::minstd_rand random(1); working > 0;)
                purge(random);
        });
        for (std::minstd_rand random(2); working > 0; std::this_thread::yield())
            remove(makers[random() % producers], kinds[random() % deleted_kinds]);
        threads.clear();
        EXPECT_EQ(shutdown ? qrn_event_queue_shutdown(queue) : 0, 0);
        stop = true;
        for (unsigned d = 0; d < dispatchers; ++d, ++others)
            EXPECT_EQ(qrn_event_dispatch_unblock(queue), 0);
    }
    void drain()
    {
        for (int events = 1; events != 0; processed += events)
            events = qrn_event_dispatch(queue, QRN_EVQ_DISPATCH_POLL);
    }
    // What was not delivered was purged, or discarded by the shutdown.
    static void expect_end(const Item &item, int resumed, bool shutdown)
    {
        const int type = item.type;
        const bool purged = type == TIMER || type == IO || type == CTX_SRC ||
                            (item.target != nullptr && item.target->deleted &&
                             (item.wildcard == nullptr || item.wildcard->deleted));
        EXPECT_LE(item.delivered, 1);
        EXPECT_TRUE(item.delivered || purged || shutdown || !has_callback(type)) << type;
        EXPECT_EQ(item.discarded, type == CALLBACK && !item.delivered) << shutdown;
        EXPECT_EQ(resumed, type == IO);
    }
};

TEST_P(StressTest, EveryEventEndsOnceAndInOrder)
{
    const bool shutdown = GetParam() % 3 == 0;
    for (Producer &p : makers) {
        p.ctx.rcv_delivery_batching_cb = reach_bundle;
        for (unsigned k = 0; k < deleted_kinds; ++k)
            p.renew(kinds[k].type);
    }
    run(shutdown);
    std::jthread([this] { drain(); }).join(); // on a thread that got nothing yet
    std::vector<int> resumed(producers * each);
    for (const std::string &line : done.take()) {
        unsigned handle;
        if (std::sscanf(line.c_str(), "resume %*s %u", &handle) == 1)
            ++resumed[handle];
    }
    int delivered = others;
    for (Producer &p : makers) {
        for (Item &item : p.items) {
            expect_end(item, resumed[item.producer * each + item.number], shutdown);
            delivered += has_callback(item.type) ? item.delivered.load() : 1;
        }
        for (Target &target : p.targets) {
            EXPECT_EQ(target.gone, target.deleted);
            if (!target.deleted)
                std::free(target.object);
        }
    }
    EXPECT_TRUE(shutdown || processed == delivered);
    EXPECT_EQ(counts_of(queue), counts{});
    EXPECT_EQ(queue->qsz, 0);
    EXPECT_EQ(queue->thrd_tail.next, &queue->thrd_head);
}

INSTANTIATE_TEST_SUITE_P(Seeds, StressTest, testing::Range(1U, 7U));

} // namespace
