// SPDX-License-Identifier: Apache-2.0
// The utility layer, the last error of a thread, counted messages.
#include <chrono>
#include <thread>
#include <vector>

#include "kfxhrtime.h"
#include "kfxsync.h"
#include "qrnerr.h"
#include "support.h"

namespace {

TEST(Kfx, ChecksLinesAndTracesReachWhatIsInstalled)
{
    const auto check = [](const char *expr, const char *file, int, int fatal) {
        test::checks.note(expr, file, fatal);
    };
    kfx_set_log_sink([](int level, const char *line) { test::checks.note("line", level, line); });
    const auto standard = kfx_set_fail_assert_handler(check);
    KFX_ASSERT(1 + 1 == 2, "1+1==2");
    KFX_ASSERT(1 + 1 == 3, "1+1==3");
    KFX_CHECK(standard == check, "standard");
    EXPECT_EQ(kfx_set_fail_assert_handler(standard), check);
    kfx_fail_assert("a==b", "x.cpp", 7, 0); // not fatal: only logged
    kfx_logf(KFX_LOG_INFO, "%s", std::string(100'000, 'x').c_str());
    int evaluated = 0;
    for (const uint64_t mask : {uint64_t{KFX_DBG_LIFE}, uint64_t{KFX_DBG_EVENT}, uint64_t{0}}) {
        log_state.dmask = mask;
        KFX_TRACE(KFX_DBG_EVENT, "n %d\n", ++evaluated);
    }
    kfx_set_log_sink(nullptr);
    EXPECT_EQ(test::checks.take(),
              (test::strings{"1+1==3 kfx_test.cpp 1", "standard kfx_test.cpp 0",
                             "line 3 failed check: a==b [x.cpp:7]\n",
                             "line 6 " + std::string(4095, 'x'), "line 7 n 1\n"}));
}

TEST(Kfx, LinesGoToTheStandardErrorUntilASinkIsInstalled)
{
    testing::internal::CaptureStderr();
    for (const char *line : {"one", "two\n", ""})
        kfx_logf(KFX_LOG_INFO, "%s", line);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "one\ntwo\n\n");
    char buf[] = "xxxx";
    EXPECT_TRUE(kfx_snprintf(buf, 0, "a") == 0 && kfx_snprintf(buf, 3, "abc") == 2);
    EXPECT_STREQ(buf, "ab");
}

TEST(KfxDeathTest, AFatalReportAbortsWithItsText)
{
    testing::GTEST_FLAG(death_test_style) = "threadsafe";
    EXPECT_EXIT(kfx_fail_assert("a", "x.cpp", 7, 1), testing::KilledBySignal(SIGABRT),
                "failed check: a \\[x.cpp:7\\]\n");
}

TEST(LastError, BelongsToItsThreadAndIsTakenLiterallyOrCut)
{
    for (const std::string &given : {std::string("100% of %s"), std::string(100'000, 'y')}) {
        qrn_seterr(4, given.c_str());
        std::thread([] {
            EXPECT_EQ(qrn_errnum(), 0);
            EXPECT_STREQ(qrn_errmsg(), "");
            qrn_seterr(5, nullptr);
        }).join();
        EXPECT_EQ(qrn_errnum(), 4);
        EXPECT_EQ(qrn_errmsg(), given.substr(0, 1023));
    }
    qrn_seterrf(2, "%.2s%d", qrn_errmsg(), 7); // its own last text
    EXPECT_STREQ(qrn_errmsg(), "yy7");
}

// An interval of ours lies between one of the monotonic clock inside it and one around it.
TEST(HrTime, IntervalsAgreeWithTheMonotonicClock)
{
    using std::chrono::steady_clock;
    for (int round = 0; round < 20; ++round) {
        kfx_hrtime_t start, end;
        kfx_hrtime_ivl_t ivl;
        qrn_ulong_t usec;
        const auto a = steady_clock::now();
        kfx_hrtime_timestamp(&start);
        const auto b = steady_clock::now();
        std::this_thread::sleep_for(std::chrono::milliseconds(3));
        const auto c = steady_clock::now();
        kfx_hrtime_timestamp(&end);
        const std::chrono::duration<double, std::micro> within = c - b,
                                                        around = steady_clock::now() - a;
        kfx_hrtime_delta(&start, &end, &ivl);
        kfx_hrtime_delta_usec(&ivl, &usec);
        EXPECT_GE(static_cast<double>(usec) + 1, within.count() * 0.99995);
        EXPECT_LE(static_cast<double>(usec), around.count() * 1.00005);
    }
}

// It goes on as the monotonic clock does: each reading lies between two of that one, but for those
// soon after a thread was interrupted, which may be late.
TEST(CurrentTime, StartsAtTheWallClocksAndKeepsItsPace)
{
    const auto now = [] {
        const auto since = std::chrono::steady_clock::now().time_since_epoch();
        return std::chrono::duration_cast<std::chrono::microseconds>(since).count();
    };
    long least = -1, most = 0; // by how much it is ahead of the monotonic clock
    int late = 0;
    for (long i = 0, last = (time(nullptr) - 3600) * 1'000'000; i < 200'000; ++i) {
        const long before = now();
        timeval tv;
        kfx_current_tv(&tv);
        const long usec = tv.tv_sec * 1'000'000 + tv.tv_usec, after = now();
        if (least < 0)
            std::tie(least, most) = std::pair(usec - after - 2, usec - before + 2);
        ASSERT_TRUE(last <= usec && usec <= after + most) << usec;
        late += before + least > usec;
        ASSERT_TRUE(tv.tv_usec >= 0 && tv.tv_usec < 1'000'000);
        last = usec;
    }
    EXPECT_LT(late, 20'000);
}

int consumed; // plain: letting go of a message must order its threads

TEST(Message, KeepsWhatItIsMadeOfUntilItsLastReferenceAndReportsThatOnceUnlessDiscarded)
{
    for (size_t len = 0; len < 40; ++len) {
        consumed = 0;
        std::string topic(len, 't'), payload(len, '\0');
        qrn_msg_t *msg =
            qrn_msg_create(QRN_MSG_TYPE_DATA, topic.data(), payload.data(), payload.size(), 77);
        topic = payload = "x";
        EXPECT_EQ(qrn_msg_topic(msg), std::string(len, 't'));
        EXPECT_EQ(qrn_msg_retrieve_internal_field_ptr(msg, 0), nullptr);
        size_t size = 99;
        const auto *bytes = static_cast<const char *>(qrn_msg_payload(msg, &size));
        EXPECT_EQ(std::string(bytes, size + 1), std::string(len + 1, '\0')) << "and a last NUL";
        EXPECT_EQ(reinterpret_cast<uintptr_t>(bytes) % alignof(std::max_align_t), 0u);
        qrn_msg_set_wqx_cr(
            msg, [](qrn_msg_t *, void *) { ++consumed; }, nullptr);
        if (len % 2 != 0)
            qrn_msg_clr_wqx_cr(msg);
        std::vector<std::jthread> team;
        for (int t = 0; t < 4; ++t)
            team.emplace_back([msg = qrn_msg_retain(msg)] {
                for (int i = 0; i < 2'000; ++i)
                    qrn_msg_delete(qrn_msg_retain(msg));
                EXPECT_EQ(consumed, 0);
                qrn_msg_delete(msg);
            });
        EXPECT_EQ(qrn_msg_delete(msg), QRN_OK);
        team.clear();
        EXPECT_EQ(consumed, len % 2 == 0);
        EXPECT_EQ(qrn_msg_live(), 0);
    }
}

} // namespace
