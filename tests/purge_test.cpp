// SPDX-License-Identifier: Apache-2.0
//
// Random queues against a model: what purges leave, and figures that stay true while options are
// switched. The registry of queues.
#include <deque>
#include <random>

#include "objects.h"

using namespace test;

namespace {

// Two objects of each kind; a bundle may hold messages of both.
class PurgeTest : public EventFixture {
protected:
    World worlds[2];

    PurgeTest() { log_state.dmask = ~0UL; } // traces change nothing
    // An event in a model of the queue.
    struct entry {
        int type;
        World *of;
        bool key; // the timer's id, or the readiness, is what purges are for
        bool counted, sized;
        long data[2] = {}, wild[2] = {}; // of a bundle, by world
        strings lines{};                 // the journal of its delivery

        long size() const { return type == BUNDLE ? data[0] + data[1] + wild[0] + wild[1] : 1; }
        void count_in(counts &out) const
        {
            if (type != BUNDLE)
                return count(out, type, counted);
            out[MSG] += counted * (data[0] + data[1]);
            out[WRCV] += counted * (wild[0] + wild[1]);
        }
    };
    std::deque<entry> model;
    counts total{};
    bool monitored, counting, sizing, age;

    void add(qrn_event_queue_t *evq, std::mt19937 &random)
    {
        World &w = worlds[random() % 2];
        const int type = static_cast<int>(random() % BUNDLE) + 1;
        w.id = 37 + static_cast<int>(random() % 2);
        w.readiness = random() % 4 + 1;
        const bool key = type == TIMER ? w.id == 37 : type != IO || (w.readiness & 2) != 0;
        entry e{type, &w, key, counting, sizing && (monitored || age)};
        qrn_event_bundle_t *bundle = type == BUNDLE ? w.new_bundle({}) : nullptr;
        for (auto n = bundle == nullptr ? 0 : random() % 6 + 1; n > 0; --n) {
            const auto wild = random() % 2, of = random() % 2;
            worlds[of].add(bundle, wild ? WRCV : MSG);
            ++(wild ? e.wild : e.data)[of];
        }
        EXPECT_EQ(bundle ? qrn_evq_enq_msg_bundle(evq, bundle) : w.enqueue(evq, type), 0);
        w.payload = bundle != nullptr ? bundle : w.payload;
        e.lines = w.delivered(type, has_callback(type));
        e.count_in(total);
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
    void dispatch_first(Queue &queue)
    {
        EXPECT_EQ(dispatch(queue), 1);
        EXPECT_EQ(done.take(), model.front().lines);
        model.pop_front();
    }
    void expect_figures(Queue &queue)
    {
        counts expected{};
        long size = 0;
        for (const entry &e : model) {
            e.count_in(expected);
            size += e.sized * e.size();
        }
        EXPECT_EQ(counts_of(queue), expected);
        EXPECT_EQ(counts_of(queue, &figures::tot), total);
        EXPECT_EQ(queue->qsz, size);
        EXPECT_EQ(qrn_event_queue_size(queue), sizing ? size : -1);
    }
};

// Each event is taken out of the figures that it was put in, and of no others.
TEST_F(PurgeTest, RandomQueuesKeepExactlyWhatRefersToOtherObjects)
{
    for (unsigned seed = 1; seed <= 150; ++seed) {
        SCOPED_TRACE(seed);
        std::mt19937 random(seed);
        monitored = seed % 3 != 0;
        total = {};
        const auto ignore = [](Q *, int, size_t, qrn_ulong_t, void *) { return 0; };
        Queue queue("", monitored ? +ignore : nullptr);
        for (int round = 0; round < 8 || !model.empty(); ++round) {
            for (bool *option : {&counting, &sizing, &age})
                *option = random() % 2;
            queue.set(text("count=%d size=%d age=%d", counting, sizing, age));
            for (auto n = round < 8 ? random() % 20 : 0; n > 0; --n)
                add(queue, random);
            const kind &k = kinds[random() % std::size(kinds)];
            World &w = worlds[random() % 2];
            const strings lines = purge_model(k.type, &w);
            done.take();
            EXPECT_EQ(k.purge(queue, w.object(k.type)), 0);
            EXPECT_EQ(done.take(), lines);
            expect_figures(queue);
            for (auto n = random() % 4; n > 0 && !model.empty(); --n)
                dispatch_first(queue);
        }
        EXPECT_EQ(dispatch(queue), 0);
        expect_figures(queue);
        EXPECT_EQ(qrn_msg_live(), 0);
    }
}

TEST_F(PurgeTest, RemovalReleasesAMessage)
{
    Queue queue("count size=1");
    for (int type : {MSG, WRCV}) {
        ASSERT_EQ(world.enqueue(queue, type), 0);
        const auto all = [](const void *, const void *) { return 0; };
        EXPECT_EQ(qrn_tl_queue_remove_all(queue->q, all, qrn_evq_purge_rem, nullptr), 0);
        EXPECT_EQ(done.take(), strings{});
        EXPECT_TRUE(counts_of(queue) == counts{} && queue->qsz == 0 && qrn_msg_live() == 0);
    }
}

// The newest first, also when others went away; timers stay where objects are not purged on close.
TEST_F(PurgeTest, QueuesOfTheWholeRegistryArePurged)
{
    Queue last, a, middle, b("purge=0"), first;
    for (Queue *gone : {&middle, &first, &last})
        gone->end();
    strings expected;
    for (Queue *queue : {&b, &a}) {
        ++world.readiness;
        world.enqueue(*queue, TIMER);
        world.enqueue(*queue, IO);
        expected.push_back(world.discarded(IO)[0]);
    }
    done.take();
    EXPECT_EQ(qrn_evq_purge_timer_all(&world.ctx, 37), 0);
    EXPECT_EQ(qrn_evq_purge_io_all(&world.ctx, 7, ~0UL), 0);
    EXPECT_EQ(done.take(), expected);
    EXPECT_EQ(dispatch(a), 0);
    EXPECT_EQ(dispatch(b), 1);
}

} // namespace
