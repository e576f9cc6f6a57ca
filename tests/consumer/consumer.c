/* SPDX-License-Identifier: Apache-2.0 */
/* Posts a callback and dispatches it; the result says whether it ran. The library is the header's. */
#include <qrn.h>
#include <stdio.h>
#include <string.h>

static void count(qrn_event_queue_t *evq, void *clientd)
{
    (void)evq;
    ++*(int *)clientd;
}

int main(void)
{
    qrn_event_queue_t *evq;
    char version[32];
    int calls = 0;
    snprintf(version, sizeof version, "%d.%d.%d", QRN_VERSION_MAJOR, QRN_VERSION_MINOR,
             QRN_VERSION_PATCH);
    if (strcmp(version, qrn_version()) != 0)
        return 4;
    if (qrn_event_queue_create(&evq, NULL, NULL, NULL) != 0)
        return 1;
    if (qrn_evq_enq_callback(evq, count, NULL, &calls) != 0 ||
        qrn_event_dispatch(evq, QRN_EVQ_DISPATCH_POLL) != 1)
        return 2;
    return qrn_event_queue_delete(evq) == 0 && calls == 1 ? 0 : 3;
}
