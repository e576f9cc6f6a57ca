// SPDX-License-Identifier: Apache-2.0
//
// Every allocation of every operation fails once. Each try is a process of its own: it prepares, lets
// allocation number k of the operation fail, and says how that went. Either the operation was about
// to end the process, with the right report; or it failed, left everything as it was, and works when
// it is called again. The tries of an operation end with the k that it never reaches.

#include <atomic>
#include <cstdarg>
#include <fcntl.h>
#include <functional>
#include <new>
#include <regex>
#include <sys/eventfd.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include "qrnctx.h"
#include "qrnev.h"
#include "support.h"

namespace {

thread_local long fails_in = 0; // so many allocations from now; 0: none
thread_local size_t refused = 0;
std::atomic<long> live = 0;

template <class Allocate>
void *allocate(size_t size, Allocate real)
{
    if (fails_in != 0 && --fails_in == 0) {
        refused = size;
        return nullptr;
    }
    void *block = real();
    live += block != nullptr;
    return block;
}

// What a try says to the test, which waits for it.
constexpr size_t most_said = 4096;
char *const said = static_cast<char *>(
    mmap(nullptr, most_said, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));

// Stores what a build for coverage has counted so far.
extern "C" [[gnu::weak]] void __gcov_dump(void);

[[noreturn]] void say(const std::string &text)
{
    if (__gcov_dump != nullptr)
        __gcov_dump();
    kfx_snprintf(said, most_said, "%s", text.c_str());
    _exit(0);
}

} // namespace

extern "C" {

void *__real_malloc(size_t size);
void *__real_calloc(size_t count, size_t size);
void *__real_aligned_alloc(size_t alignment, size_t size);
void __real_free(void *block);

void *__wrap_malloc(size_t size)
{
    return allocate(size, [=] { return __real_malloc(size); });
}
void *__wrap_calloc(size_t count, size_t size)
{
    return allocate(count * size, [=] { return __real_calloc(count, size); });
}
void *__wrap_aligned_alloc(size_t alignment, size_t size)
{
    return allocate(size, [=] { return __real_aligned_alloc(alignment, size); });
}
void __wrap_free(void *block)
{
    live -= block != nullptr;
    __real_free(block);
}

void kfx_abort(const char *fmt, ...)
{
    char text[200];
    va_list args;
    va_start(args, fmt);
    std::vsnprintf(text, sizeof text, fmt, args);
    va_end(args);
    say(test::what("fatal", refused, text));
}

} // extern "C"

void *operator new(size_t size)
{
    void *block = __wrap_malloc(size);
    return block != nullptr ? block : throw std::bad_alloc();
}
void operator delete(void *block) noexcept
{
    __wrap_free(block);
}
void operator delete(void *block, size_t) noexcept
{
    __wrap_free(block);
}

namespace {

// A callback of any type.
constexpr struct {
    template <class R, class... Args>
    using proc = R (*)(Args...);

    template <class R, class... Args>
    operator proc<R, Args...>() const
    {
        return [](Args...) { return R(); };
    }
} on;

// What the operations work on.
struct stage {
    test::Attr plain{"count size=1 age cancel name=q appid=a topts=port=9"};
    test::Attr with_monitor{"count size=1 age cancel name=q appid=a topts=port=9 monitor=1"};
    qrn_event_queue_attr_t *attr = plain, *monitored = with_monitor, *new_attr = nullptr;
    qrn_event_queue_t *evq = nullptr, *new_evq = nullptr;
    qrn_context_t *ctx = nullptr, *new_ctx = nullptr;
    qrn_rcv_t *rcv = nullptr;
    qrn_wildcard_rcv_t *wrcv = nullptr;
    qrn_src_t *src = nullptr;
    qrn_request_t *req = nullptr;
    qrn_msg_t *msg = qrn_msg_create(QRN_MSG_TYPE_DATA, "topic", "x", 1, 1);
    qrn_event_bundle_t *bundle = nullptr;
    void *block = std::malloc(1);
    qrn_queue_t *list = qrn_queue_create();
    qrn_tl_queue_t *tlq = qrn_tl_queue_create();
    int fd = eventfd(0, 0), high_fd = fcntl(fd, F_DUPFD, 200);

