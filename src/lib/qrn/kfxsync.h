/* SPDX-License-Identifier: Apache-2.0 */
/* Utility layer: mutex guards, and atomic access to the plain fields of shared records.
 *
 * Every shared access of the library that is not under a lock goes through the functions below, so
 * that a test build can take control of the thread at each of them (KFX_SCHED_POINTS). */
#ifndef KFXSYNC_H
#define KFXSYNC_H

#include <pthread.h>

typedef pthread_mutex_t kfx_mutex_t;

#ifdef __cplusplus
#include <atomic>

#ifdef KFX_SCHED_POINTS
extern "C" void kfx_sched_point(const void *field);
#endif

namespace kfx {

inline void sched_point([[maybe_unused]] const void *field)
{
#ifdef KFX_SCHED_POINTS
    kfx_sched_point(field);
#endif
}

/* Holds a mutex for a scope. */
class [[nodiscard]] lock_guard {
public:
    explicit lock_guard(kfx_mutex_t &mutex) : mutex_(mutex) { pthread_mutex_lock(&mutex_); }
    ~lock_guard() { pthread_mutex_unlock(&mutex_); }
    lock_guard(const lock_guard &) = delete;
    lock_guard &operator=(const lock_guard &) = delete;

private:
    kfx_mutex_t &mutex_;
};

/* Flags and figures: whole, in no particular order. */
template <class T>
T load(const T &field, std::memory_order order = std::memory_order_relaxed)
{
    sched_point(&field);
    return std::atomic_ref<T>(const_cast<T &>(field)).load(order);
}

template <class T>
void store(T &field, std::type_identity_t<T> value,
           std::memory_order order = std::memory_order_relaxed)
{
    sched_point(&field);
    std::atomic_ref<T>(field).store(value, order);
}

/* Counts: sequentially consistent. Both return the value before. */
template <class T>
T add(T &field, std::type_identity_t<T> amount)
{
    sched_point(&field);
    return std::atomic_ref<T>(field).fetch_add(amount, std::memory_order_seq_cst);
}

template <class T>
T sub(T &field, std::type_identity_t<T> amount)
{
    sched_point(&field);
    return std::atomic_ref<T>(field).fetch_sub(amount, std::memory_order_seq_cst);
}

template <class T>
T exchange(T &field, std::type_identity_t<T> value, std::memory_order order)
{
    sched_point(&field);
    return std::atomic_ref<T>(field).exchange(value, order);
}

/* Replaces `expected` by `desired`; on failure stores what stood there in `expected`. */
template <class T>
bool compare_exchange(T &field, T &expected, std::type_identity_t<T> desired,
                      std::memory_order order)
{
    sched_point(&field);
    return std::atomic_ref<T>(field).compare_exchange_strong(expected, desired, order,
                                                             std::memory_order_relaxed);
}

} // namespace kfx
#endif

#endif
