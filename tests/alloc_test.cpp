// SPDX-License-Identifier: Apache-2.0
//
// Every allocation of every operation fails once. Each try is a process of its own: it lets
// allocation number k of the operation fail, and says how that went. Either the operation was about
// to end the process, with the right report; or it failed, left everything as it was, and works
// when called again. The tries of an operation end with the k that it never reaches.

#include <atomic>
#include <cstdarg>
#include <fcntl.h>
#include <new>
#include <regex>
#include <sys/eventfd.h>
#include <sys/wait.h>
#include <unistd.h>

#include "qrnctx.h"
#include "qrnev.h"
#include "support.h"

namespace {

thread_local long fails_in = 0; // so many allocations from now; 0: none
thread_local size_t refused = 0;
std::atomic<long> live = 0;

void *pass_on(size_t size, void *block)
{
    if (fails_in != 0 && --fails_in == 0) {
        refused = size;
        return nullptr;
    }
    live += block != nullptr;
    return block;
}

// Stores what a build for coverage has counted so far.
extern "C" [[gnu::weak]] void __gcov_dump(void);

// Ends a try: 'f' with the right report, 'u' undone, 'd' done before allocation k; else '?'.
[[noreturn]] void end(char how)
{
    if (__gcov_dump != nullptr)
        __gcov_dump();
    _exit(how);
}

} // namespace

