// SPDX-License-Identifier: Apache-2.0
// Attribute records: defaults, environment, life cycle, deep copies.
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <tuple>

#include "options_common.h"
#include "qrncfg.h"

namespace {

using record = qrn_event_queue_attr_t;

// Which initialiser a creation used last, and what it returns.
std::string initialised_from;
int initialiser_result = QRN_OK;

int initialise(record *attr, const char *from)
{
    initialised_from = from;
    qrn_event_queue_attr_init_defaults(attr);
    return initialiser_result;
}

} // namespace

// In place of the configuration layer's own.
extern "C" int qrn_event_queue_attr_init_clone(record *attr)
{
    return initialise(attr, "current");
}

extern "C" int qrn_event_queue_attr_init_clone_base(record *attr)
{
    return initialise(attr, "base");
}

namespace {

auto scalars(const record &a)
{
    return std::tie(a.q_purge_on_close, a.q_notify, a.q_cancel_cb, a.q_sz_warn, a.q_delay_warn,
                    a.q_svc_time, a.q_age, a.q_count, a.mon_interval, a.mon_transport_module);
}

auto blocks(const record &a)
{
    return std::tie(a.mon_transport_opts, a.mon_appid, a.evq_name, a.evq_name_len, a.app_data,
                    a.app_data_len, a.setopt_mask);
}

class attr_test : public testing::Test {
protected:
    attr_test()
    {
        for (const char *name : {"INTERVAL", "TRANSPORT", "TRANSPORT_OPTS", "APPID"})
            unsetenv(text_of("QRN_MONITOR_%s", name).c_str());
        initialiser_result = QRN_OK;
    }

