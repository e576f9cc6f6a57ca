// SPDX-License-Identifier: Apache-2.0
// The queues that a program would use instead. Each carries one heap record an event, made by the
// producer and freed by the dispatcher, and is used as its documentation shows: no tokens, no batches,
// because an event queue has none to offer.
#ifndef BENCH_PEERS_HPP
#define BENCH_PEERS_HPP

#include <asio.hpp>
#include <concurrentqueue/blockingconcurrentqueue.h>
#include <glib.h>
#include <tbb/concurrent_queue.h>

#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>

namespace bench {

// What a posted callback needs.
struct record {
    int type;
    void (*proc)(void *arg);
    void (*delproc)(void *arg);
    void *arg;
};

inline record stop_record{};

// A queue of records over the container that `Carrier` wraps: void put(record *), record *take().
template <class Carrier>
class record_queue {
public:
    explicit record_queue(unsigned) {}

    template <auto Handler>
    void enqueue(void *arg)
    {
        carrier_.put(new record{1, Handler, nullptr, arg});
    }

    void dispatch()
    {
        for (record *r = carrier_.take(); r != &stop_record; r = carrier_.take()) {
            const std::unique_ptr<record> owned{r};
            owned->proc(owned->arg);
        }
    }

    void stop(unsigned dispatchers)
    {
        for (unsigned i = 0; i < dispatchers; i++)
            carrier_.put(&stop_record);
    }

private:
    Carrier carrier_;
};

class tbb_carrier {
public:
    void put(record *r) { queue_.push(r); }
    record *take()
    {
        record *r = nullptr;
        queue_.pop(r);
        return r;
    }

private:
    tbb::concurrent_bounded_queue<record *> queue_;
};

class moodycamel_carrier {
public:
    void put(record *r) { queue_.enqueue(r); }
    record *take()
    {
        record *r = nullptr;
        queue_.wait_dequeue(r);
        return r;
    }

private:
    moodycamel::BlockingConcurrentQueue<record *> queue_;
};

class glib_carrier {
public:
    void put(record *r) { g_async_queue_push(queue_.get(), r); }
    record *take() { return static_cast<record *>(g_async_queue_pop(queue_.get())); }

private:
    std::unique_ptr<GAsyncQueue, decltype(&g_async_queue_unref)> queue_{g_async_queue_new(),
                                                                        g_async_queue_unref};
};

class condvar_carrier {
public:
    void put(record *r)
    {
        {
            const std::lock_guard hold{mutex_};
            queue_.push_back(r);
        }
        filled_.notify_one();
    }

    record *take()
    {
        std::unique_lock hold{mutex_};
        filled_.wait(hold, [this] { return !queue_.empty(); });
        record *r = queue_.front();
        queue_.pop_front();
        return r;
    }

private:
    std::mutex mutex_;
    std::condition_variable filled_;
    std::deque<record *> queue_;
};

using tbb_queue = record_queue<tbb_carrier>;
using moodycamel_queue = record_queue<moodycamel_carrier>;
using glib_queue = record_queue<glib_carrier>;
using condvar_queue = record_queue<condvar_carrier>;

// Asio allocates the record itself: the posted function object.
class asio_queue {
public:
    explicit asio_queue(unsigned dispatchers) : context_{static_cast<int>(dispatchers)} { rearm(); }

    template <auto Handler>
    void enqueue(void *arg)
    {
        asio::post(context_, [arg] { Handler(arg); });
    }

    void dispatch() { context_.run(); }
    void stop(unsigned) { work_.reset(); }

    void rearm()
    {
        context_.restart();
        work_.emplace(context_.get_executor());
    }

private:
    asio::io_context context_;
    std::optional<asio::executor_work_guard<asio::io_context::executor_type>> work_;
};

} // namespace bench

#endif
