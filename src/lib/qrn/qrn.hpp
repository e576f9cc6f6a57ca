// SPDX-License-Identifier: Apache-2.0
//
// The C++20 interface: header only, over qrn.h.
//
//     qrn::event_queue queue;
//     qrn::dispatcher_pool pool(queue, 2);
//     queue.post([] { work(); });
//
// Objects own what they name and move, but do not copy. A call that fails throws std::system_error in
// qrn::error_category() with the text of the library. An exception that a posted callable throws comes
// out of the dispatch call that ran it.
#ifndef QRN_HPP
#define QRN_HPP

#include <algorithm>
#include <atomic>
#include <chrono>
#include <concepts>
#include <cstddef>
#include <exception>
#include <memory>
#include <mutex>
#include <new>
#include <optional>
#include <span>
#include <stdexcept>
#include <stop_token>
#include <string>
#include <string_view>
#include <system_error>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

#include "qrn.h"

namespace qrn {

// --- Errors --------------------------------------------------------------------------------------

/// The category of this library's errors; the value is that of qrn_errnum().
inline const std::error_category &error_category() noexcept
{
    class category final : public std::error_category {
    public:
        const char *name() const noexcept override { return "qrn"; }
        std::string message(int value) const override
        {
            switch (value) {
            case 1:
                return "invalid argument or option";
            case 4:
                return "monitoring failed";
            default:
                return "error " + std::to_string(value);
            }
        }
    };
    static const category instance;
    return instance;
}

/// Throws the calling thread's last error.
[[noreturn]] inline void throw_last_error()
{
    throw std::system_error(qrn_errnum(), error_category(), qrn_errmsg());
}

namespace detail {

inline void check(int result)
{
    if (result == -1)
        throw_last_error();
}

// The string getters of numbers and transports want 80 bytes; no name of a queue is longer than 128.
inline constexpr std::size_t first_guess = 256;

// Reads a text option through `get(buffer, &length)`, with a buffer that grows as it must.
template <class Get>
std::string read_text(Get get)
{
    constexpr std::size_t too_long = 1 << 20;
    std::string text(first_guess, '\0');
    std::size_t length = text.size();
    while (get(text.data(), &length) == -1) {
        if (text.size() >= too_long)
            throw_last_error();
        text.resize(text.size() * 4);
        length = text.size();
    }
    text.resize(std::min(text.find('\0'), text.size()));
    return text;
}

} // namespace detail

// --- Attributes ----------------------------------------------------------------------------------

/// The transports of automatic monitoring.
enum class transport { qrn = 1, qrnsnmp = 2 };

/// The options of a queue. Every setter returns the object, so that calls can be chained.
class attributes {
public:
    /// The current defaults.
    attributes()
    {
        qrn_event_queue_attr_t *made = nullptr;
        detail::check(qrn_event_queue_attr_create(&made));
        attr_.reset(made);
    }

    /// A deep copy.
    attributes(const attributes &other)
    {
        qrn_event_queue_attr_t *made = nullptr;
        detail::check(qrn_event_queue_attr_dup(&made, other.get()));
        attr_.reset(made);
    }
    attributes &operator=(const attributes &other) { return *this = attributes(other); }
    attributes(attributes &&) noexcept = default;
    attributes &operator=(attributes &&) noexcept = default;
    ~attributes() = default;

    attributes &queue_size_warning(std::size_t events) { return set("queue_size_warning", events); }
    attributes &queue_delay_warning(std::chrono::microseconds delay)
    {
        return set("queue_delay_warning", static_cast<qrn_ulong_t>(delay.count()));
    }
    attributes &queue_enqueue_notification(bool on)
    {
        return set("queue_enqueue_notification", int{on});
    }
    attributes &queue_cancellation_callbacks_enabled(bool on)
    {
        return set("queue_cancellation_callbacks_enabled", int{on});
    }
    attributes &queue_objects_purged_on_close(bool on)
    {
        return set("queue_objects_purged_on_close", int{on});
    }
    attributes &queue_service_time_enabled(bool on)
    {
        return set("queue_service_time_enabled", int{on});
    }
    attributes &queue_age_enabled(bool on) { return set("queue_age_enabled", int{on}); }
    attributes &queue_count_enabled(bool on) { return set("queue_count_enabled", int{on}); }
    attributes &monitor_interval(std::chrono::seconds interval)
    {
        return set("monitor_interval", static_cast<unsigned long>(interval.count()));
    }
    attributes &monitor_transport(transport by)
    {
        return set("monitor_transport", static_cast<int>(by));
    }
    attributes &monitor_transport_opts(const std::string &opts)
    {
        return set_text("monitor_transport_opts", opts);
    }
    attributes &monitor_appid(const std::string &appid) { return set_text("monitor_appid", appid); }
    attributes &event_queue_name(const std::string &name)
    {
        return set_text("event_queue_name", name);
    }
    attributes &application_data(std::span<const std::byte> bytes)
    {
        detail::check(
            qrn_event_queue_attr_setopt(get(), "application_data", bytes.data(), bytes.size()));
        return *this;
    }

