/* SPDX-License-Identifier: Apache-2.0 */
/* The utility layer, the last error of a thread, the configuration layer. */
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <ctime>
#include <string>
#include <thread>
#include <vector>

#include "kfx.h"
#include "kfxhrtime.h"
#include "kfxlog.h"
#include "kfxsync.h"
#include "qrncfg.h"
#include "qrnerr.h"
#include "qrnev.h"

namespace {

std::vector<std::string> reports;

void record_check(const char *expr, const char *file, int line, int fatal)
{
    reports.push_back(std::string(expr) + " " + file + " " + (line > 0 ? "line" : "") + " " +
                      std::to_string(fatal));
}

void record_line(int level, const char *line)
{
    reports.push_back(std::to_string(level) + " " + line);
}

class Kfx : public testing::Test {
protected:
    Kfx() { reports.clear(); }
    ~Kfx() override
    {
        kfx_set_fail_assert_handler(nullptr);
        kfx_set_log_sink(nullptr);
        log_state.dmask = 0;
    }
};

using KfxDeathTest = Kfx;

TEST_F(Kfx, FailedChecksReachTheInstalledHandlerAndProcessingGoesOn)
{
    const auto standard = kfx_set_fail_assert_handler(record_check);
    EXPECT_EQ(kfx_set_fail_assert_handler(record_check), record_check);
    KFX_ASSERT(1 + 1 == 2, "1+1==2");
    KFX_ASSERT(1 + 1 == 3, "1+1==3");
    KFX_CHECK(reports.empty(), "empty");
    EXPECT_EQ(reports, (std::vector<std::string>{"1+1==3 kfx_test.cpp line 1",
                                                 "empty kfx_test.cpp line 0"}));
    EXPECT_EQ(kfx_set_fail_assert_handler(nullptr), record_check);
    EXPECT_EQ(kfx_set_fail_assert_handler(nullptr), standard);
}

TEST_F(KfxDeathTest, FatalReportsAbortWithTheirTexts)
{
    testing::GTEST_FLAG(death_test_style) = "threadsafe";
    const auto killed = testing::KilledBySignal(SIGABRT);
    EXPECT_EXIT(kfx_fail_assert("a==b", "x.cpp", 7, 1), killed,
                "failed check: a==b \\[x.cpp:7\\]\n");
    EXPECT_EXIT(kfx_abort("no %s left", "way"), killed, "no way left\n");
    EXPECT_EXIT(kfx::alloc_failed(42, {"some/where/x.cpp", 7}), killed,
                "^Core-5688-13: could not allocate 42 bytes \\[x.cpp:7\\]\n");
}

TEST_F(Kfx, LinesReachTheSinkAndLongOnesAreCut)
{
    kfx_set_log_sink(record_line);
    kfx_logf(KFX_LOG_WARNING, "one %d\n", 1);
    kfx_debug_logf("two");
    kfx_fail_assert("a==b", "x.cpp", 7, 0); // not fatal: only logged
    kfx_logf(KFX_LOG_INFO, "%s", std::string(100'000, 'x').c_str());
    ASSERT_EQ(reports.size(), 4u);
    EXPECT_EQ(reports[0], "5 one 1\n");
    EXPECT_EQ(reports[1], "7 two");
    EXPECT_EQ(reports[2], "3 failed check: a==b [x.cpp:7]\n");
    EXPECT_EQ(reports[3], "6 " + std::string(4095, 'x'));
}

TEST_F(Kfx, TracesEvaluateTheirArgumentsOnlyWhenTheBitIsSet)
{
    kfx_set_log_sink(record_line);
    int evaluated = 0;
    for (const uint64_t mask : {uint64_t{0}, uint64_t{KFX_DBG_LIFE}, uint64_t{KFX_DBG_EVENT}}) {
        log_state.dmask = mask;
        KFX_TRACE(KFX_DBG_EVENT, "n %d\n", ++evaluated);
    }
    EXPECT_EQ(evaluated, 1);
    EXPECT_EQ(reports, (std::vector<std::string>{"7 n 1\n"}));
}

TEST_F(Kfx, TextsAreCopiedAndCut)
{
    char buf[4] = "zzz";
    EXPECT_EQ(kfx_snprintf(buf, sizeof buf, "%d", 12), 2);
    EXPECT_EQ(kfx_snprintf(buf, sizeof buf, "%d", 12345), 3);
    EXPECT_EQ(kfx_snprintf(buf, 0, "%d", 9), 0);
    char *copy = kfx::dup(buf);
    EXPECT_NE(copy, buf);
    EXPECT_STREQ(copy, "123");
    std::free(copy);
}

/* --- Errors ------------------------------------------------------------------------------------ */

TEST(LastError, BelongsToItsThread)
{
    qrn_seterrf(1, "here %d", 1);
    std::thread([] {
        EXPECT_EQ(qrn_errnum(), 0);
        EXPECT_STREQ(qrn_errmsg(), "");
        qrn_seterr(4, "there");
        EXPECT_STREQ(qrn_errmsg(), "there");
    }).join();
    EXPECT_EQ(qrn_errnum(), 1);
    EXPECT_STREQ(qrn_errmsg(), "here 1");
}

TEST(LastError, TextsAreTakenLiterallyInFullOrCutAndMayNameTheLastOne)
{
    qrn_seterr(1, "100% of %s");
    EXPECT_STREQ(qrn_errmsg(), "100% of %s");
    qrn_seterrf(2, "again: %s", qrn_errmsg());
    EXPECT_STREQ(qrn_errmsg(), "again: 100% of %s");
    qrn_seterr(1, std::string(900, 'y').c_str());
    EXPECT_EQ(qrn_errmsg(), std::string(900, 'y'));
    qrn_seterr(1, std::string(100'000, 'y').c_str());
    EXPECT_EQ(qrn_errmsg(), std::string(1023, 'y'));
    qrn_seterr(3, nullptr);
    EXPECT_STREQ(qrn_errmsg(), "");
}

/* --- Time -------------------------------------------------------------------------------------- */

uint64_t monotonic_nsec()
{
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1'000'000'000 + static_cast<uint64_t>(now.tv_nsec);
}

uint64_t usec(kfx_hrtime_ivl_t ivl)
{
    qrn_ulong_t result;
    kfx_hrtime_delta_usec(&ivl, &result);
    return result;
}

TEST(HrTime, StampsNeverRunBackwardsAcrossThreads)
{
    constexpr int threads = 4, rounds = 50'000;
    std::atomic<uint64_t> newest{0};
    std::atomic<int> backwards{0};
    std::vector<std::thread> team;
    for (int t = 0; t < threads; ++t)
        team.emplace_back([&] {
            for (int i = 0; i < rounds; ++i) {
                const uint64_t seen = newest.load(std::memory_order_acquire);
                kfx_hrtime_t now;
                kfx_hrtime_timestamp(&now);
                backwards += now.tsc_ticks < seen;
                uint64_t expected = seen;
                while (expected < now.tsc_ticks &&
                       !newest.compare_exchange_weak(expected, now.tsc_ticks)) {
                }
            }
        });
    for (auto &thread : team)
        thread.join();
    EXPECT_EQ(backwards, 0);
}

TEST(HrTime, IntervalsAgreeWithTheMonotonicClock)
{
    for (int round = 0; round < 20; ++round) {
        kfx_hrtime_t start, end;
        const uint64_t a = monotonic_nsec();
        kfx_hrtime_timestamp(&start);
        const uint64_t b = monotonic_nsec();
        while (monotonic_nsec() - b < 3'000'000) {
        }
        const uint64_t c = monotonic_nsec();
        kfx_hrtime_timestamp(&end);
        const uint64_t d = monotonic_nsec();
        kfx_hrtime_ivl_t ivl;
        kfx_hrtime_delta(&start, &end, &ivl);
        EXPECT_GE(static_cast<double>(usec(ivl) + 1) * 1000, static_cast<double>(c - b) * 0.99995);
        EXPECT_LE(static_cast<double>(usec(ivl)) * 1000, static_cast<double>(d - a) * 1.00005);
    }
}

TEST(HrTime, AnyIntervalConverts)
{
    kfx_hrtime_t a = {}, b = {};
    a.tsc_ticks = 5;
    kfx_hrtime_ivl_t ivl = 1;
    kfx_hrtime_delta(&a, &a, &ivl);
    EXPECT_EQ(ivl, 0u);
    kfx_hrtime_delta(&a, &b, &ivl);
    EXPECT_EQ(ivl, UINT64_MAX - 4) << "unsigned, whatever the order";
    EXPECT_EQ(usec(0), 0u);
    uint64_t last = 0;
    for (int bit = 20; bit < 64; ++bit) {
        const uint64_t now = usec(uint64_t{1} << bit);
        EXPECT_GE(now + 1, last * 2) << bit;
        EXPECT_LE(now, last == 0 ? now : last * 2 + 2) << bit;
        last = now;
    }
    EXPECT_GE(usec(UINT64_MAX) + 1, last * 2);
}

TEST(CurrentTime, AdvancesWithTheMonotonicClockFromTheWallClock)
{
    const auto read = [] {
        timeval tv;
        kfx_current_tv(&tv);
        EXPECT_TRUE(tv.tv_usec >= 0 && tv.tv_usec < 1'000'000);
        return static_cast<uint64_t>(tv.tv_sec) * 1'000'000 + static_cast<uint64_t>(tv.tv_usec);
    };
    const uint64_t a = monotonic_nsec() / 1000, first = read(), b = monotonic_nsec() / 1000;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
    const uint64_t c = monotonic_nsec() / 1000, last = read(), d = monotonic_nsec() / 1000;
    EXPECT_GE(last - first + 1, c - b);
    EXPECT_LE(last - first, d - a + 1);
    EXPECT_LT(std::abs(static_cast<long>(last / 1'000'000) - time(nullptr)), 3600);
}

/* --- Configuration ----------------------------------------------------------------------------- */

TEST(Configuration, RecordsFollowTheEnvironmentOfTheirCreation)
{
    for (auto create : {qrn_event_queue_attr_create, qrn_event_queue_attr_create_default}) {
        for (const char *interval : {"7", "9"}) {
            setenv("QRN_MONITOR_INTERVAL", interval, 1);
            qrn_event_queue_attr_t *attr = nullptr;
            ASSERT_EQ(create(&attr), QRN_OK);
            EXPECT_EQ(attr->mon_interval, static_cast<unsigned>(std::atoi(interval)));
            EXPECT_GT(qrn_xmlcfg_check_event_queue("name", attr), 0);
            EXPECT_GT(qrn_xmlcfg_check_event_queue(nullptr, attr), 0);
            qrn_event_queue_attr_delete(attr);
        }
        unsetenv("QRN_MONITOR_INTERVAL");
    }
}

TEST(Configuration, InitialisationMayBeAskedForByManyThreads)
{
    std::vector<std::thread> team;
    for (int t = 0; t < 8; ++t)
        team.emplace_back([] {
            qrn_do_init_once();
            qrn_event_queue_t *evq = nullptr;
            ASSERT_EQ(qrn_event_queue_create(&evq, nullptr, nullptr, nullptr), QRN_OK);
            EXPECT_EQ(qrn_event_queue_delete(evq), QRN_OK);
        });
    for (auto &thread : team)
        thread.join();
}

} // namespace
