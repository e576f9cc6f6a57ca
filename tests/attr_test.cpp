// SPDX-License-Identifier: Apache-2.0
// Attribute records: defaults, environment, life cycle, deep copies.
#include <cstdlib>
#include <cstring>

#include "options_common.h"
#include "qrncfg.h"

using namespace test;

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

// All fields of a record as text.
strings fields(const record &a)
{
    const auto block = [](const void *bytes, size_t size) {
        return bytes == nullptr ? "none" : std::string(static_cast<const char *>(bytes), size);
    };
    const auto words = [](const char *text) {
        return text == nullptr ? "none" : std::string(text);
    };
    return {what("numbers", a.q_purge_on_close, a.q_notify, a.q_cancel_cb, a.q_sz_warn,
                 a.q_delay_warn, a.q_svc_time, a.q_age, a.q_count, a.mon_interval,
                 a.mon_transport_module, a.evq_name_len, a.app_data_len),
            words(a.mon_transport_opts),
            words(a.mon_appid),
            words(a.evq_name),
            block(a.app_data, a.app_data_len),
            block(a.setopt_mask, 2)};
}

using attr_test = Fixture;

TEST_F(attr_test, defaults_and_the_environment_fill_every_field)
{
    const struct {
        const char *variable, *value;
        qrn_uint_t interval = 0;
        int transport = 1;
        std::string opts = "none", appid = "none";
    } cases[] = {
        {"NONE", ""},
        {"INTERVAL", "0x10", 16},
        {"INTERVAL", "12s", 12},
        {"INTERVAL", "abc"},
        {"INTERVAL", "4294967297", 1},
        {"TRANSPORT", "QRNSNMP", 0, 2},
        {"TRANSPORT", "qrnsnmp2"},
        {"TRANSPORT_OPTS", "\"quoted\"", 0, 1, "\"quoted\""},
        {"TRANSPORT_OPTS", "", 0, 1, ""},
        {"APPID", "%s", 0, 1, "none", "%s"},
    };
    for (const auto &c : cases) {
        const std::string variable = std::string("QRN_MONITOR_") + c.variable;
        SCOPED_TRACE(variable + "=" + c.value);
        setenv(variable.c_str(), c.value, 1);
        record attr;
        memset(static_cast<void *>(&attr), 0xA5, sizeof attr);
        EXPECT_EQ(QRN_OK, qrn_event_queue_attr_init_defaults(&attr));
        unsetenv(variable.c_str());
        EXPECT_EQ((strings{what("numbers 1 0 0 0 0 0 0 0", c.interval, c.transport, "0 0"), c.opts,
                           c.appid, "none", "none", std::string(2, '\0')}),
                  fields(attr));
        EXPECT_EQ(QRN_OK, qrn_event_queue_attr_cleanup_internal(&attr));
    }
    EXPECT_EQ("attr!=NULL", check_failed_by([] { qrn_event_queue_attr_init_defaults(nullptr); }));
    EXPECT_EQ(15, qrn_event_queue_attr_option_size());
    EXPECT_EQ(2U, qrn_event_queue_attr_setopt_mask_size());
}

TEST_F(attr_test, creation_uses_its_own_initialiser_and_survives_its_failure)
{
    setenv("QRN_MONITOR_APPID", "to be released", 1);
    record *attr = nullptr;
    for (const auto create : {qrn_event_queue_attr_create, qrn_event_queue_attr_create_default}) {
        initialiser_result = QRN_OK;
        expect_result("", [&] { return create(&attr); });
        EXPECT_EQ(create == qrn_event_queue_attr_create ? "current" : "base", initialised_from);
        expect_result("", [&] { return qrn_event_queue_attr_delete(attr); });
        initialiser_result = QRN_FAILURE;
        qrn_seterr(77, "the initialiser's own");
        EXPECT_EQ(QRN_FAILURE, create(&attr));
        EXPECT_EQ(nullptr, attr);
        EXPECT_EQ(77, qrn_errnum());
    }
    record none{};
    attr = &none;
    EXPECT_EQ(QRN_FAILURE, qrn_event_queue_attr_dup(&attr, &none));
    EXPECT_EQ(nullptr, attr);
    initialiser_result = QRN_OK;
}

TEST_F(attr_test, copies_are_deep_and_complete)
{
    char opts[] = "port=1", appid[] = "app", name[] = "name", bytes[] = "a\0b", mask[] = {1, 2};
    const record original = {0, 1, 1, 2, 3, 1, 1, 1, 9, 2, opts, appid, name, 4, bytes, 4, mask};
    const record none{};
    record *copy = nullptr;
    setenv("QRN_MONITOR_APPID", "to be released", 1);
    expect_result("", [&] { return qrn_event_queue_attr_dup(&copy, &original); });
    EXPECT_EQ(fields(original), fields(*copy));
    // The blocks of the original are not from malloc: what ended one of them would fail.
    EXPECT_EQ(QRN_OK, qrn_event_queue_attr_cleanup_internal(copy));
    strings emptied = fields(none);
    emptied[0] = "numbers 0 1 1 2 3 1 1 1 9 2 0 0";
    EXPECT_EQ(emptied, fields(*copy));
    EXPECT_EQ(QRN_OK, qrn_event_queue_attr_clone(copy, &original));
    EXPECT_EQ(QRN_OK, qrn_event_queue_attr_clone(copy, &none)); // releases what it held
    EXPECT_EQ(fields(none), fields(*copy));
    EXPECT_EQ(QRN_OK, qrn_event_queue_attr_delete(copy));
}

TEST_F(attr_test, null_arguments_are_traced_and_refused)
{
    record *attr = nullptr;
    log_state.dmask = KFX_DBG_API;
    const auto expect = [](int number, const char *name, const std::string &trace, auto call) {
        expect_result(text("CoreApi-5688-%d: %s must be valid", number, name), call);
        EXPECT_EQ(strings{"[qrn_event_queue_attr_" + trace + "\n"}, logged.take());
    };
    expect(289, "attr", "create] attr[(nil)]", [] { return qrn_event_queue_attr_create(nullptr); });
    expect(290, "attr", "create_default]",
           [] { return qrn_event_queue_attr_create_default(nullptr); });
    expect(291, "attr", "delete] attr[(nil)]", [] { return qrn_event_queue_attr_delete(nullptr); });
    expect(292, "attr", "dup] attr[(nil)] original[(nil)]",
           [] { return qrn_event_queue_attr_dup(nullptr, nullptr); });
    expect(293, "original", text("dup] attr[%p] original[(nil)]", static_cast<void *>(&attr)),
           [&] { return qrn_event_queue_attr_dup(&attr, nullptr); });
}

} // namespace
