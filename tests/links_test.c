// SPDX-License-Identifier: Apache-2.0
// Every operation of the library exists with C linkage: linking this program proves it. The handlers
// of the options are named too, and must be those of the option table.
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

typedef void (*operation)(void);

// clang-format off
// Volatile, so that no compiler drops a reference.
static const operation volatile operations[] = {
    // Public.
    (operation)qrn_errmsg, (operation)qrn_errnum, (operation)qrn_event_dispatch,
    (operation)qrn_event_dispatch_unblock, (operation)qrn_event_queue_attr_create,
    (operation)qrn_event_queue_attr_create_default, (operation)qrn_event_queue_attr_delete,
    (operation)qrn_event_queue_attr_dump, (operation)qrn_event_queue_attr_dup,
    (operation)qrn_event_queue_attr_getopt, (operation)qrn_event_queue_attr_option_size,
    (operation)qrn_event_queue_attr_setopt, (operation)qrn_event_queue_attr_setopt_mask_size,
    (operation)qrn_event_queue_attr_str_getopt, (operation)qrn_event_queue_attr_str_setopt,
    (operation)qrn_event_queue_create, (operation)qrn_event_queue_delete,
    (operation)qrn_event_queue_dump, (operation)qrn_event_queue_fd,
    (operation)qrn_event_queue_getopt, (operation)qrn_event_queue_monitor,
    (operation)qrn_event_queue_reset_stats, (operation)qrn_event_queue_retrieve_stats,
    (operation)qrn_event_queue_setopt, (operation)qrn_event_queue_shutdown,
    (operation)qrn_event_queue_size, (operation)qrn_event_queue_str_getopt,
    (operation)qrn_event_queue_str_setopt, (operation)qrn_event_queue_unmonitor,
    (operation)qrn_event_queue_validate_name, (operation)qrn_evq_enq_callback,
    // Internal: records, enqueue, statistics, dispatching threads, cancellation.
    (operation)qrn_event_bundle_create, (operation)qrn_event_bundle_delete,
    (operation)qrn_event_delete, (operation)qrn_event_delete_ex,
    (operation)qrn_event_queue_attr_cleanup_internal, (operation)qrn_event_queue_attr_clone,
    (operation)qrn_event_queue_attr_init_clone, (operation)qrn_event_queue_attr_init_clone_base,
    (operation)qrn_event_queue_attr_init_defaults, (operation)qrn_evq_add_dispatch_thread,
    (operation)qrn_evq_cancel_cb_ctx_src, (operation)qrn_evq_cancel_cb_io,
    (operation)qrn_evq_cancel_cb_rcv, (operation)qrn_evq_cancel_cb_req,
    (operation)qrn_evq_cancel_cb_src, (operation)qrn_evq_cancel_cb_timer,
    (operation)qrn_evq_cancel_cb_wrcv, (operation)qrn_evq_cancel_thrd_check,
    (operation)qrn_evq_check_obj, (operation)qrn_evq_dequeue_cb_func,
    (operation)qrn_evq_dispatch_thread_ev_done, (operation)qrn_evq_dispatch_thread_ev_update,
    (operation)qrn_evq_enq_cancel, (operation)qrn_evq_enq_ctx_src, (operation)qrn_evq_enq_imsg,
    (operation)qrn_evq_enq_io, (operation)qrn_evq_enq_mon_hook, (operation)qrn_evq_enq_msg_bundle,
    (operation)qrn_evq_enq_msg_with_proc, (operation)qrn_evq_enq_req, (operation)qrn_evq_enq_src,
    (operation)qrn_evq_enq_timer, (operation)qrn_evq_enq_wrcv_msg,
    (operation)qrn_evq_enq_wrcv_msg_with_proc, (operation)qrn_evq_init,
    (operation)qrn_evq_post_enq_mon_hook, (operation)qrn_evq_rem_dispatch_thread,
    (operation)qrn_evq_thrd_enq_all, (operation)qrn_evq_update_svc_time,
    // Internal: purges, compare functions, filters.
    (operation)qrn_evq_purge_ctx_src, (operation)qrn_evq_purge_ctx_src_cmp,
    (operation)qrn_evq_purge_io, (operation)qrn_evq_purge_io_all, (operation)qrn_evq_purge_io_cmp,
    (operation)qrn_evq_purge_msg_bundle_cmp, (operation)qrn_evq_purge_rcv,
    (operation)qrn_evq_purge_rcv_cmp, (operation)qrn_evq_purge_rcv_filter,
    (operation)qrn_evq_purge_rem, (operation)qrn_evq_purge_req, (operation)qrn_evq_purge_req_cmp,
    (operation)qrn_evq_purge_src, (operation)qrn_evq_purge_src_cmp, (operation)qrn_evq_purge_timer,
    (operation)qrn_evq_purge_timer_all, (operation)qrn_evq_purge_timer_cmp,
    (operation)qrn_evq_purge_wrcv, (operation)qrn_evq_purge_wrcv_cmp,
    (operation)qrn_evq_purge_wrcv_filter,
    // What the module calls of its siblings.
    (operation)kfx_abort, (operation)kfx_current_tv, (operation)kfx_debug_logf,
    (operation)kfx_fail_assert, (operation)kfx_hrtime_delta, (operation)kfx_hrtime_delta_usec,
    (operation)kfx_hrtime_timestamp, (operation)kfx_logf, (operation)kfx_set_fail_assert_handler,
    (operation)kfx_set_log_sink, (operation)kfx_snprintf, (operation)qrn_automon_sctl_create,
    (operation)qrn_automon_sctl_destroy, (operation)qrn_do_init_once, (operation)qrn_fd_resume,
    (operation)qrn_fd_suspend, (operation)qrn_msg_clr_wqx_cr, (operation)qrn_msg_delete,
    (operation)qrn_msg_retrieve_internal_field_ptr, (operation)qrn_queue_create,
    (operation)qrn_queue_delete, (operation)qrn_queue_dequeue, (operation)qrn_queue_enqueue,
    (operation)qrn_seterr, (operation)qrn_seterrf, (operation)qrn_timer_normalize_tv,
    (operation)qrn_timer_push_free_id, (operation)qrn_tl_queue_create,
    (operation)qrn_tl_queue_delete, (operation)qrn_tl_queue_dequeue,
    (operation)qrn_tl_queue_dequeue_ex, (operation)qrn_tl_queue_dequeue_timed,
    (operation)qrn_tl_queue_enqueue, (operation)qrn_tl_queue_filter_all,
    (operation)qrn_tl_queue_is_empty, (operation)qrn_tl_queue_remove_all,
    (operation)qrn_xmlcfg_check_event_queue, (operation)qrnmon_errmsg, (operation)qrnmon_errnum,
    (operation)qrnmon_evq_monitor, (operation)qrnmon_evq_unmonitor,
    (operation)qrnmon_format_csv_module, (operation)qrnmon_transport_qrn_module,
    (operation)qrnmon_transport_qrnsnmp_module,
};
static const qrn_event_queue_attr_set_proc set[] = {
    qrn_event_queue_attr_q_sz_warn_set, qrn_event_queue_attr_q_delay_warn_set,
    qrn_event_queue_attr_q_notify_set, qrn_event_queue_attr_q_cancel_cb_set,
    qrn_event_queue_attr_q_purge_on_close_set, qrn_event_queue_attr_q_svc_time_set,
    qrn_event_queue_attr_q_age_set, qrn_event_queue_attr_q_count_set,
    qrn_event_queue_attr_monitor_ivl_set, qrn_event_queue_attr_monitor_transport_set,
    qrn_event_queue_attr_monitor_transport_opts_set, qrn_event_queue_attr_monitor_appid_set,
    qrn_event_queue_attr_event_queue_name_set, qrn_event_queue_attr_app_data_set,
};
static const qrn_event_queue_attr_sets_proc sset[] = {
    qrn_event_queue_attr_q_sz_warn_sset, qrn_event_queue_attr_q_delay_warn_sset,
    qrn_event_queue_attr_q_notify_sset, qrn_event_queue_attr_q_cancel_cb_sset,
    qrn_event_queue_attr_q_purge_on_close_sset, qrn_event_queue_attr_q_svc_time_sset,
    qrn_event_queue_attr_q_age_sset, qrn_event_queue_attr_q_count_sset,
    qrn_event_queue_attr_monitor_ivl_sset, qrn_event_queue_attr_monitor_transport_sset,
    qrn_event_queue_attr_monitor_transport_opts_sset, qrn_event_queue_attr_monitor_appid_sset,
    qrn_event_queue_attr_event_queue_name_sset, qrn_event_queue_attr_app_data_sset,
};
static const qrn_event_queue_attr_get_proc get[] = {
    qrn_event_queue_attr_q_sz_warn_get, qrn_event_queue_attr_q_delay_warn_get,
    qrn_event_queue_attr_q_notify_get, qrn_event_queue_attr_q_cancel_cb_get,
    qrn_event_queue_attr_q_purge_on_close_get, qrn_event_queue_attr_q_svc_time_get,
    qrn_event_queue_attr_q_age_get, qrn_event_queue_attr_q_count_get,
    qrn_event_queue_attr_monitor_ivl_get, qrn_event_queue_attr_monitor_transport_get,
    qrn_event_queue_attr_monitor_transport_opts_get, qrn_event_queue_attr_monitor_appid_get,
    qrn_event_queue_attr_event_queue_name_get, qrn_event_queue_attr_app_data_get,
};
static const qrn_event_queue_attr_gets_proc sget[] = {
    qrn_event_queue_attr_q_sz_warn_sget, qrn_event_queue_attr_q_delay_warn_sget,
    qrn_event_queue_attr_q_notify_sget, qrn_event_queue_attr_q_cancel_cb_sget,
    qrn_event_queue_attr_q_purge_on_close_sget, qrn_event_queue_attr_q_svc_time_sget,
    qrn_event_queue_attr_q_age_sget, qrn_event_queue_attr_q_count_sget,
    qrn_event_queue_attr_monitor_ivl_sget, qrn_event_queue_attr_monitor_transport_sget,
    qrn_event_queue_attr_monitor_transport_opts_sget, qrn_event_queue_attr_monitor_appid_sget,
    qrn_event_queue_attr_event_queue_name_sget, qrn_event_queue_attr_app_data_sget,
};
// clang-format on

static int missing;

static void expect(int there, const char *list, size_t row)
{
    if (there)
        return;
    fprintf(stderr, "%s[%zu] is missing\n", list, row);
    missing = 1;
}

int main(void)
{
    for (size_t i = 0; i < sizeof operations / sizeof operations[0]; ++i)
        expect(operations[i] != NULL, "operations", i);
    const qrn_event_queue_attr_entry_t *entry = qrn_event_queue_attr_opt_table;
    for (size_t i = 0; i < sizeof set / sizeof set[0]; ++i, ++entry)
        expect(entry->set == set[i] && entry->sset == sset[i] && entry->get == get[i] &&
                   entry->sget == sget[i],
               "handlers of option", i);
    expect(entry->oname == NULL, "the end of the options", 14);
    expect(qrn_event_queue_opt_table[7].oname == NULL, "the end of the live options", 7);
    return missing;
}