    stage()
    {
        kfx_set_log_sink([](int, const char *) {}); // setting application data warns
        qrn_event_queue_attr_setopt(attr, "application_data", "data", 4);
        qrn_event_queue_create(&evq, nullptr, nullptr, attr);
        qrn_ctx_create(&ctx, nullptr);
        qrn_rcv_create(&rcv, ctx, "topic", evq, on, nullptr);
        qrn_wildcard_rcv_create(&wrcv, ctx, "other", evq, on, nullptr);
        qrn_src_create(&src, ctx, evq, on, nullptr);
        qrn_request_create(&req, ctx, evq, on, nullptr);
        bundle = qrn_event_bundle_create(ctx);
        qrn_ctx_watch(ctx, fd, QRN_FD_READ, evq, on, nullptr);
    }

    // Whatever an operation might have changed.
    std::string state()
    {
        qrn_event_queue_stats_t stats;
        qrn_event_queue_retrieve_stats(evq, &stats);
        std::string out =
            test::what("", evq->qsz, stats.events, stats.events_tot, list->sz, msg->refs, new_attr,
                       new_evq, new_ctx, ctx->fdm->slots[fd].kinds[0].suspended);
        for (const qrn_tl_queue_t *q : {evq->q, tlq})
            for (auto *node = q->head->next; node != nullptr; node = node->next)
                out += test::what(" queued", node->value);
        for (auto *node = evq->thrd_tail.next; node != &evq->thrd_head; node = node->next)
            out += test::what(" busy", node->cancel_info, node->more_cancels);
        qrn_config_option_t options[15];
        int n = 15;
        qrn_event_queue_attr_dump(attr, &n, options);
        for (int i = 0; i < n; ++i)
            out += test::what("", options[i].val);
        return out;
    }
};

using operation = std::function<int(stage &)>; // 0, or -1 when it failed

// A field of the stage, or its address: what the operation takes.
template <class T>
struct field {
    T &value;
    operator T() const { return value; }
    operator T *() const { return &value; }
};
template <class T>
field<T> argument(stage &s, T stage::*member)
{
    return {s.*member};
}
template <class T>
T argument(stage &, T value)
{
    return value;
}
template <class R, class... Params, class... Args>
operation call(R (*f)(Params...), Args... args)
{
    return [=](stage &s) {
        const R result = f(argument(s, args)...);
        return result == (std::is_pointer_v<R> ? R() : R(-1)) ? -1 : 0;
    };
}

int attach_callback(stage &s)
{
    qrn_event_queue_cancel_cb_info_t info = {s.evq, [](int, void *) {}, nullptr};
    return qrn_evq_thrd_enq_all(s.evq, &info) > 0 ? 0 : -1;
}
int free_later(stage &s)
{
    qrn_event_t ev{};
    ev.info.cancel.obj = s.rcv;
    return qrn_evq_check_obj(s.evq, &ev) == 1 ? 0 : -1;
}

void nothing(stage &) {}

// A thread delivers a message of the receiver and has a callback and a deferred free to settle then.
void make_busy(stage &s)
{
    qrn_evq_enq_msg_with_proc(s.evq, s.rcv, on, qrn_msg_retain(s.msg), nullptr);
    void *ev = nullptr;
    qrn_evq_cb_info_t info = {s.evq, qrn_evq_add_dispatch_thread(s.evq)};
    qrn_tl_queue_dequeue_cb_info_t hook = {qrn_evq_dequeue_cb_func, &info};
    qrn_tl_queue_dequeue_ex(s.evq->q, &ev, 0, &hook);
    attach_callback(s);
    free_later(s);
}

// Brings both queues to where the next append needs memory for itself.
void fill_up(stage &s)
{
    do
        fails_in = 2; // not the record
    while (qrn_evq_enq_callback(s.evq, on, nullptr, nullptr) == 0);
    do
        fails_in = 1;
    while (qrn_tl_queue_enqueue(s.tlq, &s) == 0);
    fails_in = 0;
}

// What the monitoring layer sets up once stays.
void monitor_once(stage &s)
{
    qrn_event_queue_create(&s.new_evq, nullptr, nullptr, s.monitored);
    qrn_event_queue_delete(std::exchange(s.new_evq, nullptr));
}

// How a try went: "fatal SIZE TEXT", "undone", "done" when the operation came to its end before, or
// what is wrong.
std::string try_with(long k, void (*prepare)(stage &), const operation &op)
{
    stage s;
    prepare(s);
    const std::string before = s.state();
    const long live_before = live;
    fails_in = k;
    const int result = op(s);
    const bool reached = std::exchange(fails_in, 0) == 0;
    if (!reached)
        return result == 0 ? "done" : "fails without a reason";
    if (result == 0)
        return "does not notice";
    if (live != live_before)
        return test::what("keeps blocks", live - live_before);
    if (s.state() != before)
        return "was " + before + ", is " + s.state();
    return op(s) == 0 ? "undone" : "does not work afterwards";
}

std::string outcome(long k, void (*prepare)(stage &), const operation &op)
{
    said[0] = '\0';
    const pid_t child = fork();
    if (child == 0) {
        try {
            say(try_with(k, prepare, op));
        } catch (const std::exception &thrown) {
            say(test::what("throws", thrown.what()));
        }
    }
    waitpid(child, nullptr, 0);
    return said[0] == '\0' ? "crashes" : said;
}

// Expected, as a regular expression: 'f' for each allocation that ends the process, 'u' for each that is
// undone.
struct row {
    const char *name;
    const char *expected;
    operation op;
};

// Lets every allocation of each operation fail in turn, and tells how many those were.
void run(std::initializer_list<row> rows, void (*prepare)(stage &) = nothing)
{
    static const std::regex right_report(
        "fatal ([0-9]+) (Core-5688-13: could not allocate \\1 bytes|"
        "Core-9566-1: could not allocate \\1 bytes for string dup) \\[[a-z_]+\\.(cpp|h):[0-9]+\\]");
    static int operations = 0, allocations = 0;
    for (const row &r : rows) {
        std::string how, result;
        for (long k = 1; k < 100 && (result = outcome(k, prepare, r.op)) != "done"; ++k) {
            how += result == "undone" ? 'u' : std::regex_match(result, right_report) ? 'f' : '?';
            if (how.back() == '?')
                break;
        }
        EXPECT_TRUE(std::regex_match(how, std::regex(r.expected)))
            << r.name << ": " << how << ", " << result;
        ++operations;
        allocations += static_cast<int>(how.size());
    }
    std::printf("%d allocations of %d operations so far\n", allocations, operations);
}

using S = stage;

TEST(AllocTest, Attributes)
{
    const auto set = qrn_event_queue_attr_str_setopt;
    setenv("QRN_MONITOR_TRANSPORT_OPTS", "port=9", 1);
    setenv("QRN_MONITOR_APPID", "app", 1);
    run({
        {"create", "ffff", call(qrn_event_queue_attr_create, &S::new_attr)},
        {"base", "ffff", call(qrn_event_queue_attr_create_default, &S::new_attr)},
        {"dup", "f{9}", call(qrn_event_queue_attr_dup, &S::new_attr, &S::attr)},
        {"name", "f", call(set, &S::attr, "event_queue_name", "new")},
        {"appid", "f", call(set, &S::attr, "monitor_appid", "new")},
        {"options", "f", call(set, &S::attr, "monitor_transport_opts", "port=8")},
        {"data", "f", call(set, &S::attr, "application_data", "new")},
        {"live", "f", call(qrn_event_queue_str_setopt, &S::evq, "application_data", "new")},
        {"count", "", call(qrn_event_queue_str_setopt, &S::evq, "queue_count_enabled", "1")},
    });
    unsetenv("QRN_MONITOR_TRANSPORT_OPTS");
    unsetenv("QRN_MONITOR_APPID");
}

// Without and with memory for the queue itself.
TEST(AllocTest, Enqueue)
{
    const auto null = nullptr;
    const std::pair<const char *, operation> enqueues[] = {
        {"message", call(qrn_evq_enq_msg_with_proc, &S::evq, &S::rcv, on, &S::msg, null)},
        {"wildcard", call(qrn_evq_enq_wrcv_msg, &S::evq, &S::wrcv, &S::msg)},
        {"response", call(qrn_evq_enq_req, &S::evq, &S::req, &S::msg)},
        {"immediate", call(qrn_evq_enq_imsg, &S::evq, &S::ctx, &S::msg, null, on)},
        {"bundle", call(qrn_evq_enq_msg_bundle, &S::evq, &S::bundle)},
        {"timer", call(qrn_evq_enq_timer, &S::evq, &S::ctx, 1, null, on, 0UL)},
        {"descriptor", call(qrn_evq_enq_io, &S::evq, &S::ctx, &S::fd, QRN_FD_READ, null, on)},
        {"source", call(qrn_evq_enq_src, &S::evq, &S::src, 1, null, &S::block, 1, on)},
        {"context", call(qrn_evq_enq_ctx_src, &S::evq, &S::ctx, 1, null, &S::block, 1, on)},
        {"cancel", call(qrn_evq_enq_cancel, &S::evq, &S::ctx, &S::block)},
        {"callback", call(qrn_evq_enq_callback, &S::evq, on, null, null)},
        {"unblock", call(qrn_event_dispatch_unblock, &S::evq)},
        {"delivery", [](stage &s) { return qrn_ctx_deliver(s.ctx, s.msg) - 1; }},
    };
    for (const auto &[name, op] : enqueues) {
        run({{name, "f", op}});
        run({{name, "fu", op}}, fill_up);
    }
}

TEST(AllocTest, Queues)
{
    run({
        {"create", "f{9}uu", call(qrn_event_queue_create, &S::new_evq, nullptr, nullptr, &S::attr)},
        {"dispatch", "f", call(qrn_event_dispatch, &S::evq, 0UL)},
        {"message", "f", call(qrn_msg_create, 0, "topic", "text", 4UL, 1U)},
        {"bundle", "ff", call(qrn_event_bundle_create, &S::ctx)},
        {"blocking queue", "uu", call(qrn_tl_queue_create)},
        {"list", "u", call(qrn_queue_create)},
        {"list entry", "u", call(qrn_queue_enqueue, &S::list, nullptr, 0UL)},
    });
    run({{"append", "u", call(qrn_tl_queue_enqueue, &S::tlq, &S::block)}}, fill_up);
    run({{"create monitored", "f{8}u{4,}",
          call(qrn_event_queue_create, &S::new_evq, nullptr, nullptr, &S::monitored)}},
        monitor_once);
    run({{"callback to settle", "fu", attach_callback}, {"object to free", "ff", free_later}},
        make_busy);
}

TEST(AllocTest, Contexts)
{
    run({
        {"create", "f+u*", call(qrn_ctx_create, &S::new_ctx, nullptr)},
        {"watch", "f+",
         call(qrn_ctx_watch, &S::ctx, &S::high_fd, QRN_FD_WRITE, &S::evq, on, nullptr)},
        {"timer", "f+", call(qrn_ctx_schedule, &S::ctx, &S::evq, on, nullptr, 100'000UL, 0UL)},
        {"receiver", "f", call(qrn_rcv_create, &S::rcv, &S::ctx, "a", &S::evq, on, nullptr)},
        {"wildcard receiver", "f",
         call(qrn_wildcard_rcv_create, &S::wrcv, &S::ctx, "a*", &S::evq, on, nullptr)},
        {"source", "f", call(qrn_src_create, &S::src, &S::ctx, &S::evq, on, nullptr)},
        {"request", "f", call(qrn_request_create, &S::req, &S::ctx, &S::evq, on, nullptr)},
    });
}

} // namespace
