/* SPDX-License-Identifier: Apache-2.0 */
/* The configuration layer.
 *
 * No configuration changes the defaults yet, so the current and the base defaults are the same: the
 * built-in values with those of the environment, which is read each time a record is filled. A
 * program that sets a variable sees it in the next record it creates.
 *
 * The operations are weak: a program may put its own in their place at link time. */
#include "qrncfg.h"

#include <pthread.h>

#include "kfx.h"
#include "qrnev.h"

namespace {

void init()
{
    const int result = qrn_evq_init();
    KFX_ASSERT(result == QRN_OK, "qrn_evq_init()==QRN_OK");
}

} // namespace

extern "C" {

[[gnu::weak]] void qrn_do_init_once(void)
{
    static pthread_once_t once = PTHREAD_ONCE_INIT;
    pthread_once(&once, init);
}

[[gnu::weak]] int qrn_event_queue_attr_init_clone(qrn_event_queue_attr_t *attr)
{
    return qrn_event_queue_attr_init_defaults(attr);
}

[[gnu::weak]] int qrn_event_queue_attr_init_clone_base(qrn_event_queue_attr_t *attr)
{
    return qrn_event_queue_attr_init_defaults(attr);
}

[[gnu::weak]] int qrn_xmlcfg_check_event_queue(const char *, qrn_event_queue_attr_t *)
{
    return 1;
}

} // extern "C"
