// SPDX-License-Identifier: Apache-2.0
//
// The operations that the module calls outside itself, in the place of the library's own: they check
// how they are used, and need no thread and no clock.

#include "explorer.h"

#include "kfxhrtime.h"
#include "kfxlog.h"
#include "qrnobj.h"

int sched::suspended = 0;

extern "C" {

void kfx_fail_assert(const char *expr, const char *, int, int)
{
    sched::check(false, expr);
}
void kfx_hrtime_timestamp(kfx_hrtime_t *ts)
{
    ts->tsc_ticks = static_cast<uint64_t>(sched::now);
}
void kfx_hrtime_delta_usec(const kfx_hrtime_ivl_t *ivl, qrn_ulong_t *usec)
{
    *usec = *ivl / 1000;
}
void kfx_current_tv(struct timeval *tv)
{
    *tv = {sched::now / sched::second, sched::now / 1000 % 1'000'000};
}
int qrn_fd_suspend(qrn_fd_t *, qrn_handle_t, qrn_ulong_t)
{
    ++sched::suspended;
    return 0;
}
int qrn_fd_resume(qrn_fd_t *, qrn_handle_t, qrn_ulong_t)
{
    sched::check(--sched::suspended >= 0, "resumed more often than suspended");
    return 0;
}
// `refs` counts the releases of a message.
int qrn_msg_delete(qrn_msg_t *msg)
{
    sched::point();
    sched::check(++msg->refs == 1, "a message is released twice");
    return 0;
}
int qrn_msg_clr_wqx_cr(qrn_msg_t *msg)
{
    sched::check(msg->refs == 0, "a message is used after its release");
    return 0;
}

} // extern "C"
