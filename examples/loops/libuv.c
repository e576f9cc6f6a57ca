/* SPDX-License-Identifier: Apache-2.0 */
/* A queue inside a libuv loop: uv_poll watches its descriptor, a timer of the loop runs beside it. */
#include <pthread.h>
#include <qrn.h>
#include <stdio.h>
#include <uv.h>

enum { posts = 1000 };

static uv_poll_t watcher;
static uv_timer_t ticker;
static int ran, ticks;

static void count(qrn_event_queue_t *evq, void *clientd)
{
    (void)evq;
    (void)clientd;
    if (++ran == posts) {
        uv_poll_stop(&watcher);
        uv_timer_stop(&ticker);
    }
}

static void *post(void *evq)
{
    for (int i = 0; i < posts; i++)
        if (qrn_evq_enq_callback(evq, count, NULL, NULL) != 0)
            fprintf(stderr, "a callback was not accepted\n");
    return NULL;
}

static void on_readable(uv_poll_t *poll, int status, int events)
{
    (void)events;
    if (status == 0)
        qrn_event_dispatch(poll->data, QRN_EVQ_DISPATCH_POLL);
}

static void on_tick(uv_timer_t *timer)
{
    (void)timer;
    ticks++;
}

int main(void)
{
    qrn_event_queue_t *evq;
    if (qrn_event_queue_create(&evq, NULL, NULL, NULL) != 0) {
        fprintf(stderr, "no queue: %s\n", qrn_errmsg());
        return 1;
    }
    uv_poll_init(uv_default_loop(), &watcher, qrn_event_queue_fd(evq));
    watcher.data = evq;
    uv_poll_start(&watcher, UV_READABLE, on_readable);
    uv_timer_init(uv_default_loop(), &ticker);
    uv_timer_start(&ticker, on_tick, 0, 1);
    pthread_t poster;
    pthread_create(&poster, NULL, post, evq);

    uv_run(uv_default_loop(), UV_RUN_DEFAULT);
    pthread_join(poster, NULL);
    printf("libuv: %d callbacks ran on the loop's thread, beside %s\n", ran,
           ticks > 0 ? "its timer" : "a timer that never came");
    qrn_event_queue_delete(evq);
    return ran == posts && ticks > 0 ? 0 : 1;
}