    /// Any option by name, from text.
    attributes &set_text(const char *option, const std::string &value)
    {
        detail::check(qrn_event_queue_attr_str_setopt(get(), option, value.c_str()));
        return *this;
    }

    /// Any option by name, as text.
    std::string text(const char *option) const
    {
        return detail::read_text([&](char *buffer, std::size_t *length) {
            return qrn_event_queue_attr_str_getopt(attr_.get(), option, buffer, length);
        });
    }

    qrn_event_queue_attr_t *get() noexcept { return attr_.get(); }
    const qrn_event_queue_attr_t *get() const noexcept { return attr_.get(); }

private:
    template <class Value>
    attributes &set(const char *option, Value value)
    {
        detail::check(qrn_event_queue_attr_setopt(get(), option, &value, sizeof value));
        return *this;
    }

    struct deleter {
        void operator()(qrn_event_queue_attr_t *attr) const { qrn_event_queue_attr_delete(attr); }
    };
    std::unique_ptr<qrn_event_queue_attr_t, deleter> attr_;
};

// --- Statistics ----------------------------------------------------------------------------------

/// A minimum, a running mean and a maximum; no minimum: there is no sample yet.
struct times {
    std::optional<std::chrono::microseconds> min;
    std::chrono::microseconds mean{};
    std::chrono::microseconds max{};
};

/// Events of one kind: queued now, accepted in all, and how long their callbacks took.
struct counts {
    unsigned long now = 0;
    unsigned long total = 0;
    times service = {};
};

/// A snapshot; `events` counts all kinds, and its times are the ages.
struct statistics {
    counts data_msgs, resp_msgs, topicless_im_msgs, wrcv_msgs, io_events, timer_events,
        source_events, unblock_events, cancel_events, context_source_events, callback_events;
    unsigned long events = 0;
    unsigned long events_total = 0;
    times age;
};

namespace detail {

inline times to_times(qrn_ulong_t min, qrn_ulong_t mean, qrn_ulong_t max)
{
    auto us = [](qrn_ulong_t n) {
        return std::chrono::microseconds(static_cast<std::chrono::microseconds::rep>(n));
    };
    times result{std::nullopt, us(mean), us(max)};
    if (min != ~qrn_ulong_t{0})
        result.min = us(min);
    return result;
}

} // namespace detail

/// Makes the snapshot out of the one of qrn.h.
inline statistics to_statistics(const qrn_event_queue_stats_t &s)
{
    auto kind = [](qrn_ulong_t now, qrn_ulong_t total, qrn_ulong_t min, qrn_ulong_t mean,
                   qrn_ulong_t max) {
        return counts{now, total, detail::to_times(min, mean, max)};
    };
    return {
        .data_msgs = kind(s.data_msgs, s.data_msgs_tot, s.data_msgs_svc_min, s.data_msgs_svc_mean,
                          s.data_msgs_svc_max),
        .resp_msgs = kind(s.resp_msgs, s.resp_msgs_tot, s.resp_msgs_svc_min, s.resp_msgs_svc_mean,
                          s.resp_msgs_svc_max),
        .topicless_im_msgs =
            kind(s.topicless_im_msgs, s.topicless_im_msgs_tot, s.topicless_im_msgs_svc_min,
                 s.topicless_im_msgs_svc_mean, s.topicless_im_msgs_svc_max),
        .wrcv_msgs = kind(s.wrcv_msgs, s.wrcv_msgs_tot, s.wrcv_msgs_svc_min, s.wrcv_msgs_svc_mean,
                          s.wrcv_msgs_svc_max),
        .io_events = kind(s.io_events, s.io_events_tot, s.io_events_svc_min, s.io_events_svc_mean,
                          s.io_events_svc_max),
        .timer_events = kind(s.timer_events, s.timer_events_tot, s.timer_events_svc_min,
                             s.timer_events_svc_mean, s.timer_events_svc_max),
        .source_events = kind(s.source_events, s.source_events_tot, s.source_events_svc_min,
                              s.source_events_svc_mean, s.source_events_svc_max),
        .unblock_events = {s.unblock_events, s.unblock_events_tot},
        .cancel_events = kind(s.cancel_events, s.cancel_events_tot, s.cancel_events_svc_min,
                              s.cancel_events_svc_mean, s.cancel_events_svc_max),
        .context_source_events = kind(
            s.context_source_events, s.context_source_events_tot, s.context_source_events_svc_min,
            s.context_source_events_svc_mean, s.context_source_events_svc_max),
        .callback_events = kind(s.callback_events, s.callback_events_tot, s.callback_events_svc_min,
                                s.callback_events_svc_mean, s.callback_events_svc_max),
        .events = s.events,
        .events_total = s.events_tot,
        .age = detail::to_times(s.age_min, s.age_mean, s.age_max),
    };
}

// --- Queues --------------------------------------------------------------------------------------

namespace detail {

// A callable that needs no room of its own: it travels in the event's client data pointer.
template <class Callable>
inline constexpr bool fits_in_pointer =
    sizeof(Callable) <= sizeof(void *) && alignof(Callable) <= alignof(void *) &&
    std::is_trivially_copyable_v<Callable> &&std::is_trivially_destructible_v<Callable>;

template <class Callable>
void *pack(Callable callable)
{
    void *clientd = nullptr;
    ::new (static_cast<void *>(&clientd)) Callable(std::move(callable));
    return clientd;
}

template <class Callable>
void run_packed(qrn_event_queue_t *, void *clientd)
{
    (*std::launder(reinterpret_cast<Callable *>(&clientd)))();
}

template <class Callable>
void run_owned(qrn_event_queue_t *, void *clientd)
{
    std::unique_ptr<Callable> callable(static_cast<Callable *>(clientd));
    (*callable)();
}

template <class Callable>
void drop_owned(qrn_event_queue_t *, void *clientd)
{
    delete static_cast<Callable *>(clientd);
}

} // namespace detail

/**
 * An event queue and what it holds.
 *
 * Any number of threads may post and dispatch at once. The owner ends every dispatch call and every
 * poster before the queue goes; what is still queued then is discarded.
 */
class event_queue {
public:
    event_queue() : event_queue(nullptr) {}
    explicit event_queue(const attributes &attr) : event_queue(attr.get()) {}

