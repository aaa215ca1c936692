// Threads, mutexes, counting semaphores and the semaphore-based condition.
//
// The mutex behaves like a recursive lock that only its owner can release:
// an unlock from another thread is ignored. The semaphore is a counter under
// a pthread mutex with a condition variable on CLOCK_MONOTONIC, so timed
// waits do not jump when the wall clock is set.
#include <errno.h>
#include <pthread.h>
#include <time.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <new>

#include "runtime/os.h"

namespace {

// Records are zero-filled heap blocks released with free(); the C++ members
// are constructed in place and destroyed before the block goes back.
template <typename T>
T* NewRecord() {
    void* mem = calloc(1, sizeof(T));
    return mem ? new (mem) T() : nullptr;
}

template <typename T>
void FreeRecord(T* rec) {
    if (!rec) return;
    rec->~T();
    free(rec);
}

timespec MonotonicDeadline(uint32_t timeout_ms) {
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    ts.tv_sec += timeout_ms / 1000;
    ts.tv_nsec += static_cast<long>(timeout_ms % 1000) * 1000000L;
    if (ts.tv_nsec >= 1000000000L) {
        ts.tv_sec += 1;
        ts.tv_nsec -= 1000000000L;
    }
    return ts;
}

constexpr uint32_t kInfinite = 0xFFFFFFFFu;
constexpr int kSemMax = 0x7FFFFFFF;

}  // namespace

struct os_thread {
    pthread_t handle{};
    bool joined = false;
};

struct os_mutex {
    pthread_mutex_t mutex;
    std::atomic<pthread_t> owner{0};  // written by the owner only
    int depth = 0;                    // recursion depth, owner only
};

struct os_sem {
    pthread_mutex_t mutex;  // guards count
    pthread_cond_t cond;    // signalled on post; clock is CLOCK_MONOTONIC
    int count = 0;
};

// ---- threads ---------------------------------------------------------------

os_thread* os_thread_create(void* /*attr*/, os_thread_routine routine, void* ctx) {
    if (!routine) return nullptr;
    os_thread* t = NewRecord<os_thread>();
    if (!t) return nullptr;
    if (pthread_create(&t->handle, nullptr, routine, ctx) != 0) {
        FreeRecord(t);
        return nullptr;
    }
    return t;
}

int os_thread_join(os_thread* thread) {
    if (!thread || thread->joined) return -1;
    if (pthread_join(thread->handle, nullptr) != 0) return -1;
    thread->joined = true;
    return 0;
}

void os_thread_free(os_thread* thread) {
    if (!thread) return;
    // A thread nobody waited for releases its resources when it ends.
    if (!thread->joined) pthread_detach(thread->handle);
    FreeRecord(thread);
}

void os_thread_set_name(const char* name) {
    if (!name) return;
    char shortName[16];
    os_strlcpy(shortName, name, sizeof shortName);
    pthread_setname_np(pthread_self(), shortName);
}

// ---- mutexes ---------------------------------------------------------------

os_mutex* os_mutex_create() {
    os_mutex* m = NewRecord<os_mutex>();
    if (!m) return nullptr;
    if (pthread_mutex_init(&m->mutex, nullptr) != 0) {
        FreeRecord(m);
        return nullptr;
    }
    return m;
}

int os_mutex_lock(os_mutex* m) {
    if (!m) return -1;
    pthread_t self = pthread_self();
    if (pthread_equal(m->owner.load(std::memory_order_relaxed), self)) {
        ++m->depth;
        return 0;
    }
    if (pthread_mutex_lock(&m->mutex) != 0) return -1;
    m->owner.store(self, std::memory_order_relaxed);
    m->depth = 1;
    return 0;
}

int os_mutex_unlock(os_mutex* m) {
    if (!m) return -1;
    // Only the owner releases; anyone else's unlock is ignored.
    if (!pthread_equal(m->owner.load(std::memory_order_relaxed), pthread_self())) return 0;
    if (--m->depth == 0) {
        m->owner.store(0, std::memory_order_relaxed);
        pthread_mutex_unlock(&m->mutex);
    }
    return 0;
}

