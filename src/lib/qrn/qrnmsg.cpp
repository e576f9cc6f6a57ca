/* SPDX-License-Identifier: Apache-2.0 */
/* Counted messages.
 *
 * The release of a reference publishes what its holder did with the message to the thread that frees it:
 * the count is changed in sequentially consistent order, which covers that.
 *
 * The operations are weak: a program may put its own in their place at link time. */
#include "qrnmsg.h"

#include <cstddef>
#include <cstring>
#include <new>

#include "kfx.h"
#include "kfxsync.h"

namespace {

constinit long live_ = 0;

/* The payload comes first, at an address where a block from malloc could begin. */
constexpr size_t payload_offset =
    (sizeof(qrn_msg_t) + alignof(std::max_align_t) - 1) & ~(alignof(std::max_align_t) - 1);

void end(qrn_msg_t *msg)
{
    if (const qrn_msg_consumed_proc consumed = kfx::load(msg->consumed); consumed != nullptr)
        consumed(msg, msg->consumed_clientd);
    kfx::sub(live_, 1);
    std::free(msg);
}

/* Puts `len` bytes and a final 0 at `*room` and moves it past them. */
const char *put(char **room, const void *bytes, size_t len)
{
    char *start = *room;
    if (len > 0)
        std::memcpy(start, bytes, len);
    start[len] = '\0';
    *room = start + len + 1;
    return start;
}

} // namespace

extern "C" {

[[gnu::weak]] qrn_msg_t *qrn_msg_create(int type, const char *topic, const void *payload,
                                        size_t len, qrn_uint_t sequence_number)
{
    const size_t topic_len = topic == nullptr ? 0 : std::strlen(topic);
    char *block = kfx::alloc<char>(payload_offset + topic_len + len + 2);
    auto *msg = new (block) qrn_msg_t{};
    char *room = block + payload_offset;
    msg->type = type;
    msg->sequence_number = sequence_number;
    msg->refs = 1;
    msg->payload = put(&room, payload, len);
    msg->payload_len = len;
    msg->topic = topic == nullptr ? nullptr : put(&room, topic, topic_len);
    kfx::add(live_, 1);
    return msg;
}

[[gnu::weak]] qrn_msg_t *qrn_msg_retain(qrn_msg_t *msg)
{
    kfx::add(msg->refs, 1);
    return msg;
}

[[gnu::weak]] int qrn_msg_delete(qrn_msg_t *msg)
{
    // A record that was not made here has no references and ends with its maker.
    if (kfx::load(msg->refs) > 0 && kfx::sub(msg->refs, 1) == 1)
        end(msg);
    return QRN_OK;
}

[[gnu::weak]] const char *qrn_msg_topic(const qrn_msg_t *msg)
{
    return msg->topic;
}

[[gnu::weak]] const void *qrn_msg_payload(const qrn_msg_t *msg, size_t *len)
{
    *len = msg->payload_len;
    return msg->payload;
}

[[gnu::weak]] void qrn_msg_set_wqx_cr(qrn_msg_t *msg, qrn_msg_consumed_proc consumed, void *clientd)
{
    msg->consumed_clientd = clientd;
    kfx::store(msg->consumed, consumed);
}

[[gnu::weak]] int qrn_msg_clr_wqx_cr(qrn_msg_t *msg)
{
    kfx::store(msg->consumed, nullptr);
    return QRN_OK;
}

[[gnu::weak]] void *qrn_msg_retrieve_internal_field_ptr(qrn_msg_t *msg, int field)
{
    return field == QRN_MSG_TIMESTAMPS_FIELD ? &msg->stamps : nullptr;
}

[[gnu::weak]] long qrn_msg_live(void)
{
    return kfx::load(live_);
}

} // extern "C"