    /// Runs `callable()` on the thread that dispatches the event. It is destroyed exactly once, after it
    /// ran or when it is discarded undelivered. Costs one allocation beyond the queue's own; none when
    /// it fits in a pointer.
    template <std::invocable Callable>
    void post(Callable &&callable)
    {
        using Stored = std::decay_t<Callable>;
        if constexpr (detail::fits_in_pointer<Stored>) {
            send(detail::run_packed<Stored>, nullptr,
                 detail::pack<Stored>(std::forward<Callable>(callable)));
        } else {
            auto stored = std::make_unique<Stored>(std::forward<Callable>(callable));
            send(detail::run_owned<Stored>, detail::drop_owned<Stored>, stored.get());
            stored.release();
        }
    }

    /// Processes events for so long, rounded up to milliseconds; returns how many.
    template <class Rep, class Period>
    int dispatch(std::chrono::duration<Rep, Period> time)
    {
        auto ms = std::chrono::ceil<std::chrono::milliseconds>(time).count();
        if (ms <= 0)
            return poll();
        auto tmo = static_cast<qrn_ulong_t>(ms);
        if (tmo == QRN_EVQ_DISPATCH_BLOCK)
            ++tmo;
        return result(qrn_event_dispatch(get(), tmo));
    }

    /// Processes one event, if one is queued; returns how many.
    int poll() { return result(qrn_event_dispatch(get(), QRN_EVQ_DISPATCH_POLL)); }

    /// Processes events until it takes the event of an unblock(); returns how many.
    int dispatch_until_unblocked()
    {
        return result(qrn_event_dispatch(get(), QRN_EVQ_DISPATCH_BLOCK));
    }

    /// Ends one dispatch call.
    void unblock()
    {
        if (qrn_event_dispatch_unblock(get()) == -1)
            throw std::bad_alloc();
    }

    /// Discards what is queued; callables posted from now on still run.
    void shutdown() { detail::check(qrn_event_queue_shutdown(get())); }

    /// Readable while events are queued; see qrn_event_queue_fd().
    int descriptor()
    {
        int fd = qrn_event_queue_fd(get());
        detail::check(fd);
        return fd;
    }

