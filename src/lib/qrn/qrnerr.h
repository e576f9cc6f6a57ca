/* SPDX-License-Identifier: Apache-2.0 */
/* The last error of a thread. Applications read it with qrn_errnum() and qrn_errmsg() of qrn.h. */
#ifndef QRNERR_H
#define QRNERR_H

#include "qrn.h"

#ifdef __cplusplus
extern "C" {
#endif

/* An argument or an option that was refused. */
#define QRN_ERR_INVALID 1
/* The monitoring layer failed. */
#define QRN_ERR_MONITOR 4

/* Records the calling thread's last error. The text is copied. */
void qrn_seterr(int code, const char *msg);
/* The same with a formatted text. */
__attribute__((format(printf, 2, 3))) void qrn_seterrf(int code, const char *fmt, ...);

#ifdef __cplusplus
}
#endif

#endif
