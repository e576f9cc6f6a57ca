/* SPDX-License-Identifier: Apache-2.0 */
/* A queue and a pipe watched by one epoll loop: the loop's thread runs the callbacks of both. */
#include <pthread.h>
#include <qrn.h>
#include <stdio.h>
#include <sys/epoll.h>
#include <unistd.h>

enum { posts = 1000 };

static int pipe_ends[2];
static int ran;

static void count(qrn_event_queue_t *evq, void *clientd)
{
    (void)evq;
    (void)clientd;
    ran++;
}

static void *post(void *evq)
{
    for (int i = 0; i < posts; i++)
        if (qrn_evq_enq_callback(evq, count, NULL, NULL) != 0)
            fprintf(stderr, "a callback was not accepted\n");
    return write(pipe_ends[1], "", 1) == 1 ? evq : NULL;
}

static void watch(int loop, int fd)
{
    struct epoll_event interest = {.events = EPOLLIN, .data = {.fd = fd}};
    if (epoll_ctl(loop, EPOLL_CTL_ADD, fd, &interest) != 0)
        perror("epoll_ctl");
}

int main(void)
{
    qrn_event_queue_t *evq;
    if (qrn_event_queue_create(&evq, NULL, NULL, NULL) != 0 || pipe(pipe_ends) != 0) {
        fprintf(stderr, "no queue: %s\n", qrn_errmsg());
        return 1;
    }
    int queue_fd = qrn_event_queue_fd(evq);
    int loop = epoll_create1(0);
    watch(loop, queue_fd);
    watch(loop, pipe_ends[0]);
    pthread_t poster;
    pthread_create(&poster, NULL, post, evq);

    /* The pipe says that all is posted; the queue's descriptor, level-triggered, that some is left. */
    int all_posted = 0;
    while (!all_posted || ran < posts) {
        struct epoll_event event;
        if (epoll_wait(loop, &event, 1, -1) != 1)
            continue;
        if (event.data.fd == queue_fd)
            qrn_event_dispatch(evq, QRN_EVQ_DISPATCH_POLL);
        else
            all_posted = read(pipe_ends[0], &(char){0}, 1) == 1;
    }
    pthread_join(poster, NULL);
    printf("epoll: %d callbacks ran on the loop's thread\n", ran);
    close(loop);
    qrn_event_queue_delete(evq);
    return 0;
}
