// SPDX-License-Identifier: Apache-2.0
//
// The attribute record: built-in defaults and life cycle. A record belongs to one thread at a time,
// so nothing here is atomic; the options of a running queue are reached through qrnev_options.cpp.

#include "qrnev.h"

#include <cstdlib>
#include <iterator>
#include <strings.h>

#include "kfxlog.h"
#include "qrncfg.h"
#include "qrnerr.h"
#include "qrnev_attr.h"

namespace {

using record = qrn_event_queue_attr_t;

constexpr size_t option_count = std::size(qrn_event_queue_attr_opt_table) - 1;
constexpr size_t mask_size = (option_count + 7) / 8;

int refuse(const char *message)
{
    qrn_seterr(QRN_ERR_INVALID, message);
    return QRN_FAILURE;
}

// The environment belongs to the program, which must not change it while other threads run.
const char *variable(const char *name)
{
    return std::getenv(name); // NOLINT(concurrency-mt-unsafe)
}

// In any base that the text shows; what follows the number is ignored, the low 32 bits count.
qrn_uint_t interval_default()
{
    const char *text = variable("QRN_MONITOR_INTERVAL");
    return text == nullptr ? 0 : static_cast<qrn_uint_t>(std::strtoul(text, nullptr, 0));
}

// An unknown name is no error.
int transport_default()
{
    const char *text = variable("QRN_MONITOR_TRANSPORT");
    const bool other = text != nullptr && strcasecmp(text, "qrnsnmp") == 0;
    return other ? QRN_EVQ_MON_TRANSPORT_QRNSNMP : QRN_EVQ_MON_TRANSPORT_QRN;
}

void release_blocks(record *attr)
{
    qrnev::release(attr->mon_transport_opts);
    qrnev::release(attr->mon_appid);
    qrnev::release(attr->setopt_mask);
    qrnev::release(attr->evq_name);
    attr->evq_name_len = 0;
    qrnev::release(attr->app_data);
    attr->app_data_len = 0;
}

void destroy(record *attr)
{
    release_blocks(attr);
    std::free(attr);
}

int create(record **attr, int (*initialise)(record *))
{
    *attr = nullptr;
    auto *made = kfx::alloc_zeroed<record>();
    if (initialise(made) == QRN_FAILURE) {
        destroy(made); // with what it was given before the failure
        return QRN_FAILURE;
    }
    *attr = made;
    return QRN_OK;
}

} // namespace

int qrn_event_queue_attr_option_size(void)
{
    return static_cast<int>(option_count + 1);
}

size_t qrn_event_queue_attr_setopt_mask_size(void)
{
    return mask_size;
}

int qrn_event_queue_attr_init_defaults(record *attr)
{
    KFX_ASSERT(attr != nullptr, "attr!=NULL");
    *attr = record{}; // the pointers of a fresh record mean nothing
    attr->q_purge_on_close = 1;
    attr->mon_interval = interval_default();
    attr->mon_transport_module = transport_default();
    // Taken as it is: only the option refuses a leading quote.
    attr->mon_transport_opts = qrnev::copy_text(variable("QRN_MONITOR_TRANSPORT_OPTS"));
    attr->mon_appid = qrnev::copy_text(variable("QRN_MONITOR_APPID"));
    attr->setopt_mask = kfx::alloc_zeroed<char>(mask_size);
    return QRN_OK;
}

int qrn_event_queue_attr_clone(record *dest, const record *src)
{
    release_blocks(dest);
    *dest = *src; // the numbers; each pointer is replaced below, with its length
    dest->mon_transport_opts = qrnev::copy_text(src->mon_transport_opts);
    dest->mon_appid = qrnev::copy_text(src->mon_appid);
    dest->setopt_mask = qrnev::copy_bytes(src->setopt_mask, mask_size);
    dest->evq_name = qrnev::copy_text(src->evq_name);
    dest->evq_name_len = dest->evq_name == nullptr ? 0 : src->evq_name_len;
    dest->app_data = qrnev::copy_bytes(src->app_data, src->app_data_len);
    dest->app_data_len = dest->app_data == nullptr ? 0 : src->app_data_len;
    return QRN_OK;
}

int qrn_event_queue_attr_cleanup_internal(record *attr)
{
    release_blocks(attr);
    return QRN_OK;
}

int qrn_event_queue_attr_create(record **attr)
{
    qrn_do_init_once();
    KFX_TRACE(KFX_DBG_API, "[qrn_event_queue_attr_create] attr[%p]\n", static_cast<void *>(attr));
    if (attr == nullptr)
        return refuse("CoreApi-5688-289: attr must be valid");
    return create(attr, qrn_event_queue_attr_init_clone);
}

int qrn_event_queue_attr_create_default(record **attr)
{
    qrn_do_init_once();
    KFX_TRACE(KFX_DBG_API, "[qrn_event_queue_attr_create_default]\n");
    if (attr == nullptr)
        return refuse("CoreApi-5688-290: attr must be valid");
    return create(attr, qrn_event_queue_attr_init_clone_base);
}

int qrn_event_queue_attr_dup(record **attr, const record *original)
{
    KFX_TRACE(KFX_DBG_API, "[qrn_event_queue_attr_dup] attr[%p] original[%p]\n",
              static_cast<void *>(attr), static_cast<const void *>(original));
    if (attr == nullptr)
        return refuse("CoreApi-5688-292: attr must be valid");
    if (original == nullptr)
        return refuse("CoreApi-5688-293: original must be valid");
    *attr = nullptr;
    record *made = nullptr;
    if (qrn_event_queue_attr_create(&made) == QRN_FAILURE)
        return QRN_FAILURE;
    qrn_event_queue_attr_clone(made, original);
    *attr = made;
    return QRN_OK;
}

int qrn_event_queue_attr_delete(record *attr)
{
    KFX_TRACE(KFX_DBG_API, "[qrn_event_queue_attr_delete] attr[%p]\n", static_cast<void *>(attr));
    if (attr == nullptr)
        return refuse("CoreApi-5688-291: attr must be valid");
    destroy(attr);
    return QRN_OK;
}
