// SPDX-License-Identifier: Apache-2.0
// Every operation of the library exists with C linkage: linking this program proves it. The
// handlers of the options are named too, and must be those of the option table.
#include <stdio.h>

#include "kfx.h"
#include "kfxhrtime.h"
#include "kfxlog.h"
#include "qrncfg.h"
#include "qrnerr.h"
#include "qrnev.h"
#include "qrnfd.h"
#include "qrnmon.h"
#include "qrnmsg.h"
#include "qrnqueue.h"
#include "qrntime.h"

typedef void (*op)(void);

// clang-format off
// Volatile, so that no compiler drops a reference.
static const op volatile operations[] = {
    // Public.
    (op)qrn_errmsg, (op)qrn_errnum, (op)qrn_event_dispatch, (op)qrn_event_dispatch_unblock,
    (op)qrn_event_queue_attr_create, (op)qrn_event_queue_attr_create_default,
    (op)qrn_event_queue_attr_delete, (op)qrn_event_queue_attr_dump, (op)qrn_event_queue_attr_dup,
    (op)qrn_event_queue_attr_getopt, (op)qrn_event_queue_attr_option_size,
    (op)qrn_event_queue_attr_setopt, (op)qrn_event_queue_attr_setopt_mask_size,
    (op)qrn_event_queue_attr_str_getopt, (op)qrn_event_queue_attr_str_setopt,
    (op)qrn_event_queue_create, (op)qrn_event_queue_delete, (op)qrn_event_queue_dump,
    (op)qrn_event_queue_fd, (op)qrn_event_queue_getopt, (op)qrn_event_queue_monitor,
    (op)qrn_event_queue_reset_stats, (op)qrn_event_queue_retrieve_stats, (op)qrn_event_queue_setopt,
    (op)qrn_event_queue_shutdown, (op)qrn_event_queue_size, (op)qrn_event_queue_str_getopt,
    (op)qrn_event_queue_str_setopt, (op)qrn_event_queue_unmonitor,
    (op)qrn_event_queue_validate_name, (op)qrn_evq_enq_callback,
    (op)qrn_event_queue_retrieve_warnings, (op)qrn_version,
    // Internal: records, enqueue, statistics, dispatching threads, cancellation.
    (op)qrn_event_bundle_create, (op)qrn_event_bundle_delete, (op)qrn_event_delete,
    (op)qrn_event_delete_ex, (op)qrn_event_queue_attr_cleanup_internal,
    (op)qrn_event_queue_attr_clone, (op)qrn_event_queue_attr_init_clone,
    (op)qrn_event_queue_attr_init_clone_base, (op)qrn_event_queue_attr_init_defaults,
    (op)qrn_evq_add_dispatch_thread, (op)qrn_evq_cancel_cb_ctx_src, (op)qrn_evq_cancel_cb_io,
    (op)qrn_evq_cancel_cb_rcv, (op)qrn_evq_cancel_cb_req, (op)qrn_evq_cancel_cb_src,
    (op)qrn_evq_cancel_cb_timer, (op)qrn_evq_cancel_cb_wrcv, (op)qrn_evq_cancel_thrd_check,
    (op)qrn_evq_check_obj, (op)qrn_evq_dequeue_cb_func, (op)qrn_evq_dispatch_thread_ev_done,
    (op)qrn_evq_dispatch_thread_ev_update, (op)qrn_evq_enq_cancel, (op)qrn_evq_enq_ctx_src,
    (op)qrn_evq_enq_imsg, (op)qrn_evq_enq_io, (op)qrn_evq_enq_mon_hook, (op)qrn_evq_enq_msg_bundle,
    (op)qrn_evq_enq_msg_with_proc, (op)qrn_evq_enq_req, (op)qrn_evq_enq_src, (op)qrn_evq_enq_timer,
    (op)qrn_evq_enq_wrcv_msg, (op)qrn_evq_enq_wrcv_msg_with_proc, (op)qrn_evq_init,
    (op)qrn_evq_post_enq_mon_hook, (op)qrn_evq_rem_dispatch_thread, (op)qrn_evq_thrd_enq_all,
    (op)qrn_evq_update_svc_time,
    // Internal: purges, compare functions, filters.
    (op)qrn_evq_purge_ctx_src, (op)qrn_evq_purge_ctx_src_cmp, (op)qrn_evq_purge_io,
    (op)qrn_evq_purge_io_all, (op)qrn_evq_purge_io_cmp, (op)qrn_evq_purge_msg_bundle_cmp,
    (op)qrn_evq_purge_rcv, (op)qrn_evq_purge_rcv_cmp, (op)qrn_evq_purge_rcv_filter,
    (op)qrn_evq_purge_rem, (op)qrn_evq_purge_req, (op)qrn_evq_purge_req_cmp, (op)qrn_evq_purge_src,
    (op)qrn_evq_purge_src_cmp, (op)qrn_evq_purge_timer, (op)qrn_evq_purge_timer_all,
    (op)qrn_evq_purge_timer_cmp, (op)qrn_evq_purge_wrcv, (op)qrn_evq_purge_wrcv_cmp,
    (op)qrn_evq_purge_wrcv_filter,
    // What the module calls of its siblings.
    (op)kfx_abort, (op)kfx_current_tv, (op)kfx_debug_logf, (op)kfx_fail_assert,
    (op)kfx_hrtime_delta, (op)kfx_hrtime_delta_usec, (op)kfx_hrtime_timestamp, (op)kfx_logf,
    (op)kfx_set_fail_assert_handler, (op)kfx_set_log_sink, (op)kfx_snprintf,
    (op)qrn_automon_sctl_create, (op)qrn_automon_sctl_destroy, (op)qrn_do_init_once,
    (op)qrn_fd_resume, (op)qrn_fd_suspend, (op)qrn_msg_clr_wqx_cr, (op)qrn_msg_delete,
    (op)qrn_msg_retrieve_internal_field_ptr, (op)qrn_queue_create, (op)qrn_queue_delete,
    (op)qrn_queue_dequeue, (op)qrn_queue_enqueue, (op)qrn_seterr, (op)qrn_seterrf,
    (op)qrn_timer_normalize_tv, (op)qrn_timer_push_free_id, (op)qrn_tl_queue_create,
    (op)qrn_tl_queue_delete, (op)qrn_tl_queue_dequeue, (op)qrn_tl_queue_dequeue_ex,
    (op)qrn_tl_queue_dequeue_timed, (op)qrn_tl_queue_enqueue, (op)qrn_tl_queue_filter_all,
    (op)qrn_tl_queue_is_empty, (op)qrn_tl_queue_remove_all, (op)qrn_xmlcfg_check_event_queue,
    (op)qrnmon_errmsg, (op)qrnmon_errnum, (op)qrnmon_evq_monitor, (op)qrnmon_evq_unmonitor,
    (op)qrnmon_format_csv_module, (op)qrnmon_transport_qrn_module,
    (op)qrnmon_transport_qrnsnmp_module,
};
#define HANDLERS(option) \
    {(op)qrn_event_queue_attr_##option##_set, (op)qrn_event_queue_attr_##option##_sset, \
     (op)qrn_event_queue_attr_##option##_get, (op)qrn_event_queue_attr_##option##_sget}
static const op handlers[][4] = {
    HANDLERS(q_sz_warn), HANDLERS(q_delay_warn), HANDLERS(q_notify), HANDLERS(q_cancel_cb),
    HANDLERS(q_purge_on_close), HANDLERS(q_svc_time), HANDLERS(q_age), HANDLERS(q_count),
    HANDLERS(monitor_ivl), HANDLERS(monitor_transport), HANDLERS(monitor_transport_opts),
    HANDLERS(monitor_appid), HANDLERS(event_queue_name), HANDLERS(app_data),
};
// clang-format on

int main(void)
{
    for (size_t i = 0; i < sizeof operations / sizeof operations[0]; ++i)
        if (operations[i] == NULL)
            return fprintf(stderr, "operation %zu is missing\n", i);
    const qrn_event_queue_attr_entry_t *entry = qrn_event_queue_attr_opt_table;
    for (size_t i = 0; i < sizeof handlers / sizeof handlers[0]; ++i, ++entry)
        if ((op)entry->set != handlers[i][0] || (op)entry->sset != handlers[i][1] ||
            (op)entry->get != handlers[i][2] || (op)entry->sget != handlers[i][3])
            return fprintf(stderr, "other handlers of option %zu\n", i);
    return entry->oname != NULL || qrn_event_queue_opt_table[7].oname != NULL;
}
