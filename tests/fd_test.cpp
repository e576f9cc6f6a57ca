// SPDX-License-Identifier: Apache-2.0
// The descriptor manager, without queues: what would be enqueued is recorded.
#include <fcntl.h>
#include <functional>
#include <map>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

#include "qrnerr.h"
#include "qrnfd.h"
#include "support.h"

namespace {

qrn_fd_t *fdm;
int ends[3], enqueue_result; // and room for a byte
std::string reported;

int record(qrn_event_queue_t *, qrn_context_t *, qrn_handle_t handle, qrn_ulong_t ev, void *,
           qrn_fd_cb_proc)
{
    EXPECT_EQ(handle, ends[0]);
    reported += std::to_string(ev);
    if (enqueue_result == 0)
        qrn_fd_suspend(fdm, handle, ev);
    return enqueue_result;
}

std::string report()
{
    qrn_fd_report(fdm, record);
    return std::exchange(reported, {});
}

int callback(qrn_context_t *, int, qrn_ulong_t, void *)
{
    return 0;
}
qrn_event_queue_t *const evq = reinterpret_cast<qrn_event_queue_t *>(ends); // never looked into

// What a script may do, to the kinds that follow the name.
const std::map<std::string, std::function<int(qrn_ulong_t)>> steps = {
    {"watch", [](auto ev) { return qrn_fd_watch(fdm, ends[0], ev, evq, callback, nullptr); }},
    {"unwatch", [](auto ev) { return qrn_fd_unwatch(fdm, ends[0], ev); }},
    {"suspend", [](auto ev) { return qrn_fd_suspend(fdm, ends[0], ev); }},
    {"resume", [](auto ev) { return qrn_fd_resume(fdm, ends[0], ev); }},
    {"ready", [](auto) { return write(ends[1], "x", 1) == 1 ? 0 : -1; }},
    {"read", [](auto) { return recv(ends[0], ends + 2, 1, 0) == 1 ? 0 : -1; }},
    {"wait", [](auto) { return qrn_fd_wait(fdm, 0); }},
    {"hang-up", [](auto) { return shutdown(ends[1], SHUT_RDWR); }},
    {"idle", [](auto) { return qrn_fd_wait(fdm, 0) == 0 && fdm->num_ready == 0 ? 0 : -1; }},
    {"full", [](auto ev) { return enqueue_result = ev > 0 ? 1 : -1, 0; }}, // for good or not
};

class Descriptors : public testing::TestWithParam<const char *> {
protected:
    Descriptors()
    {
        fdm = qrn_fd_create(nullptr);
        enqueue_result = 0;
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, ends), 0);
    }
    ~Descriptors() override
    {
        qrn_fd_delete(fdm);
        EXPECT_EQ(close(ends[0]) | close(ends[1]), 0);
    }
};

TEST_P(Descriptors, AreReportedAsTheScriptSays)
{
    std::istringstream script(GetParam());
    for (std::string word; script >> word;) {
        const bool refused = word[0] == '!';
        const size_t digits = word.find_last_not_of("0123456789") + 1;
        const std::string step = word.substr(refused, digits - refused), ev = word.substr(digits);
        if (step == "poll" || step == "report") {
            EXPECT_EQ(step == "poll" ? qrn_fd_wait(fdm, 0) : QRN_OK, QRN_OK);
            ASSERT_EQ(report(), ev) << "before" << script.rdbuf();
        } else {
            ASSERT_EQ(steps.at(step)(std::stoul("0" + ev)), refused ? -1 : 0) << word;
        }
    }
}

INSTANTIATE_TEST_SUITE_P(
    Scripts, Descriptors,
    testing::Values( // once until each suspension is resumed; a suspended one ends no wait
        "watch1 poll ready poll1 poll idle suspend1 poll resume1 poll resume1 !resume1 poll1",
        "watch1 ready poll1 wait read resume1 report poll ready report poll1", // gone in between
        "watch1 hang-up poll1 poll idle resume1 poll1",
        "watch1 watch2 ready poll12 resume2 poll2 resume3 !unwatch3 unwatch1 unwatch2 watch3 poll3",
        "ready watch1 poll1 unwatch1 watch1 poll resume1 poll1 unwatch1 resume1 poll",
        "watch1 ready full0 poll1 poll1 full1 poll1 poll",
        "watch1 !watch1 !watch0 !watch8 ready poll1"));

TEST_F(Descriptors, ThatDoNotExistAreRefused)
{
    for (qrn_fd_t *of : {fdm, static_cast<qrn_fd_t *>(nullptr)})
        for (const int handle : {-1, ends[0], 1'000'000})
            EXPECT_EQ(qrn_fd_suspend(of, handle, 1) + qrn_fd_resume(of, handle, 1), -2);
    EXPECT_EQ(qrn_fd_watch(fdm, -1, 1, evq, callback, nullptr), -1);
    EXPECT_EQ(steps.at("watch")(1) - steps.at("unwatch")(8), 1);
    EXPECT_EQ(qrn_fd_watched_on(fdm, ends[0], 2), nullptr);
    const int file = open("/dev/null", O_RDONLY); // which no epoll takes
    EXPECT_EQ(qrn_fd_watch(fdm, file, 1, evq, callback, nullptr), -1);
    EXPECT_EQ(qrn_fd_watched_on(fdm, file, 1), nullptr);
    EXPECT_EQ(close(file), 0);
}

TEST_F(Descriptors, AreNotLostToRacingPairsAndWakeUps)
{
    ASSERT_EQ(steps.at("watch")(1) | steps.at("ready")(0), QRN_OK);
    std::vector<std::jthread> team;
    for (int t = 0; t < 4; ++t)
        team.emplace_back([] {
            for (int i = 0; i < 5'000; ++i)
                EXPECT_EQ(steps.at("suspend")(1) | steps.at("resume")(1), QRN_OK);
        });
    for (int i = 0; i < 200; ++i)
        EXPECT_EQ(steps.at("wait")(0) | (report().empty() ? 0 : steps.at("resume")(1)), QRN_OK);
    team.clear();
    EXPECT_EQ(steps.at("wait")(0), QRN_OK);
    EXPECT_EQ(report(), "1");
    for (int i = 0; i < 500; ++i) { // before, while and after the wait begins
        std::jthread waker([] { qrn_fd_wake(fdm); });
        EXPECT_EQ(qrn_fd_wait(fdm, -1), QRN_OK);
    }
}

} // namespace
