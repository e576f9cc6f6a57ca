// SPDX-License-Identifier: Apache-2.0
// Counted messages.
#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <thread>
#include <vector>

#include "qrnmsg.h"

namespace {

int consumed; // plain: letting go of a message must order its threads

TEST(Message, CopiesWhatItIsMadeOfAndAlignsIt)
{
    for (size_t len = 0; len < 40; ++len) {
        std::string topic(len, 't'), payload(len, '\0');
        qrn_msg_t *msg = qrn_msg_create(QRN_MSG_TYPE_RESPONSE, len == 0 ? nullptr : topic.data(),
                                        len == 0 ? nullptr : payload.data(), len, 77);
        topic = payload = std::string(len, 'x');
        EXPECT_TRUE(len == 0 ? qrn_msg_topic(msg) == nullptr
                             : qrn_msg_topic(msg) == std::string(len, 't'));
        size_t size = 99;
        const auto *bytes = static_cast<const char *>(qrn_msg_payload(msg, &size));
        EXPECT_EQ(std::string(bytes, size + 1), std::string(len + 1, '\0')) << "and a last NUL";
        EXPECT_EQ(reinterpret_cast<uintptr_t>(bytes) % alignof(std::max_align_t), 0u);
        EXPECT_EQ(qrn_msg_delete(msg), QRN_OK);
    }
}

TEST(Message, LivesUntilItsLastReferenceAndReportsThatOnceUnlessDiscarded)
{
    for (const bool discarded : {false, true}) {
        consumed = 0;
        qrn_msg_t *msg = qrn_msg_create(QRN_MSG_TYPE_DATA, "t", "abc", 3, 1);
        const auto count = [](qrn_msg_t *, void *) { ++consumed; };
        qrn_msg_set_wqx_cr(msg, count, nullptr);
        if (discarded)
            qrn_msg_clr_wqx_cr(msg);
        std::vector<std::thread> team;
        for (int t = 0; t < 4; ++t)
            team.emplace_back([msg = qrn_msg_retain(msg)] {
                for (int i = 0; i < 20'000; ++i)
                    qrn_msg_delete(qrn_msg_retain(msg));
                EXPECT_EQ(consumed, 0);
                qrn_msg_delete(msg);
            });
        qrn_msg_delete(msg);
        for (auto &thread : team)
            thread.join();
        EXPECT_EQ(consumed, discarded ? 0 : 1);
        EXPECT_EQ(qrn_msg_live(), 0);
    }
}

} // namespace
