// SPDX-License-Identifier: Apache-2.0
//
// The enqueue side of the monitor callback and the count of its warnings, the size of a queue, its
// descriptor, and the controller that watches it.

#include <cerrno>
#include <cstring>

#include "kfx.h"
#include "kfxlog.h"
#include "qrnerr.h"
#include "qrnev_account.h"
#include "qrnev_append.h"
#include "qrnev_track.h"

using namespace qrnev;

void qrnev::size_and_stamp(qrn_event_queue_t *evq, qrn_event_t *ev, long sz)
{
    if (kfx::load(evq->attr->q_sz_warn) != 0) {
        kfx::add(evq->qsz, sz);
        ev->marks |= mark_sized;
    }
    if (kfx::load(evq->attr->q_delay_warn) != 0 || kfx::load(evq->attr->q_age) != 0) {
        kfx_hrtime_timestamp(&ev->enqtv);
        ev->marks |= mark_stamped;
    }
}

int qrn_evq_enq_mon_hook(qrn_event_queue_t *evq, qrn_event_t *ev, long sz)
{
    KFX_CHECK(evq->monproc != nullptr || kfx::load(evq->attr->q_age) != 0,
              "evq->monproc!=NULL||evq->attr->q_age!=0");
    size_and_stamp(evq, ev, sz);
    return 0;
}

int qrn_evq_post_enq_mon_hook(qrn_event_queue_t *evq)
{
    KFX_CHECK(evq->monproc != nullptr, "evq->monproc!=NULL");
    if (kfx::load(evq->attr->q_notify) != 0)
        evq->monproc(evq, QRN_EVQ_MON_ENQUEUE_NOTIFICATION, 1, 0, evq->clientd);
    return 0;
}

int qrn_event_queue_size(qrn_event_queue_t *evq)
{
    KFX_TRACE(KFX_DBG_API, "[qrn_event_queue_size] evq[%p]\n", static_cast<void *>(evq));
    if (evq == nullptr) {
        qrn_seterr(QRN_ERR_INVALID, "CoreApi-5688-396: evq must be valid");
        return -1;
    }
    if (kfx::load(evq->attr->q_sz_warn) == 0) {
        qrn_seterr(QRN_ERR_INVALID, "CoreApi-5688-397: evq must have queue_size_warning > 0");
        return -1;
    }
    return static_cast<int>(kfx::load(evq->qsz));
}

int qrn_event_queue_retrieve_warnings(qrn_event_queue_t *evq, qrn_ulong_t *size_warnings,
                                      qrn_ulong_t *delay_warnings)
{
    KFX_TRACE(KFX_DBG_API, "[qrn_event_queue_retrieve_warnings] evq[%p]\n",
              static_cast<void *>(evq));
    if (evq == nullptr) {
        qrn_seterr(QRN_ERR_INVALID, "CoreApi-5688-406: evq must be valid");
        return -1;
    }
    if (size_warnings != nullptr)
        *size_warnings = static_cast<qrn_ulong_t>(kfx::load(evq->size_warnings));
    if (delay_warnings != nullptr)
        *delay_warnings = static_cast<qrn_ulong_t>(kfx::load(evq->delay_warnings));
    return 0;
}

int qrn_event_queue_fd(qrn_event_queue_t *evq)
{
    KFX_TRACE(KFX_DBG_API, "[qrn_event_queue_fd] evq[%p]\n", static_cast<void *>(evq));
    if (evq == nullptr) {
        qrn_seterr(QRN_ERR_INVALID, "CoreApi-5688-403: evq must be valid");
        return -1;
    }
    if (is_shut_down(evq)) {
        qrn_seterr(QRN_ERR_INVALID, "CoreApi-5688-404: evq is shut down");
        return -1;
    }
    int fd = qrn_tl_queue_fd(evq->q);
    if (fd == -1)
        qrn_seterrf(QRN_ERR_INVALID, "CoreApi-5688-405: no event descriptor [%d] [%s]", errno,
                    strerrordesc_np(errno));
    return fd;
}

int qrn_event_queue_monitor(qrnmon_sctl_t *sctl, qrn_event_queue_t *evq)
{
    if (sctl == nullptr) {
        qrn_seterr(QRN_ERR_INVALID, "CoreApi-5688-399: sctl must not be NULL");
        return -1;
    }
    if (evq == nullptr) {
        qrn_seterr(QRN_ERR_INVALID, "CoreApi-5688-400: evq must not be NULL");
        return -1;
    }
    if (kfx::load(evq->mon_sctl) != nullptr)
        kfx::store(evq->mon_sctl, sctl);
    return 0;
}

int qrn_event_queue_unmonitor(qrnmon_sctl_t *sctl, qrn_event_queue_t *evq)
{
    if (sctl == nullptr) {
        qrn_seterr(QRN_ERR_INVALID, "CoreApi-5688-401: sctl must not be NULL");
        return -1;
    }
    if (evq == nullptr) {
        qrn_seterr(QRN_ERR_INVALID, "CoreApi-5688-402: evq must not be NULL");
        return -1;
    }
    if (kfx::load(evq->mon_sctl) == sctl)
        kfx::store(evq->mon_sctl, nullptr);
    return 0;
}
