// SPDX-License-Identifier: Apache-2.0
//
// What tests stand on: a fixture that captures the log and the failed checks and ends with nothing
// live, and queues made from a line of options.
#ifndef QRN_TESTS_SUPPORT_H
#define QRN_TESTS_SUPPORT_H

#include <map>
#include <mutex>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "kfx.h"
#include "kfxlog.h"
#include "qrn.h"
#include "qrnmsg.h"

namespace test {

using strings = std::vector<std::string>;

// printf into a string.
template <class... Args>
std::string text(const char *fmt, Args... args)
{
    char buf[1024];
    kfx_snprintf(buf, sizeof buf, fmt, args...);
    return buf;
}

// What happened, and with which arguments.
template <class... Args>
std::string what(const char *name, Args... args)
{
    std::ostringstream out;
    out << name;
    ((out << ' ' << args), ...);
    return out.str();
}

// What threads note and a test takes out.
class journal {
public:
    template <class... Args>
    int note(const char *name, Args... args)
    {
        std::lock_guard guard(lock_);
        lines_.push_back(what(name, args...));
        return 0;
    }
    strings take()
    {
        std::lock_guard guard(lock_);
        return std::exchange(lines_, {});
    }

private:
    std::mutex lock_;
    strings lines_;
};

inline journal logged; // traces as they are, other lines behind their level
inline journal checks; // failed checks that are not fatal
// Callbacks, descriptors, timer ids, consumed messages, in order: lines of what().
inline journal done;

// The fatal check that `call` fails, which a test throws since the code behind it relies on it.
template <class Call>
std::string check_failed_by(Call call)
{
    try {
        call();
        return "";
    } catch (const std::string &expr) {
        return expr;
    }
}

class Fixture : public testing::Test {
protected:
    void SetUp() override
    {
        kfx_set_log_sink([](int level, const char *line) {
            logged.note(level == KFX_LOG_DEBUG ? line : text("%d %s", level, line).c_str());
        });
        kfx_set_fail_assert_handler([](const char *expr, const char *, int, int fatal) {
            if (fatal)
                throw std::string(expr);
            checks.note(expr);
        });
    }
    void TearDown() override
    {
        log_state.dmask = 0;
        kfx_set_fail_assert_handler(nullptr);
        kfx_set_log_sink(nullptr);
        logged.take();
        done.take();
        EXPECT_EQ(checks.take(), strings{});
        EXPECT_EQ(qrn_msg_live(), 0);
    }
};

inline const std::map<std::string, const char *> option_names = {
    {"count", "queue_count_enabled"},    {"svc", "queue_service_time_enabled"},
    {"age", "queue_age_enabled"},        {"notify", "queue_enqueue_notification"},
    {"size", "queue_size_warning"},      {"delay", "queue_delay_warning"},
    {"name", "event_queue_name"},        {"cancel", "queue_cancellation_callbacks_enabled"},
    {"monitor", "monitor_interval"},     {"purge", "queue_objects_purged_on_close"},
    {"transport", "monitor_transport"},  {"appid", "monitor_appid"},
    {"topts", "monitor_transport_opts"},
};

// Sets each option of a line such as "count size=3"; a word alone is "=1".
template <class Object>
void set_options(Object *on, int (*set)(Object *, const char *name, const char *value),
                 const std::string &line)
{
    std::istringstream words(line);
    for (std::string word; words >> word;) {
        const size_t eq = word.find('=');
        const char *value = eq == word.npos ? "1" : word.c_str() + eq + 1;
        EXPECT_EQ(set(on, option_names.at(word.substr(0, eq)), value), 0) << word;
    }
}

// An attribute record, and a queue, for a scope.
struct Attr {
    qrn_event_queue_attr_t *attr = nullptr;

    explicit Attr(const std::string &options)
    {
        EXPECT_EQ(qrn_event_queue_attr_create_default(&attr), 0);
        set_options(attr, qrn_event_queue_attr_str_setopt, options);
    }
    ~Attr() { qrn_event_queue_attr_delete(attr); }
    Attr(const Attr &) = delete;
    operator qrn_event_queue_attr_t *() { return attr; }
};

struct Queue {
    qrn_event_queue_t *evq = nullptr;

    explicit Queue(const std::string &options = "", qrn_event_queue_monitor_proc proc = nullptr,
                   void *clientd = nullptr)
    {
        EXPECT_EQ(qrn_event_queue_create(&evq, proc, clientd, Attr(options)), 0);
    }
    ~Queue() { end(); }
    Queue(const Queue &) = delete;
    operator qrn_event_queue_t *() { return evq; }
    qrn_event_queue_t *operator->() { return evq; }

    // Switches options of the running queue.
    void set(const std::string &options) { set_options(evq, qrn_event_queue_str_setopt, options); }
    void end()
    {
        EXPECT_EQ(evq == nullptr ? 0 : qrn_event_queue_delete(std::exchange(evq, {})), 0);
    }
};

} // namespace test

#endif
