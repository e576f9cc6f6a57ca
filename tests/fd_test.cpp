/* SPDX-License-Identifier: Apache-2.0 */
/* The descriptor manager, without queues: what would be enqueued is recorded. */
#include <gtest/gtest.h>

#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <thread>
#include <vector>

#include "qrnerr.h"
#include "qrnfd.h"

namespace {

struct report {
    int handle;
    qrn_ulong_t ev;
    void *clientd;
    bool operator==(const report &) const = default;
};

qrn_fd_t *manager;
std::vector<report> reports;
int enqueue_result;

int record(qrn_event_queue_t *, qrn_context_t *, qrn_handle_t handle, qrn_ulong_t ev, void *clientd,
           qrn_fd_cb_proc)
{
    reports.push_back({handle, ev, clientd});
    if (enqueue_result == 0)
        qrn_fd_suspend(manager, handle, ev);
    return enqueue_result;
}

int callback(qrn_context_t *, qrn_handle_t, qrn_ulong_t, void *)
{
    return 0;
}

class Descriptors : public testing::Test {
protected:
    Descriptors() : fdm(qrn_fd_create(nullptr))
    {
        manager = fdm;
        reports.clear();
        enqueue_result = 0;
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
    }
    ~Descriptors() override
    {
        for (const int fd : ends)
            close(fd);
        qrn_fd_delete(fdm);
    }

    int watch(qrn_ulong_t ev, void *clientd = nullptr)
    {
        return qrn_fd_watch(fdm, ends[0], ev, queue, callback, clientd);
    }
    void make_readable() { EXPECT_EQ(write(ends[1], "x", 1), 1); }
    std::vector<report> poll_once()
    {
        reports.clear();
        EXPECT_EQ(qrn_fd_wait(fdm, 0), QRN_OK);
        qrn_fd_report(fdm, record);
        return reports;
    }
    std::vector<report> one(qrn_ulong_t ev, void *clientd = nullptr)
    {
        return {{ends[0], ev, clientd}};
    }

    const std::vector<report> none;
    qrn_fd_t *fdm;
    int ends[2];
    qrn_event_queue_t *queue = reinterpret_cast<qrn_event_queue_t *>(this); // never looked into
};

TEST_F(Descriptors, AreReportedOnceUntilEachSuspensionIsResumed)
{
    ASSERT_EQ(watch(QRN_FD_READ, this), QRN_OK);
    EXPECT_EQ(poll_once(), none);
    make_readable();
    EXPECT_EQ(poll_once(), one(QRN_FD_READ, this));
    EXPECT_EQ(poll_once(), none);
    EXPECT_EQ(fdm->num_ready, 0);
    qrn_fd_wait(fdm, 0);
    EXPECT_EQ(fdm->num_ready, 0) << "a suspended descriptor must not end each wait";
    qrn_fd_report(fdm, record);
    EXPECT_EQ(qrn_fd_suspend(fdm, ends[0], QRN_FD_READ), QRN_OK);
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(poll_once(), none);
        EXPECT_EQ(qrn_fd_resume(fdm, ends[0], QRN_FD_READ), QRN_OK);
    }
    EXPECT_EQ(qrn_fd_resume(fdm, ends[0], QRN_FD_READ), QRN_FAILURE) << "one too many";
    EXPECT_EQ(poll_once(), one(QRN_FD_READ, this));
}

TEST_F(Descriptors, KindsAreWatchedTogetherOrApart)
{
    int reader, writer;
    ASSERT_EQ(watch(QRN_FD_READ, &reader), QRN_OK);
    ASSERT_EQ(watch(QRN_FD_WRITE, &writer), QRN_OK);
    make_readable();
    EXPECT_EQ(poll_once(), (std::vector<report>{{ends[0], QRN_FD_READ, &reader},
                                                {ends[0], QRN_FD_WRITE, &writer}}));
    qrn_fd_resume(fdm, ends[0], QRN_FD_WRITE);
    EXPECT_EQ(poll_once(), one(QRN_FD_WRITE, &writer));
    qrn_fd_resume(fdm, ends[0], QRN_FD_READ | QRN_FD_WRITE);
    EXPECT_EQ(qrn_fd_unwatch(fdm, ends[0], QRN_FD_READ | QRN_FD_WRITE), QRN_FAILURE);
    EXPECT_EQ(qrn_fd_unwatch(fdm, ends[0], QRN_FD_READ), QRN_OK);
    EXPECT_EQ(qrn_fd_unwatch(fdm, ends[0], QRN_FD_WRITE), QRN_OK);
    ASSERT_EQ(watch(QRN_FD_READ | QRN_FD_WRITE), QRN_OK);
    EXPECT_EQ(poll_once(), one(QRN_FD_READ | QRN_FD_WRITE));
}

TEST_F(Descriptors, AHangUpIsReportedAsEachWatchedKindAndDoesNotSpin)
{
    ASSERT_EQ(watch(QRN_FD_READ), QRN_OK);
    shutdown(ends[1], SHUT_RDWR);
    EXPECT_EQ(poll_once(), one(QRN_FD_READ));
    poll_once();
    qrn_fd_wait(fdm, 0);
    EXPECT_EQ(fdm->num_ready, 0);
    qrn_fd_resume(fdm, ends[0], QRN_FD_READ);
    EXPECT_EQ(poll_once(), one(QRN_FD_READ));
}

