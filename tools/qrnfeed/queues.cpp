// SPDX-License-Identifier: Apache-2.0
#include "queues.h"

#include <string>

namespace feeder {

namespace {

void set(const attr_ptr &attr, const std::string &name, const std::string &value)
{
    if (qrn_event_queue_attr_str_setopt(attr.get(), name.c_str(), value.c_str()) != QRN_OK)
        throw refusal{"--option '" + name + "=" + value + "': " + qrn_errmsg()};
}

int on_report(qrn_event_queue_t *, int report, size_t, qrn_ulong_t delay, void *clientd)
{
    auto &into = *static_cast<warnings *>(clientd);
    // An accepted event is told by the number of both warnings together, but without a delay.
    if (report == QRN_EVQ_MON_ENQUEUE_NOTIFICATION && delay == 0) {
        ++into.enqueued;
        return 0;
    }
    into.size += (report & QRN_EVQ_MON_SIZE_WARNING) != 0 ? 1 : 0;
    into.delay += (report & QRN_EVQ_MON_DELAY_WARNING) != 0 ? 1 : 0;
    return 0;
}

} // namespace

attr_ptr make_attr(const char *name, const settings &wanted)
{
    qrn_event_queue_attr_t *made = nullptr;
    if (qrn_event_queue_attr_create(&made) != QRN_OK)
        throw refusal{std::string("no options: ") + qrn_errmsg()};
    attr_ptr attr(made);
    set(attr, "event_queue_name", name);
    set(attr, "queue_count_enabled", "1");
    set(attr, "queue_service_time_enabled", "1");
    set(attr, "queue_age_enabled", "1");
    set(attr, "queue_cancellation_callbacks_enabled", wanted.deletions.empty() ? "0" : "1");
    for (const auto &[option, value] : wanted.options)
        set(attr, option, value);
    return attr;
}

bool is_on(const attr_ptr &attr, const char *option)
{
    int value = 0;
    size_t length = sizeof value;
    return qrn_event_queue_attr_getopt(attr.get(), option, &value, &length) == QRN_OK && value != 0;
}

queue_ptr make_queue(const attr_ptr &attr, warnings *into)
{
    qrn_event_queue_t *made = nullptr;
    if (qrn_event_queue_create(&made, into != nullptr ? on_report : nullptr, into, attr.get()) !=
        QRN_OK)
        throw refusal{std::string("no queue: ") + qrn_errmsg()};
    return queue_ptr(made);
}

} // namespace feeder
