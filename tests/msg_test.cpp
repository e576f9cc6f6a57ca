// SPDX-License-Identifier: Apache-2.0
// Counted messages.
#include <thread>

#include "support.h"

namespace {

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