TEST_F(Descriptors, ANewWatchWaitsForTheEventsOfTheOldOne)
{
    make_readable();
    ASSERT_EQ(watch(QRN_FD_READ), QRN_OK);
    EXPECT_EQ(poll_once(), one(QRN_FD_READ));
    EXPECT_EQ(qrn_fd_watched_on(fdm, ends[0], QRN_FD_READ), queue);
    EXPECT_EQ(qrn_fd_unwatch(fdm, ends[0], QRN_FD_READ), QRN_OK);
    EXPECT_EQ(qrn_fd_watched_on(fdm, ends[0], QRN_FD_READ), nullptr);
    ASSERT_EQ(watch(QRN_FD_READ, this), QRN_OK);
    EXPECT_EQ(poll_once(), none);
    EXPECT_EQ(qrn_fd_resume(fdm, ends[0], QRN_FD_READ), QRN_OK);
    EXPECT_EQ(poll_once(), one(QRN_FD_READ, this));
    EXPECT_EQ(qrn_fd_unwatch(fdm, ends[0], QRN_FD_READ), QRN_OK);
    EXPECT_EQ(qrn_fd_resume(fdm, ends[0], QRN_FD_READ), QRN_OK) << "harmless when not watched";
    EXPECT_EQ(poll_once(), none);
}

TEST_F(Descriptors, ANumberThatWasClosedWhileWatchedCanBeWatchedAgain)
{
    ASSERT_EQ(watch(QRN_FD_READ), QRN_OK);
    const int spare = dup(ends[0]);
    close(ends[0]);
    ASSERT_EQ(dup2(spare, ends[0]), ends[0]);
    close(spare);
    EXPECT_EQ(qrn_fd_unwatch(fdm, ends[0], QRN_FD_READ), QRN_OK);
    ASSERT_EQ(watch(QRN_FD_READ), QRN_OK);
    make_readable();
    EXPECT_EQ(poll_once(), one(QRN_FD_READ));
}

TEST_F(Descriptors, BadWatchesAreRefusedAndChangeNothing)
{
    FILE *file = std::tmpfile(); // epoll takes no regular files
    ASSERT_NE(file, nullptr);
    ASSERT_EQ(watch(QRN_FD_READ), QRN_OK);
    const struct {
        int handle;
        qrn_ulong_t ev;
    } table[] = {{-1, QRN_FD_READ},
                 {ends[1], 0},
                 {ends[1], 0x8},
                 {ends[0], QRN_FD_READ},
                 {fileno(file), QRN_FD_READ},
                 {1'000'000, QRN_FD_READ}};
    for (const auto &row : table) {
        qrn_seterr(0, "");
        EXPECT_EQ(qrn_fd_watch(fdm, row.handle, row.ev, queue, callback, nullptr), QRN_FAILURE);
        EXPECT_EQ(qrn_errnum(), QRN_ERR_INVALID) << row.handle;
        if (row.handle != ends[0]) {
            EXPECT_EQ(qrn_fd_unwatch(fdm, row.handle, row.ev), QRN_FAILURE) << row.handle;
        }
    }
    std::fclose(file);
    make_readable();
    EXPECT_EQ(poll_once(), one(QRN_FD_READ));
    EXPECT_EQ(qrn_fd_suspend(fdm, 2'000'000, QRN_FD_READ), QRN_FAILURE);
    EXPECT_EQ(qrn_fd_resume(fdm, -1, QRN_FD_READ), QRN_FAILURE);
    qrn_fd_t blank = {};
    EXPECT_EQ(qrn_fd_suspend(&blank, 0, QRN_FD_READ), QRN_FAILURE);
    EXPECT_EQ(qrn_fd_resume(nullptr, 0, QRN_FD_READ), QRN_FAILURE);
}

TEST_F(Descriptors, AQueueThatTakesNoMoreSilencesTheWatch)
{
    ASSERT_EQ(watch(QRN_FD_READ), QRN_OK);
    make_readable();
    enqueue_result = -1;
    EXPECT_EQ(poll_once(), one(QRN_FD_READ));
    EXPECT_EQ(poll_once(), one(QRN_FD_READ)) << "tried again";
    enqueue_result = 1;
    EXPECT_EQ(poll_once(), one(QRN_FD_READ));
    EXPECT_EQ(poll_once(), none);
}

TEST_F(Descriptors, AWakeUpEndsTheWaitAndTheWaitIsStamped)
{
    kfx_hrtime_t before;
    kfx_hrtime_timestamp(&before);
    qrn_fd_wake(fdm);
    qrn_fd_wake(fdm);
    EXPECT_EQ(qrn_fd_wait(fdm, -1), QRN_OK);
    EXPECT_EQ(qrn_fd_report(fdm, record), 0);
    EXPECT_GE(fdm->fd_wakeup_ts.tsc_ticks, before.tsc_ticks);
    std::thread waker([this] { qrn_fd_wake(fdm); });
    EXPECT_EQ(qrn_fd_wait(fdm, -1), QRN_OK);
    waker.join();
}

TEST_F(Descriptors, PairsOfManyThreadsLeaveTheWatchActive)
{
    ASSERT_EQ(watch(QRN_FD_READ), QRN_OK);
    make_readable();
    std::vector<std::thread> team;
    for (int t = 0; t < 4; ++t)
        team.emplace_back([this] {
            for (int i = 0; i < 5'000; ++i) {
                qrn_fd_suspend(fdm, ends[0], QRN_FD_READ);
                qrn_fd_resume(fdm, ends[0], QRN_FD_READ);
            }
        });
    for (int i = 0; i < 200; ++i)
        if (!poll_once().empty())
            qrn_fd_resume(fdm, ends[0], QRN_FD_READ);
    for (auto &thread : team)
        thread.join();
    EXPECT_EQ(poll_once(), one(QRN_FD_READ));
}

} // namespace
