/* SPDX-License-Identifier: Apache-2.0 */
/* Descriptor manager, on epoll. */
#ifndef QRNFD_H
#define QRNFD_H

#include "kfxhrtime.h"
#include "kfxsync.h"
#include "qrn.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct qrn_fd_t_stct {
    kfx_hrtime_t fd_wakeup_ts; /* end of the last wait */

    /* Private. */
} qrn_fd_t;

/* Stops and resumes the report of readiness `ev` on `handle`; in pairs. 0, or -1. Any thread. */
int qrn_fd_suspend(qrn_fd_t *fdm, qrn_handle_t handle, qrn_ulong_t ev);
int qrn_fd_resume(qrn_fd_t *fdm, qrn_handle_t handle, qrn_ulong_t ev);

#ifdef __cplusplus
}
#endif

#endif