    const record none_{};
};

TEST_F(attr_test, defaults_fill_every_field)
{
    record attr;
    memset(static_cast<void *>(&attr), 0xA5, sizeof attr);
    EXPECT_EQ(QRN_OK, qrn_event_queue_attr_init_defaults(&attr));
    record expected{};
    expected.q_purge_on_close = expected.mon_transport_module = 1;
    EXPECT_EQ(scalars(expected), scalars(attr));
    ASSERT_NE(nullptr, attr.setopt_mask);
    EXPECT_EQ(0, memcmp(attr.setopt_mask, "\0", 2));
    free(std::exchange(attr.setopt_mask, nullptr));
    EXPECT_EQ(blocks(none_), blocks(attr));
    EXPECT_EQ(15, qrn_event_queue_attr_option_size());
    EXPECT_EQ(2U, qrn_event_queue_attr_setopt_mask_size());
}

TEST_F(attr_test, environment_is_read_at_each_fill)
{
    const struct {
        const char *variable, *value;
        qrn_uint_t interval;
        int transport;
        const char *opts, *appid;
    } cases[] = {
        {"INTERVAL", "0x10", 16, 1, nullptr, nullptr},
        {"INTERVAL", "010", 8, 1, nullptr, nullptr},
        {"INTERVAL", "12s", 12, 1, nullptr, nullptr},
        {"INTERVAL", "abc", 0, 1, nullptr, nullptr},
        {"INTERVAL", "", 0, 1, nullptr, nullptr},
        {"INTERVAL", "4294967297", 1, 1, nullptr, nullptr},
        {"TRANSPORT", "QRNSNMP", 0, 2, nullptr, nullptr},
        {"TRANSPORT", "qrn", 0, 1, nullptr, nullptr},
        {"TRANSPORT", "qrnsnmp2", 0, 1, nullptr, nullptr},
        {"TRANSPORT", "", 0, 1, nullptr, nullptr},
        {"TRANSPORT_OPTS", "\"quoted\"", 0, 1, "\"quoted\"", nullptr},
        {"TRANSPORT_OPTS", "", 0, 1, "", nullptr},
        {"APPID", "%s", 0, 1, nullptr, "%s"},
        {"APPID", "", 0, 1, nullptr, ""},
    };
    for (const auto &c : cases) {
        const std::string variable = text_of("QRN_MONITOR_%s", c.variable);
        SCOPED_TRACE(variable + "=" + c.value);
        setenv(variable.c_str(), c.value, 1);
        record attr;
        EXPECT_EQ(QRN_OK, qrn_event_queue_attr_init_defaults(&attr));
        unsetenv(variable.c_str());
        EXPECT_EQ(c.interval, attr.mon_interval);
        EXPECT_EQ(c.transport, attr.mon_transport_module);
        EXPECT_STREQ(c.opts, attr.mon_transport_opts);
        EXPECT_STREQ(c.appid, attr.mon_appid);
        EXPECT_EQ(QRN_OK, qrn_event_queue_attr_cleanup_internal(&attr));
    }
}

TEST_F(attr_test, defaults_of_no_record_are_a_failed_check)
{
    const auto before =
        kfx_set_fail_assert_handler([](const char *expr, const char *, int, int fatal) {
            throw std::runtime_error(text_of("%s %d", expr, fatal));
        });
    try {
        qrn_event_queue_attr_init_defaults(nullptr);
        ADD_FAILURE() << "went on without a record";
    } catch (const std::runtime_error &failed) {
        EXPECT_STREQ("attr!=NULL 1", failed.what());
    }
    kfx_set_fail_assert_handler(before);
}

TEST_F(attr_test, creation_uses_its_own_initialiser_and_survives_its_failure)
{
    setenv("QRN_MONITOR_APPID", "to be released", 1);
    record *attr = nullptr;
    for (const bool current : {true, false}) {
        const auto create =
            current ? qrn_event_queue_attr_create : qrn_event_queue_attr_create_default;
        initialiser_result = QRN_OK;
        expect_result(nullptr, [&] { return create(&attr); });
        EXPECT_EQ(current ? "current" : "base", initialised_from);
        expect_result(nullptr, [&] { return qrn_event_queue_attr_delete(attr); });

        initialiser_result = QRN_FAILURE;
        qrn_seterr(77, "the initialiser's own");
        EXPECT_EQ(QRN_FAILURE, create(&attr));
        EXPECT_EQ(nullptr, attr);
        EXPECT_EQ(77, qrn_errnum());
    }
    attr = const_cast<record *>(&none_);
    EXPECT_EQ(QRN_FAILURE, qrn_event_queue_attr_dup(&attr, &none_));
    EXPECT_EQ(nullptr, attr);
}

TEST_F(attr_test, copies_are_deep_and_complete)
{
    char opts[] = "port=1", appid[] = "app", name[] = "name", bytes[] = "a\0b", mask[] = {1, 2};
    const record original = {0, 1, 1, 2, 3, 1, 1, 1, 9, 2, opts, appid, name, 4, bytes, 4, mask};
    record *copy = nullptr;
    setenv("QRN_MONITOR_APPID", "to be released", 1);
    expect_result(nullptr, [&] { return qrn_event_queue_attr_dup(&copy, &original); });
    EXPECT_EQ(scalars(original), scalars(*copy));
    EXPECT_STREQ("port=1", copy->mon_transport_opts);
    EXPECT_STREQ("app", copy->mon_appid);
    EXPECT_STREQ("name", copy->evq_name);
    EXPECT_EQ(4U, copy->evq_name_len);
    ASSERT_EQ(4U, copy->app_data_len);
    EXPECT_EQ(0, memcmp("a\0b", copy->app_data, 4));
    EXPECT_EQ(0, memcmp("\1\2", copy->setopt_mask, 2));

    // The blocks of the original are not from malloc: what ended one of them would fail.
    EXPECT_EQ(QRN_OK, qrn_event_queue_attr_cleanup_internal(copy));
    EXPECT_EQ(scalars(original), scalars(*copy));
    EXPECT_EQ(blocks(none_), blocks(*copy));
    EXPECT_EQ(QRN_OK, qrn_event_queue_attr_clone(copy, &original));
    EXPECT_EQ(QRN_OK, qrn_event_queue_attr_clone(copy, &none_)); // releases what it held
    EXPECT_EQ(scalars(none_), scalars(*copy));
    EXPECT_EQ(blocks(none_), blocks(*copy));
    EXPECT_EQ(QRN_OK, qrn_event_queue_attr_delete(copy));
}

// Each operation is traced before it looks at its arguments.
TEST_F(attr_test, null_arguments_are_traced_and_refused)
{
    captured_log log(KFX_DBG_API);
    record *none = nullptr;
    const auto text = [](const void *pointer) { return "[" + text_of("%p", pointer) + "]\n"; };
    const auto expect = [&](int number, const char *name, const std::string &trace, auto call) {
        expect_result(text_of("CoreApi-5688-%d: %s must be valid", number, name).c_str(), call);
        EXPECT_EQ("[qrn_event_queue_attr_" + trace, log.take());
    };
    expect(289, "attr", "create] attr" + text(nullptr),
           [] { return qrn_event_queue_attr_create(nullptr); });
    expect(290, "attr", "create_default]\n",
           [] { return qrn_event_queue_attr_create_default(nullptr); });
    expect(291, "attr", "delete] attr" + text(nullptr),
           [] { return qrn_event_queue_attr_delete(nullptr); });
    expect(292, "attr",
           text_of("dup] attr[%p] original", static_cast<void *>(nullptr)) + text(nullptr),
           [] { return qrn_event_queue_attr_dup(nullptr, nullptr); });
    expect(293, "original",
           text_of("dup] attr[%p] original", static_cast<void *>(&none)) + text(nullptr),
           [&] { return qrn_event_queue_attr_dup(&none, nullptr); });
    log_state.dmask = ~uint64_t{KFX_DBG_API};
    EXPECT_EQ(QRN_FAILURE, qrn_event_queue_attr_delete(nullptr));
    EXPECT_EQ("", log.take());
}

} // namespace
