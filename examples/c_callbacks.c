/* SPDX-License-Identifier: Apache-2.0 */
/* Two threads post callbacks to a queue, a third one dispatches them. */
#include <pthread.h>
#include <qrn.h>
#include <stdio.h>

enum { posts = 5 };

static void greet(qrn_event_queue_t *evq, void *clientd)
{
    (void)evq;
    printf("hello from %s\n", (const char *)clientd);
}

typedef struct {
    qrn_event_queue_t *evq;
    char *name;
} poster_t;

static void *post(void *arg)
{
    const poster_t *poster = arg;
    for (int i = 0; i < posts; i++)
        if (qrn_evq_enq_callback(poster->evq, greet, NULL, poster->name) != 0)
            fprintf(stderr, "%s: a callback was not accepted\n", poster->name);
    return NULL;
}

static void *dispatch(void *arg)
{
    int count = qrn_event_dispatch(arg, QRN_EVQ_DISPATCH_BLOCK);
    printf("dispatched %d events\n", count); /* the last one unblocked the call */
    return NULL;
}

int main(void)
{
    qrn_event_queue_t *evq;
    if (qrn_event_queue_create(&evq, NULL, NULL, NULL) != 0) {
        fprintf(stderr, "no queue: %s\n", qrn_errmsg());
        return 1;
    }
    poster_t posters[2] = {{evq, "the first thread"}, {evq, "the second thread"}};
    pthread_t threads[3];
    pthread_create(&threads[0], NULL, dispatch, evq);
    for (int i = 0; i < 2; i++)
        pthread_create(&threads[i + 1], NULL, post, &posters[i]);
    for (int i = 0; i < 2; i++)
        pthread_join(threads[i + 1], NULL);

    qrn_event_dispatch_unblock(evq); /* queued behind all callbacks, so none is lost */
    pthread_join(threads[0], NULL);
    qrn_event_queue_delete(evq);
    return 0;
}
