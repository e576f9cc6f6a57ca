// SPDX-License-Identifier: Apache-2.0
//
// Purges: random queues against a model, and the parts of a pass alone.
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
        void count_in(counts &out) const
        {
            out[static_cast<size_t>(type == BUNDLE ? MSG : type)] +=
                type == BUNDLE ? data[0] + data[1] : 1;
            out[WRCV] += wild[0] + wild[1];
        }
    };
    std::deque<entry> model;

    void add(qrn_event_queue_t *evq, std::mt19937 &random)
    {
        World &w = worlds[random() % 2];
        entry e{static_cast<int>(random() % BUNDLE) + 1, &w};
        w.id = 37 + static_cast<int>(random() % 2);
        w.readiness = random() % 4 + 1;
        e.key = e.type == TIMER ? w.id == 37 : e.type != IO || (w.readiness & 2) != 0;
        qrn_event_bundle_t *bundle = e.type == BUNDLE ? w.new_bundle({}) : nullptr;
        for (auto n = bundle != nullptr ? random() % 6 + 1 : 0; n > 0; --n) {
            const bool wild = random() % 2;
            const auto of = random() % 2;
            worlds[of].add(bundle, wild ? WRCV : MSG);
            ++(wild ? e.wild : e.data)[of];
        }
        if (bundle != nullptr)
            w.payload = bundle;
        EXPECT_EQ(bundle == nullptr ? w.enqueue(evq, e.type) : qrn_evq_enq_msg_bundle(evq, bundle),
                  0);
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
                e.count_in(expected);
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

TEST_F(PurgeTest, QueuesOfTheWholeRegistryArePurged)
{
    Queue purged, kept("purge=0");
    for (Queue *queue : {&purged, &kept}) {
        world.enqueue(*queue, TIMER);
        world.enqueue(*queue, IO);
        worlds[0].enqueue(*queue, IO);
    }
    done.take();
    EXPECT_EQ(qrn_evq_purge_timer_all(&world.ctx, 37), 0);
    EXPECT_EQ(first_event(purged)->type, IO);
    EXPECT_EQ(first_event(kept)->type, TIMER);
    EXPECT_EQ(qrn_evq_purge_io_all(&world.ctx, 7, 1), 0);
    EXPECT_EQ(done.take(), strings(2, world.settled(IO)[0]));
    EXPECT_EQ(qrn_event_dispatch(purged, 0), 1);
    EXPECT_EQ(first_event(purged), nullptr);
}

// The exported parts of a pass: a filter leaves the record, the removal callback leaves the message
// of a response or an immediate message.
TEST_F(PurgeTest, PartsOfAPassReleaseWhatIsTheirs)
{
    for (int type : std::initializer_list<int>{MSG, WRCV, REQ, IMSG}) {
        Queue queue("count size=5 age");
        ASSERT_EQ(world.enqueue(queue, type), 0);
        void *taken;
        ASSERT_EQ(qrn_tl_queue_dequeue(queue->q, &taken, 0), 0);
        auto *ev = static_cast<qrn_event_t *>(taken);
        const qrn_event_t key = *ev;
        int remove = 0;
        if (type == REQ || type == IMSG) {
            EXPECT_EQ(qrn_evq_purge_rem(ev), 0);
            world.drop(type);
        } else {
            const auto filter = type == MSG ? qrn_evq_purge_rcv_filter : qrn_evq_purge_wrcv_filter;
            EXPECT_EQ(filter(ev, &key, &remove), 0);
            EXPECT_EQ(remove, 1);
            EXPECT_EQ(qrn_event_delete(ev), 0);
        }
        EXPECT_EQ(counts_of(queue), counts{});
        EXPECT_EQ(queue->qsz, 0);
    }
}

TEST_F(PurgeTest, MissingArgumentsAreReported)
{
    Queue queue;
    const auto ctx = "ctx!=NULL", in = "ev_in!=NULL", in_q = "ev_in_q!=NULL";
    const char *const no = nullptr;
    qrn_event_t ev{};
    int remove;
    ev.type = WRCV;
    for (auto *cmp : {qrn_evq_purge_rcv_cmp, qrn_evq_purge_wrcv_cmp, qrn_evq_purge_src_cmp,
                      qrn_evq_purge_req_cmp, qrn_evq_purge_ctx_src_cmp, qrn_evq_purge_timer_cmp,
                      qrn_evq_purge_io_cmp, qrn_evq_purge_msg_bundle_cmp})
        check_nulls({in_q, in}, cmp, &ev, &ev);
    check_nulls({in_q, in, no}, qrn_evq_purge_rcv_filter, &ev, &ev, nullptr);
    check_nulls({in_q, in, "remove!=NULL"}, qrn_evq_purge_wrcv_filter, &ev, &ev, &remove);
    ev.type = TIMER;
    const auto filter = [&](auto *proc) { proc(&ev, &ev, &remove); };
    EXPECT_EQ(check_failed_by([&] { filter(qrn_evq_purge_rcv_filter); }),
              "ev_in->type==QRN_EVQ_MSG_TYPE");
    EXPECT_EQ(check_failed_by([&] { filter(qrn_evq_purge_wrcv_filter); }),
              "ev_in->type==QRN_EVQ_WRCV_MSG_TYPE");
    for (const kind &k : kinds) {
        EXPECT_EQ(check_failed_by([&] { k.purge(nullptr, world.object(k.type)); }), "evq!=NULL");
        EXPECT_EQ(check_failed_by([&] { k.purge(queue, nullptr); }), k.check);
    }
    check_nulls({ctx, no}, qrn_evq_purge_timer_all, &world.ctx, 0);
    check_nulls({ctx, no, no}, qrn_evq_purge_io_all, &world.ctx, 0, 0);
}

} // namespace
