/* SPDX-License-Identifier: Apache-2.0 */
/* Counted messages. */
#include <gtest/gtest.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "qrnmsg.h"

namespace {

class Message : public testing::Test {
protected:
    ~Message() override { EXPECT_EQ(qrn_msg_live(), 0); }
};

int consumed;

void count_consumed(qrn_msg_t *msg, void *clientd)
{
    EXPECT_STREQ(qrn_msg_topic(msg), "t");
    EXPECT_EQ(clientd, &consumed);
    ++consumed;
}

TEST_F(Message, CopiesWhatItIsMadeOf)
{
    char topic[] = "prices", payload[] = {'a', '\0', 'b'};
    qrn_msg_t *msg = qrn_msg_create(QRN_MSG_TYPE_RESPONSE, topic, payload, sizeof payload, 77);
    std::memset(topic, 'x', 3);
    std::memset(payload, 'x', sizeof payload);
    size_t len = 0;
    const auto *bytes = static_cast<const char *>(qrn_msg_payload(msg, &len));
    EXPECT_STREQ(qrn_msg_topic(msg), "prices");
    EXPECT_EQ(std::string(bytes, len), std::string("a\0b", 3));
    EXPECT_EQ(bytes[len], '\0');
    EXPECT_EQ(reinterpret_cast<uintptr_t>(bytes) % alignof(std::max_align_t), 0u);
    EXPECT_EQ(msg->type, QRN_MSG_TYPE_RESPONSE);
    EXPECT_EQ(msg->flags, 0);
    EXPECT_EQ(msg->sequence_number, 77u);
    EXPECT_EQ(qrn_msg_live(), 1);
    EXPECT_EQ(qrn_msg_delete(msg), QRN_OK);
}

TEST_F(Message, MayLackTopicAndPayload)
{
    qrn_msg_t *msg = qrn_msg_create(QRN_MSG_TYPE_IMMEDIATE, nullptr, nullptr, 0, 0);
    size_t len = 1;
    EXPECT_STREQ(static_cast<const char *>(qrn_msg_payload(msg, &len)), "");
    EXPECT_EQ(len, 0u);
    EXPECT_EQ(qrn_msg_topic(msg), nullptr);
    qrn_msg_delete(msg);
}

TEST_F(Message, LivesUntilItsLastReference)
{
    qrn_msg_t *msg = qrn_msg_create(QRN_MSG_TYPE_DATA, "t", "abc", 3, 1);
    std::vector<std::thread> team;
    for (int t = 0; t < 4; ++t) {
        qrn_msg_retain(msg);
        team.emplace_back([msg] {
            for (int i = 0; i < 20'000; ++i)
                qrn_msg_delete(qrn_msg_retain(msg));
            size_t len;
            EXPECT_STREQ(static_cast<const char *>(qrn_msg_payload(msg, &len)), "abc");
            qrn_msg_delete(msg);
        });
    }
    qrn_msg_delete(msg);
    for (auto &thread : team)
        thread.join();
}

TEST_F(Message, ReportsItsConsumptionOnceUnlessDiscarded)
{
    for (const bool discarded : {false, true}) {
        consumed = 0;
        qrn_msg_t *msg = qrn_msg_create(QRN_MSG_TYPE_DATA, "t", nullptr, 0, 1);
        qrn_msg_set_wqx_cr(msg, count_consumed, &consumed);
        qrn_msg_retain(msg);
        if (discarded) {
            EXPECT_EQ(qrn_msg_clr_wqx_cr(msg), QRN_OK);
        }
        qrn_msg_delete(msg);
        EXPECT_EQ(consumed, 0);
        qrn_msg_delete(msg);
        EXPECT_EQ(consumed, discarded ? 0 : 1);
    }
}

TEST_F(Message, HasAFieldForTimestampsAndNoOther)
{
    qrn_msg_t *msg = qrn_msg_create(QRN_MSG_TYPE_DATA, "t", nullptr, 0, 1);
    msg->flags |= QRN_MSG_TIMESTAMPS_FIELD;
    auto *stamps = static_cast<qrn_msg_timestamps_t *>(
        qrn_msg_retrieve_internal_field_ptr(msg, QRN_MSG_TIMESTAMPS_FIELD));
    ASSERT_NE(stamps, nullptr);
    stamps->fd_wakeup_ts.tsc_ticks = 5;
    EXPECT_EQ(qrn_msg_retrieve_internal_field_ptr(msg, QRN_MSG_TIMESTAMPS_FIELD), stamps);
    EXPECT_EQ(qrn_msg_retrieve_internal_field_ptr(msg, 0x400), nullptr);
    qrn_msg_delete(msg);
}

TEST_F(Message, ABlankRecordIsNotFreed)
{
    qrn_msg_t blank = {};
    EXPECT_EQ(qrn_msg_clr_wqx_cr(&blank), QRN_OK);
    EXPECT_EQ(qrn_msg_delete(&blank), QRN_OK);
}

} // namespace