void os_mutex_destroy(os_mutex* m) {
    if (!m) return;
    pthread_mutex_destroy(&m->mutex);
    FreeRecord(m);
}

// ---- semaphores ------------------------------------------------------------

os_sem* os_sem_create(int initial) {
    if (initial < 0) return nullptr;
    os_sem* s = NewRecord<os_sem>();
    if (!s) return nullptr;
    if (pthread_mutex_init(&s->mutex, nullptr) != 0) {
        FreeRecord(s);
        return nullptr;
    }
    pthread_condattr_t attr;
    bool ok = pthread_condattr_init(&attr) == 0;
    ok = ok && pthread_condattr_setclock(&attr, CLOCK_MONOTONIC) == 0;
    ok = ok && pthread_cond_init(&s->cond, &attr) == 0;
    pthread_condattr_destroy(&attr);
    if (!ok) {
        pthread_mutex_destroy(&s->mutex);
        FreeRecord(s);
        return nullptr;
    }
    s->count = initial;
    return s;
}

int os_sem_post(os_sem* s) {
    if (!s) return -1;
    pthread_mutex_lock(&s->mutex);
    bool ok = s->count < kSemMax;
    if (ok) ++s->count;
    pthread_mutex_unlock(&s->mutex);
    if (ok) pthread_cond_signal(&s->cond);
    return ok ? 0 : -1;
}

namespace {

int SemWaitForever(os_sem* s) {
    if (pthread_mutex_lock(&s->mutex) != 0) return -1;
    int rc = 0;
    while (s->count == 0) {
        if (pthread_cond_wait(&s->cond, &s->mutex) != 0) {
            rc = -1;
            break;
        }
    }
    if (rc == 0) --s->count;
    pthread_mutex_unlock(&s->mutex);
    return rc;
}

}  // namespace

int os_sem_timedwait(os_sem* s, uint32_t timeout_ms) {
    if (!s) return -1;
    if (timeout_ms == kInfinite) return SemWaitForever(s);
    timespec deadline = MonotonicDeadline(timeout_ms);
    if (pthread_mutex_lock(&s->mutex) != 0) return -1;
    int rc = 0;
    while (s->count == 0) {
        int err = pthread_cond_timedwait(&s->cond, &s->mutex, &deadline);
        if (err == ETIMEDOUT) {
            if (s->count == 0) rc = 1;
            break;
        }
        if (err != 0) {
            rc = -1;
            break;
        }
    }
    if (rc == 0) --s->count;
    pthread_mutex_unlock(&s->mutex);
    return rc;
}

int os_sem_destroy(os_sem* s) {
    if (!s) return 0;
    pthread_cond_destroy(&s->cond);
    pthread_mutex_destroy(&s->mutex);
    FreeRecord(s);
    return 0;
}

// ---- condition -------------------------------------------------------------

os_cond* os_cond_create() {
    OsSemPtr sem(os_sem_create(0));
    if (!sem) return nullptr;
    os_cond* c = NewRecord<os_cond>();
    if (!c) return nullptr;
    c->sem = sem.release();
    return c;
}

int os_cond_signal(os_cond* c) {
    if (!c) return -1;
    return os_sem_post(c->sem);
}

int os_cond_timedwait_ms(os_cond* c, os_mutex* m, uint32_t timeout_ms) {
    if (!c) return -1;
    if (os_mutex_unlock(m) != 0) return -1;
    int rc = os_sem_timedwait(c->sem, timeout_ms);
    if (os_mutex_lock(m) != 0) return -1;
    return rc;
}

int os_cond_destroy(os_cond* c) {
    if (!c) return 0;
    os_sem_destroy(c->sem);
    FreeRecord(c);
    return 0;
}
