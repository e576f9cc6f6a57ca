// SPDX-License-Identifier: Apache-2.0
//
// Purges: random queues against a model, and the registry of queues.
#include <deque>
#include <random>

#include "objects.h"

using namespace test;

namespace {

int ignore_report(qrn_event_queue_t *, int, size_t, qrn_ulong_t, void *)
{
    return 0;
}

// Two objects of each kind; a bundle may hold messages of both.
class PurgeTest : public EventFixture {
protected:
    World worlds[2];

    // An event in a model of the queue.
    struct entry {
        int type;
        World *of;
        bool key = true;                 // the timer's id, or the readiness, is what purges are for
        long data[2] = {}, wild[2] = {}; // of a bundle, by world
        strings lines{};                 // the journal of its delivery

        long size() const { return type == BUNDLE ? data[0] + data[1] + wild[0] + wild[1] : 1; }
    };
    std::deque<entry> model;

    void add(qrn_event_queue_t *evq, std::mt19937 &random)
    {
        World &w = worlds[random() % 2];
        entry e{static_cast<int>(random() % BUNDLE) + 1, &w};
        w.id = 37 + static_cast<int>(random() % 2);
        w.readiness = random() % 4 + 1;
        e.key = e.type == TIMER ? w.id == 37 : e.type != IO || (w.readiness & 2) != 0;
        if (e.type != BUNDLE) {
            EXPECT_EQ(w.enqueue(evq, e.type), 0);
        } else {
            qrn_event_bundle_t *bundle = w.new_bundle({});
            for (auto n = random() % 6 + 1; n > 0; --n) {
                const auto wild = random() % 2, of = random() % 2;
                worlds[of].add(bundle, wild ? WRCV : MSG);
                ++(wild ? e.wild : e.data)[of];
            }
            w.payload = bundle;
            EXPECT_EQ(qrn_evq_enq_msg_bundle(evq, bundle), 0);
        }
        e.lines = w.delivered(e.type, has_callback(e.type));
        model.push_back(e);
    }
    // Gives the journal of it: resumed descriptors, and no message that is consumed.
    strings purge_model(int kind, World *of)
    {
        strings lines;
        std::erase_if(model, [&](entry &e) {
            if (e.type == BUNDLE && (kind == MSG || kind == WRCV))
                (kind == MSG ? e.data : e.wild)[of - worlds] = 0;
            const bool out = e.size() == 0 || (e.type == kind && e.of == of && e.key);
            if (out && e.type == IO)
                lines.push_back(e.lines[1]);
            return out;
        });
        return lines;
    }
    void dispatch_first(qrn_event_queue_t *evq)
    {
        done.take();
        EXPECT_EQ(qrn_event_dispatch(evq, 0), 1);
        EXPECT_EQ(done.take(), model.front().lines);
        model.pop_front();
    }
};

TEST_F(PurgeTest, RandomQueuesKeepExactlyWhatRefersToOtherObjects)
{
    for (unsigned seed = 1; seed <= 150; ++seed) {
        SCOPED_TRACE(seed);
        std::mt19937 random(seed);
        const bool counted = seed % 3 != 0, sized = seed % 5 != 0;
        Queue queue(text("size=1 count=%d", counted), sized ? ignore_report : nullptr);
        for (int round = 0; round < 6; ++round) {
            for (auto n = random() % 20; n > 0; --n)
                add(queue, random);
            const kind &k = kinds[random() % std::size(kinds)];
            World &w = worlds[random() % 2];
            const strings lines = purge_model(k.type, &w);
            done.take();
            EXPECT_EQ(k.purge(queue, w.object(k.type)), 0);
            EXPECT_EQ(done.take(), lines);
            counts expected{};
            long size = 0;
            for (const entry &e : model) {
                expected[static_cast<size_t>(e.type == BUNDLE ? MSG : e.type)] +=
                    e.type == BUNDLE ? e.data[0] + e.data[1] : 1;
                expected[WRCV] += e.wild[0] + e.wild[1];
                size += e.size();
            }
            EXPECT_EQ(counts_of(queue), counted ? expected : counts{});
            EXPECT_EQ(queue->qsz, sized ? size : 0);
            for (auto n = random() % 4; n > 0 && !model.empty(); --n)
                dispatch_first(queue);
        }
        while (!model.empty())
            dispatch_first(queue);
        EXPECT_EQ(first_event(queue), nullptr);
        EXPECT_EQ(queue->qsz, 0);
        EXPECT_EQ(qrn_msg_live(), 0);
    }
}

// The newest first, whichever went away; timers stay where objects are not purged on close.
TEST_F(PurgeTest, QueuesOfTheWholeRegistryArePurged)
{
    Queue a, b, c("purge=0");
    const auto expect_registry = [&](std::initializer_list<Queue *> newest_first) {
        strings expected;
        for (Queue *queue : newest_first) {
            ++world.readiness;
            world.enqueue(*queue, TIMER);
            world.enqueue(*queue, IO);
            expected.push_back(world.discarded(IO)[0]);
        }
        done.take();
        EXPECT_EQ(qrn_evq_purge_timer_all(&world.ctx, 37), 0);
        EXPECT_EQ(qrn_evq_purge_io_all(&world.ctx, 7, ~0UL), 0);
        EXPECT_EQ(done.take(), expected);
        for (Queue *queue : newest_first)
            EXPECT_EQ(dispatch(*queue), queue == &c);
    };
    expect_registry({&c, &b, &a});
    b.end(); // from the middle
    Queue d;
    expect_registry({&d, &c, &a});
    d.end(); // the first
    a.end(); // the last
    expect_registry({&c});
}

} // namespace
