// SPDX-License-Identifier: Apache-2.0
//
// Private to the module: static probes of the provider "qrn". Without QRN_PROBES they compile to
// nothing; with it each is one no-op instruction and a note in the binary, which a tracer finds and
// patches while it looks. docs/monitoring.md shows how to use them.
//
//   enqueue(evq, ev, type)            an event is about to be appended
//   take(evq, ev, type)               this thread has taken it off the queue
//   delivered(evq, ev, type, result)  its callback is done; -1 ends the dispatch call
//   purged(evq, ev, type)             a purge removed it, or one message of a bundle
//   cancelled(what, dispatch_thrd)    no dispatching thread uses a deleted object any more: `what`
//                                     is the object, or its cancellation callback's client data
//
// `ev` tells an event from the others from its enqueue until it was delivered or purged.
#ifndef QRNPROBE_H
#define QRNPROBE_H

#ifdef QRN_PROBES
#include <sys/sdt.h>
#endif

// Internal linkage, so that a file with probes and one without may be in one program.
namespace qrnev::probe {

#ifdef QRN_PROBES

static inline void enqueue(const void *evq, const void *ev, int type)
{
    DTRACE_PROBE3(qrn, enqueue, evq, ev, type);
}

static inline void take(const void *evq, const void *ev, int type)
{
    DTRACE_PROBE3(qrn, take, evq, ev, type);
}

static inline void delivered(const void *evq, const void *ev, int type, int result)
{
    DTRACE_PROBE4(qrn, delivered, evq, ev, type, result);
}

static inline void purged(const void *evq, const void *ev, int type)
{
    DTRACE_PROBE3(qrn, purged, evq, ev, type);
}

static inline void cancelled(const void *what, int dispatch_thrd)
{
    DTRACE_PROBE2(qrn, cancelled, what, dispatch_thrd);
}

#else

static inline void enqueue(const void *, const void *, int) {}
static inline void take(const void *, const void *, int) {}
static inline void delivered(const void *, const void *, int, int) {}
static inline void purged(const void *, const void *, int) {}
static inline void cancelled(const void *, int) {}

#endif

} // namespace qrnev::probe

#endif