    /// A live option by name, from text.
    void set_text(const char *option, const std::string &value)
    {
        detail::check(qrn_event_queue_str_setopt(get(), option, value.c_str()));
    }

    /// Any option by name, as text.
    std::string text(const char *option) const
    {
        return detail::read_text([&](char *buffer, std::size_t *length) {
            return qrn_event_queue_str_getopt(queue_.get(), option, buffer, length);
        });
    }

    qrn::statistics statistics() const
    {
        qrn_event_queue_stats_t stats;
        detail::check(qrn_event_queue_retrieve_stats(queue_.get(), &stats));
        return to_statistics(stats);
    }
    void reset_statistics() { detail::check(qrn_event_queue_reset_stats(get())); }

    qrn_event_queue_t *get() const noexcept { return queue_.get(); }

private:
    explicit event_queue(const qrn_event_queue_attr_t *attr)
    {
        qrn_event_queue_t *made = nullptr;
        if (qrn_event_queue_create(&made, nullptr, nullptr, attr) == -1)
            throw_last_error();
        queue_.reset(made);
    }

    void send(qrn_evq_cb_proc run, qrn_evq_cb_proc drop, void *clientd)
    {
        if (qrn_evq_enq_callback(get(), run, drop, clientd) == -1)
            throw std::bad_alloc(); // an append fails only when memory runs out
    }

    static int result(int events)
    {
        if (events == -1)
            throw std::system_error(1, error_category(), "a callback ended the dispatch call");
        return events;
    }

    // Discards first, so that every callable is destroyed.
    struct deleter {
        void operator()(qrn_event_queue_t *queue) const
        {
            qrn_event_queue_shutdown(queue);
            qrn_event_queue_delete(queue);
        }
    };
    std::unique_ptr<qrn_event_queue_t, deleter> queue_;
};

// --- Dispatching threads -------------------------------------------------------------------------

/**
 * Threads that dispatch one queue until the pool is stopped.
 *
 * stop(), or the destructor, ends them behind what was queued before. A callable that throws stops the
 * pool too: the first exception is kept and comes out of join(). The queue must outlive the pool.
 */
class dispatcher_pool {
public:
    dispatcher_pool(event_queue &queue, unsigned threads) : queue_(&queue)
    {
        if (threads == 0)
            throw std::invalid_argument("qrn::dispatcher_pool: a pool needs at least one thread");
        try {
            threads_.reserve(threads);
            for (unsigned i = 0; i < threads; ++i)
                threads_.emplace_back([this] { run(); });
        } catch (...) {
            on_stop_.emplace(stop_token(), unblock_all{this});
            end();
            throw;
        }
        on_stop_.emplace(stop_token(), unblock_all{this});
    }
    ~dispatcher_pool() { end(); }
    dispatcher_pool(const dispatcher_pool &) = delete;
    dispatcher_pool &operator=(const dispatcher_pool &) = delete;

    /// Asks the threads to end; does not wait.
    void stop() { stop_.request_stop(); }

    /// Requested once the pool is to end, by whomever.
    std::stop_token stop_token() const { return stop_.get_token(); }

    /// Waits until the pool was asked to end and has ended; throws what a callable threw.
    void join()
    {
        for (std::jthread &thread : threads_)
            if (thread.joinable())
                thread.join();
        if (std::exception_ptr thrown = std::exchange(thrown_, nullptr); thrown != nullptr)
            std::rethrow_exception(thrown);
    }

private:
    // Sends every thread the unblock event it ends with.
    struct unblock_all {
        dispatcher_pool *pool;
        void operator()() const
        {
            for (std::size_t i = 0; i < pool->threads_.size(); ++i)
                pool->queue_->unblock();
        }
    };

    // A thread takes one unblock event after the stop, also when a callable throws, so that none is left.
    void run()
    {
        for (bool ended = false; !ended;) {
            try {
                queue_->dispatch_until_unblocked();
                ended = stop_.stop_requested();
            } catch (...) {
                keep(std::current_exception());
                stop_.request_stop();
            }
        }
    }

    void keep(std::exception_ptr thrown)
    {
        std::lock_guard lock(thrown_mutex_);
        if (thrown_ == nullptr)
            thrown_ = std::move(thrown);
    }

    void end()
    {
        stop();
        threads_.clear();
    }

    event_queue *queue_;
    std::stop_source stop_;
    std::mutex thrown_mutex_;
    std::exception_ptr thrown_; // under thrown_mutex_ while threads run
    std::vector<std::jthread> threads_;
    std::optional<std::stop_callback<unblock_all>> on_stop_;
};

} // namespace qrn

#endif
