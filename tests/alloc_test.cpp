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
#include <sys/wait.h>
#include <unistd.h>

#include "qrnctx.h"
#include "qrnev.h"
#include "support.h"

namespace {

thread_local long fails_in = 0; // so many allocations from now; 0: none
thread_local size_t refused = 0;
std::atomic<long> live = 0;
int report_fd = -1;

bool refuse(size_t size)
{
    if (fails_in == 0 || --fails_in != 0)
        return false;
    refused = size;
    return true;
}

void *counted(void *block)
{
    live += block != nullptr;
    return block;
}

[[noreturn]] void report(const std::string &text)
{
    [[maybe_unused]] auto written = write(report_fd, text.data(), text.size());
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
    return refuse(size) ? nullptr : counted(__real_malloc(size));
}
void *__wrap_calloc(size_t count, size_t size)
{
    return refuse(count * size) ? nullptr : counted(__real_calloc(count, size));
}
void *__wrap_aligned_alloc(size_t alignment, size_t size)
{
    return refuse(size) ? nullptr : counted(__real_aligned_alloc(alignment, size));
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
    report("fatal " + std::to_string(refused) + " " + text);
}

} // extern "C"

void *operator new(size_t size)
{
    void *block = refuse(size) ? nullptr : counted(__real_malloc(size));
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

// What the operations work on.
struct stage {
    test::Attr attr{"count size=1 age cancel name=q appid=a topts=port=9"};
    qrn_event_queue_attr_t *new_attr = nullptr;
    qrn_event_queue_t *evq = nullptr, *new_evq = nullptr;
    qrn_context_t *ctx = nullptr, *new_ctx = nullptr;
    qrn_rcv_t *rcv = nullptr;
    qrn_wildcard_rcv_t *wrcv = nullptr;
    qrn_src_t *src = nullptr;
    qrn_request_t *req = nullptr;
    qrn_msg_t *msg = nullptr;
    qrn_event_bundle_t *bundle = nullptr;
    void *block = std::malloc(1);
    qrn_queue_t *list = qrn_queue_create();
    qrn_tl_queue_t *tlq = qrn_tl_queue_create();
    int fds[2];

    stage()
    {
        kfx_set_log_sink([](int, const char *) {}); // setting application data warns
        qrn_event_queue_attr_setopt(attr, "application_data", "data", 4);
        qrn_event_queue_create(&evq, nullptr, nullptr, attr);
        qrn_ctx_create(&ctx, nullptr);
        qrn_rcv_create(&rcv, ctx, "topic", evq, on_message, nullptr);
        qrn_wildcard_rcv_create(&wrcv, ctx, "other", evq, on_message, nullptr);
        qrn_src_create(&src, ctx, evq, on_source, nullptr);
        qrn_request_create(&req, ctx, evq, on_response, nullptr);
        msg = qrn_msg_create(QRN_MSG_TYPE_DATA, "topic", "x", 1, 1);
        bundle = qrn_event_bundle_create(ctx);
        if (pipe(fds) == 0)
            qrn_ctx_watch(ctx, fds[0], QRN_FD_READ, evq, on_ready, nullptr);
    }

    static int on_message(qrn_rcv_t *, qrn_msg_t *, void *) { return 0; }
    static int on_ready(qrn_context_t *, qrn_handle_t, qrn_ulong_t, void *) { return 0; }
    static int on_response(qrn_request_t *, qrn_msg_t *, void *) { return 0; }
    static int on_source(qrn_src_t *, int, void *, void *) { return 0; }
    static int on_ctx_source(qrn_context_t *, int, void *, void *) { return 0; }
    static int on_timer(qrn_context_t *, const void *) { return 0; }
    static void on_callback(qrn_event_queue_t *, void *) {}

    // Whatever an operation might have changed.
    std::string state()
    {
        qrn_event_queue_stats_t stats;
        qrn_event_queue_retrieve_stats(evq, &stats);
        std::ostringstream out;
        for (const qrn_tl_queue_t *q : {evq->q, tlq})
            for (auto *node = q->head->next; node != nullptr; node = node->next)
                out << node->value << ' ';
        out << evq->qsz << ' ' << stats.events << ' ' << stats.events_tot << ' ' << list->sz << ' '
            << msg->refs << new_attr << new_evq << new_ctx;
        out << ' ' << ctx->fdm->slots[fds[0]].kinds[0].suspended;
        for (auto *node = evq->thrd_tail.next; node != &evq->thrd_head; node = node->next)
            out << ' ' << node->cancel_info << node->more_cancels;
        qrn_config_option_t options[15];
        int n = 15;
        qrn_event_queue_attr_dump(attr, &n, options);
        for (int i = 0; i < n; ++i)
            out << ' ' << options[i].val;
        return out.str();
    }

    // Gives the message to `enqueue`, which keeps a reference unless it fails.
    template <class Enqueue>
    int with_message(Enqueue enqueue)
    {
        const int result = enqueue(qrn_msg_retain(msg));
        if (result == -1)
            qrn_msg_delete(msg);
        return result;
    }
};

qrn_event_t cancel_event(stage &on)
{
    qrn_event_t ev{};
    ev.info.cancel.obj = on.rcv;
    return ev;
}

int attach_callback(stage &on)
{
    qrn_event_queue_cancel_cb_info_t info = {on.evq, [](int, void *) {}, nullptr};
    return qrn_evq_thrd_enq_all(on.evq, &info) > 0 ? 0 : -1;
}

// A thread delivers a message of the receiver and has a callback and a deferred free to settle then.
void make_busy(stage &on)
{
    qrn_evq_enq_msg_with_proc(on.evq, on.rcv, stage::on_message, qrn_msg_retain(on.msg), nullptr);
    void *ev = nullptr;
    qrn_evq_cb_info_t info = {on.evq, qrn_evq_add_dispatch_thread(on.evq)};
    qrn_tl_queue_dequeue_cb_info_t hook = {qrn_evq_dequeue_cb_func, &info};
    qrn_tl_queue_dequeue_ex(on.evq->q, &ev, 0, &hook);
    attach_callback(on);
    qrn_event_t cancel = cancel_event(on);
    qrn_evq_check_obj(on.evq, &cancel);
}

// Brings both queues to where the next append needs memory for itself.
void fill_up(stage &on)
{
    int result;
    do {
        fails_in = 2; // not the record
        result = qrn_evq_enq_callback(on.evq, stage::on_callback, nullptr, nullptr);
    } while (result == 0);
    do {
        fails_in = 1;
        result = qrn_tl_queue_enqueue(on.tlq, &on);
    } while (result == 0);
    fails_in = 0;
}

int create_monitored(stage &on)
{
    qrn_event_queue_attr_str_setopt(on.attr, "monitor_interval", "1");
    const int result = qrn_event_queue_create(&on.new_evq, nullptr, nullptr, on.attr);
    qrn_event_queue_attr_str_setopt(on.attr, "monitor_interval", "0");
    return result;
}

// What the monitoring layer sets up once stays.
void monitor_once(stage &on)
{
    create_monitored(on);
    qrn_event_queue_delete(std::exchange(on.new_evq, nullptr));
}

void nothing(stage &) {}

using operation = std::function<int(stage &)>; // 0, or -1 when it failed

// How a try went: "fatal SIZE TEXT", "undone", "done" when the operation came to its end before, or
// what is wrong.
std::string try_with(long k, void (*prepare)(stage &), const operation &op)
{
    stage on;
    prepare(on);
    const std::string before = on.state();
    const long live_before = live;
    fails_in = k;
    const int result = op(on);
    const bool reached = fails_in == 0;
    fails_in = 0;
    if (!reached)
        return result == 0 ? "done" : "fails without a reason";
    if (result == 0)
        return "does not notice";
    if (live != live_before)
        return "keeps " + std::to_string(live - live_before) + " blocks";
    if (on.state() != before)
        return "was " + before + ", is " + on.state();
    return op(on) == 0 ? "undone" : "does not work afterwards";
}

std::string outcome(long k, void (*prepare)(stage &), const operation &op)
{
    int fds[2];
    if (pipe(fds) != 0)
        return "no pipe";
    const pid_t child = fork();
    if (child == 0) {
        report_fd = fds[1];
        try {
            report(try_with(k, prepare, op));
        } catch (const std::exception &thrown) {
            fails_in = 0;
            report(std::string("throws ") + thrown.what());
        }
    }
    close(fds[1]);
    std::string said;
    char part[4096];
    for (ssize_t n; (n = read(fds[0], part, sizeof part)) > 0;)
        said.append(part, static_cast<size_t>(n));
    close(fds[0]);
    waitpid(child, nullptr, 0);
    return said.empty() ? "crashes" : said;
}

// Lets every allocation of `op` fail in turn: 'f' where it ends the process, 'u' where it undoes itself.
std::string tries(void (*prepare)(stage &), const operation &op)
{
    static const std::regex right_report(
        "fatal ([0-9]+) (Core-5688-13: could not allocate \\1 bytes|"
        "Core-9566-1: could not allocate \\1 bytes for string dup) \\[[a-z_]+\\.(cpp|h):[0-9]+\\]");
    std::string how;
    for (long k = 1; k < 100; ++k) {
        const std::string result = outcome(k, prepare, op);
        if (result == "done")
            return how;
        const bool right = result == "undone" || std::regex_match(result, right_report);
        EXPECT_TRUE(right) << "allocation " << k << ": " << result;
        if (!right)
            return how + "?";
        how += result == "undone" ? 'u' : 'f';
    }
    return how + "...";
}

struct row {
    const char *name;
    const char *expected; // of tries(), as a regular expression
    operation op;
};

void run(std::initializer_list<row> rows, void (*prepare)(stage &) = nothing)
{
    for (const row &r : rows) {
        SCOPED_TRACE(r.name);
        const std::string how = tries(prepare, r.op);
        EXPECT_TRUE(std::regex_match(how, std::regex(r.expected))) << how;
    }
}

TEST(AllocTest, Attributes)
{
    setenv("QRN_MONITOR_TRANSPORT_OPTS", "port=9", 1);
    setenv("QRN_MONITOR_APPID", "app", 1);
    run({
        {"create", "ffff", [](stage &s) { return qrn_event_queue_attr_create(&s.new_attr); }},
        {"base", "ffff", [](stage &s) { return qrn_event_queue_attr_create_default(&s.new_attr); }},
        {"dup", "f{9}", [](stage &s) { return qrn_event_queue_attr_dup(&s.new_attr, s.attr); }},
        {"name", "f",
         [](stage &s) {
             return qrn_event_queue_attr_str_setopt(s.attr, "event_queue_name", "new");
         }},
        {"appid", "f",
         [](stage &s) { return qrn_event_queue_attr_str_setopt(s.attr, "monitor_appid", "new"); }},
        {"opts", "f",
         [](stage &s) {
             return qrn_event_queue_attr_str_setopt(s.attr, "monitor_transport_opts", "port=8");
         }},
        {"data", "f",
         [](stage &s) {
             return qrn_event_queue_attr_setopt(s.attr, "application_data", "new", 3);
         }},
        {"live data", "f",
         [](stage &s) { return qrn_event_queue_setopt(s.evq, "application_data", "new", 3); }},
        {"live count", "",
         [](stage &s) { return qrn_event_queue_str_setopt(s.evq, "queue_count_enabled", "1"); }},
    });
    unsetenv("QRN_MONITOR_TRANSPORT_OPTS");
    unsetenv("QRN_MONITOR_APPID");
}

// Each of the operations that append an event.
const std::initializer_list<row> enqueues = {
    {"message", "fu?",
     [](stage &s) {
         return s.with_message([&](qrn_msg_t *msg) {
             return qrn_evq_enq_msg_with_proc(s.evq, s.rcv, stage::on_message, msg, nullptr);
         });
     }},
    {"wildcard message", "fu?",
     [](stage &s) {
         return s.with_message(
             [&](qrn_msg_t *msg) { return qrn_evq_enq_wrcv_msg(s.evq, s.wrcv, msg); });
     }},
    {"response", "fu?",
     [](stage &s) {
         return s.with_message([&](qrn_msg_t *msg) { return qrn_evq_enq_req(s.evq, s.req, msg); });
     }},
    {"immediate message", "fu?",
     [](stage &s) {
         return s.with_message(
             [&](qrn_msg_t *msg) { return qrn_evq_enq_imsg(s.evq, s.ctx, msg, nullptr, nullptr); });
     }},
    {"bundle", "fu?", [](stage &s) { return qrn_evq_enq_msg_bundle(s.evq, s.bundle); }},
    {"timer", "fu?",
     [](stage &s) { return qrn_evq_enq_timer(s.evq, s.ctx, 1, nullptr, stage::on_timer, 0); }},
    {"descriptor", "fu?",
     [](stage &s) {
         return qrn_evq_enq_io(s.evq, s.ctx, s.fds[0], QRN_FD_READ, nullptr, stage::on_ready);
     }},
    {"source", "fu?",
     [](stage &s) {
         return qrn_evq_enq_src(s.evq, s.src, 1, nullptr, s.block, 1, stage::on_source);
     }},
    {"context source", "fu?",
     [](stage &s) {
         return qrn_evq_enq_ctx_src(s.evq, s.ctx, 1, nullptr, s.block, 1, stage::on_ctx_source);
     }},
    {"cancel", "fu?", [](stage &s) { return qrn_evq_enq_cancel(s.evq, s.ctx, s.block); }},
    {"callback", "fu?",
     [](stage &s) { return qrn_evq_enq_callback(s.evq, stage::on_callback, nullptr, nullptr); }},
    {"unblock", "fu?", [](stage &s) { return qrn_event_dispatch_unblock(s.evq); }},
    {"delivery", "fu?", [](stage &s) { return qrn_ctx_deliver(s.ctx, s.msg) == 1 ? 0 : -1; }},
};

TEST(AllocTest, Enqueue)
{
    run(enqueues);
    run(enqueues, fill_up);
}

TEST(AllocTest, Queues)
{
    run({
        {"create", "f{9}uu",
         [](stage &s) { return qrn_event_queue_create(&s.new_evq, nullptr, nullptr, s.attr); }},
        {"dispatch", "f", [](stage &s) { return qrn_event_dispatch(s.evq, 0); }},
        {"message", "f",
         [](stage &s) {
             s.msg = qrn_msg_create(0, "topic", "text", 4, 1);
             return 0;
         }},
        {"bundle", "ff",
         [](stage &s) {
             s.bundle = qrn_event_bundle_create(s.ctx);
             return 0;
         }},
        {"blocking queue", "uu", [](stage &) { return qrn_tl_queue_create() != nullptr ? 0 : -1; }},
        {"list", "u", [](stage &) { return qrn_queue_create() != nullptr ? 0 : -1; }},
        {"list entry", "u", [](stage &s) { return qrn_queue_enqueue(s.list, &s, 0); }},
    });
    run({{"append", "u", [](stage &s) { return qrn_tl_queue_enqueue(s.tlq, &s); }}}, fill_up);
    run({{"create monitored", "f{9}u{4,}", create_monitored}}, monitor_once);
    run({{"callback to settle", "fu", attach_callback},
         {"object to free", "ff",
          [](stage &s) {
              qrn_event_t ev = cancel_event(s);
              return qrn_evq_check_obj(s.evq, &ev) == 1 ? 0 : -1;
          }}},
        make_busy);
}

TEST(AllocTest, Contexts)
{
    run({
        {"create", "f+u*", [](stage &s) { return qrn_ctx_create(&s.new_ctx, nullptr); }},
        {"watch", "f+",
         [](stage &s) {
             const int high = fcntl(s.fds[1], F_DUPFD, 200);
             return qrn_ctx_watch(s.ctx, high, QRN_FD_WRITE, s.evq, stage::on_ready, nullptr);
         }},
        {"timer", "f+",
         [](stage &s) {
             return qrn_ctx_schedule(s.ctx, s.evq, stage::on_timer, nullptr, 100'000, 0) < 0 ? -1
                                                                                             : 0;
         }},
        {"receiver", "f",
         [](stage &s) {
             return qrn_rcv_create(&s.rcv, s.ctx, "a", s.evq, stage::on_message, nullptr);
         }},
        {"wildcard receiver", "f",
         [](stage &s) {
             return qrn_wildcard_rcv_create(&s.wrcv, s.ctx, "a*", s.evq, stage::on_message,
                                            nullptr);
         }},
        {"source", "f",
         [](stage &s) { return qrn_src_create(&s.src, s.ctx, s.evq, stage::on_source, nullptr); }},
        {"request", "f",
         [](stage &s) {
             return qrn_request_create(&s.req, s.ctx, s.evq, stage::on_response, nullptr);
         }},
    });
}

} // namespace