extern "C" {

void *__real_malloc(size_t size);
void *__real_calloc(size_t count, size_t size);
void *__real_aligned_alloc(size_t alignment, size_t size);
void __real_free(void *block);

void *__wrap_malloc(size_t size)
{
    return pass_on(size, __real_malloc(size));
}
void *__wrap_calloc(size_t count, size_t size)
{
    return pass_on(count * size, __real_calloc(count, size));
}
void *__wrap_aligned_alloc(size_t alignment, size_t size)
{
    return pass_on(size, __real_aligned_alloc(alignment, size));
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
    const std::string bytes = test::what("could not allocate", refused, "bytes ");
    const std::regex right("(Core-5688-13: " + bytes + "|Core-9566-1: " + bytes +
                           "for string dup )\\[[a-z_]+\\.(cpp|h):[0-9]+\\]");
    end(std::regex_match(text, right) ? 'f' : '?');
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

// What the operations work on, in the process of a try.
qrn_event_queue_attr_t *attr, *monitored, *new_attr;
qrn_event_queue_t *evq, *new_evq;
qrn_context_t *ctx, *new_ctx;
qrn_rcv_t *rcv;
qrn_wildcard_rcv_t *wrcv;
qrn_src_t *src;
qrn_request_t *req;
qrn_msg_t *msg;
qrn_event_bundle_t *bundle;
qrn_queue_t *list;
void *block;
int fd, high_fd;

constexpr auto set = qrn_event_queue_attr_str_setopt;
constexpr auto create = qrn_event_queue_create;

void set_up()
{
    kfx_set_log_sink([](int, const char *) {}); // setting application data warns
    qrn_event_queue_attr_create_default(&attr);
    test::set_options(attr, set, "count size=1 age cancel name=q appid=a topts=port=9");
    qrn_event_queue_attr_dup(&monitored, attr);
    set(monitored, "monitor_interval", "1");
    set(attr, "application_data", "data");
    create(&evq, nullptr, nullptr, monitored); // what monitoring sets up once stays
    qrn_event_queue_delete(evq);
    create(&evq, nullptr, nullptr, attr);
    qrn_ctx_create(&ctx, nullptr);
    qrn_rcv_create(&rcv, ctx, "topic", evq, on, nullptr);
    qrn_wildcard_rcv_create(&wrcv, ctx, "other", evq, on, nullptr);
    qrn_src_create(&src, ctx, evq, on, nullptr);
    qrn_request_create(&req, ctx, evq, on, nullptr);
    msg = qrn_msg_create(QRN_MSG_TYPE_DATA, "topic", "x", 1, 1);
    bundle = qrn_event_bundle_create(ctx);
    list = qrn_queue_create();
    block = std::malloc(1);
    fd = eventfd(0, 0);
    high_fd = fcntl(fd, F_DUPFD, 200);
    qrn_ctx_watch(ctx, fd, QRN_FD_READ, evq, on, nullptr);
}

int attach_callback()
{
    qrn_event_queue_cancel_cb_info_t info = {evq, [](int, void *) {}, nullptr};
    return qrn_evq_thrd_enq_all(evq, &info) > 0 ? 0 : -1;
}

int free_later()
{
    qrn_event_t ev{};
    ev.info.cancel.obj = rcv;
    return qrn_evq_check_obj(evq, &ev) == 1 ? 0 : -1;
}

// A thread is inside an event of the receiver, with a callback and a deferred free to settle then.
void make_busy()
{
    static qrn_event_t inside{};
    inside.type = QRN_EVQ_MSG_TYPE;
    inside.info.msg.rcv = rcv;
    qrn_evq_add_dispatch_thread(evq)->ev = &inside;
    attach_callback();
    free_later();
}

// Brings the queue to where the next append needs memory for itself, not only for the record.
void fill_up()
{
    do
        fails_in = 2;
    while (qrn_evq_enq_callback(evq, on, nullptr, nullptr) == 0);
}

// How the try with failing allocation number `k` went.
char outcome(long k, int (*op)(), void (*prepare)())
{
    const pid_t child = fork();
    if (child == 0) {
        set_up();
        prepare();
        const auto state = [] { // what an operation might have changed
            qrn_event_queue_stats_t stats;
            qrn_event_queue_retrieve_stats(evq, &stats);
            return std::tuple(live.load(), evq->qsz, stats.events, stats.events_tot, list->sz,
                              msg->refs, new_evq, ctx->fdm->slots[fd].kinds[0].suspended);
        };
        const auto before = state();
        fails_in = k;
        const bool failed = op() != 0, reached = std::exchange(fails_in, 0) == 0;
        const bool undone = reached && failed && state() == before && op() == 0;
        end(undone ? 'u' : !reached && !failed ? 'd' : '?');
    }
    int status = 0;
    waitpid(child, &status, 0);
    return WIFEXITED(status) ? static_cast<char>(WEXITSTATUS(status)) : '?';
}

// The outcomes of k = 1, 2, ..., as a regular expression. An operation gives 0 when it works; it
// finds a full queue unless it needs something else.
const struct {
    const char *name, *outcomes;
    int (*op)();
    void (*prepare)() = fill_up;
} operations[] = {
    {"attributes", "ffffd", [] { return qrn_event_queue_attr_create(&new_attr); }},
    {"default", "ffffd", [] { return qrn_event_queue_attr_create_default(&new_attr); }},
    {"dup", "f{9}d", [] { return qrn_event_queue_attr_dup(&new_attr, attr); }},
    {"name", "fd", [] { return set(attr, "event_queue_name", "new"); }},
    {"appid", "fd", [] { return set(attr, "monitor_appid", "new"); }},
    {"options", "fd", [] { return set(attr, "monitor_transport_opts", "port=8"); }},
    {"data", "fd", [] { return set(attr, "application_data", "new"); }},
    {"live", "fd", [] { return qrn_event_queue_str_setopt(evq, "application_data", "new"); }},
    {"message", "fud", [] { return qrn_evq_enq_msg_with_proc(evq, rcv, on, msg, nullptr); }},
    {"wildcard", "fud", [] { return qrn_evq_enq_wrcv_msg(evq, wrcv, msg); }},
    {"response", "fud", [] { return qrn_evq_enq_req(evq, req, msg); }},
    {"immediate", "fud", [] { return qrn_evq_enq_imsg(evq, ctx, msg, nullptr, on); }},
    {"bundle", "fud", [] { return qrn_evq_enq_msg_bundle(evq, bundle); }},
    {"timer", "fud", [] { return qrn_evq_enq_timer(evq, ctx, 1, nullptr, on, 0); }},
    {"descriptor", "fud", [] { return qrn_evq_enq_io(evq, ctx, fd, QRN_FD_READ, nullptr, on); }},
    {"source", "fud", [] { return qrn_evq_enq_src(evq, src, 1, nullptr, block, 1, on); }},
    {"context", "fud", [] { return qrn_evq_enq_ctx_src(evq, ctx, 1, nullptr, block, 1, on); }},
    {"cancel", "fud", [] { return qrn_evq_enq_cancel(evq, ctx, block); }},
    {"callback", "fud", [] { return qrn_evq_enq_callback(evq, on, nullptr, nullptr); }},
    {"unblock", "fud", [] { return qrn_event_dispatch_unblock(evq); }},
    {"delivery", "fud", [] { return qrn_ctx_deliver(ctx, msg) - 1; }},
    {"queue", "f{11}uud", [] { return create(&new_evq, nullptr, nullptr, attr); }},
    {"monitored", "f{10}u{4,}d", [] { return create(&new_evq, nullptr, nullptr, monitored); }},
    {"dispatch", "fd", [] { return qrn_event_dispatch(evq, 0) < 0 ? -1 : 0; }},
    {"new message", "fd", [] { return qrn_msg_create(0, "topic", "x", 1, 1) ? 0 : -1; }},
    {"new bundle", "ffd", [] { return qrn_event_bundle_create(ctx) ? 0 : -1; }},
    {"blocking queue", "uud", [] { return qrn_tl_queue_create() ? 0 : -1; }},
    {"append", "ud", [] { return qrn_tl_queue_enqueue(evq->q, nullptr); }},
    {"list", "ud", [] { return qrn_queue_create() ? 0 : -1; }},
    {"list entry", "ud", [] { return qrn_queue_enqueue(list, nullptr, 0); }},
    {"callback to settle", "fud", attach_callback, make_busy},
    {"object to free", "ffd", free_later, make_busy},
    {"new context", "f+u*d", [] { return qrn_ctx_create(&new_ctx, nullptr); }},
    {"watch", "f+d", [] { return qrn_ctx_watch(ctx, high_fd, QRN_FD_WRITE, evq, on, nullptr); }},
    {"new timer", "f+d",
     [] { return qrn_ctx_schedule(ctx, evq, on, nullptr, 100'000, 0) < 0 ? -1 : 0; }},
    {"receiver", "fd", [] { return qrn_rcv_create(&rcv, ctx, "a", evq, on, nullptr); }},
    {"wildcard receiver", "fd",
     [] { return qrn_wildcard_rcv_create(&wrcv, ctx, "a*", evq, on, nullptr); }},
    {"new source", "fd", [] { return qrn_src_create(&src, ctx, evq, on, nullptr); }},
    {"request", "fd", [] { return qrn_request_create(&req, ctx, evq, on, nullptr); }},
};

TEST(AllocTest, EachAllocationOfEachOperationFails)
{
    setenv("QRN_MONITOR_TRANSPORT_OPTS", "port=9", 1);
    setenv("QRN_MONITOR_APPID", "app", 1);
    size_t allocations = 0;
    for (const auto &[name, outcomes, op, prepare] : operations) {
        std::string how;
        for (char last = 'f'; last == 'f' || last == 'u'; how += last)
            last = outcome(std::ssize(how) + 1, op, prepare);
        EXPECT_TRUE(std::regex_match(how, std::regex(outcomes))) << name << ": " << how;
        allocations += how.size() - 1;
    }
    std::printf("%zu allocations of %zu operations\n", allocations, std::size(operations));
}

} // namespace
