// Tells ThreadSanitizer what QReadWriteLock orders.
//
// Qt itself comes without the sanitizer's instrumentation, so that it sees the program's reads and writes but
// not the atomic operations inside the lock between them, and reports each pair as a race. Linked into a test
// program, these take the place of the lock's functions, call the real ones and announce what they did.
// Suppressing reports by name instead would hide a lock that is missing.
#if defined(__SANITIZE_THREAD__)

#include <QReadWriteLock>

#include <dlfcn.h>
#include <sanitizer/tsan_interface.h>

// The lock that this thread holds for writing. One is enough: nobody holds two.
static thread_local const QReadWriteLock *s_written = nullptr;

using s_function = void (*)(QReadWriteLock *);

static s_function s_real(const char *symbol)
{
    return reinterpret_cast<s_function>(dlsym(RTLD_NEXT, symbol));
}

void QReadWriteLock::lockForRead()
{
    static const s_function real = s_real("_ZN14QReadWriteLock11lockForReadEv");
    __tsan_mutex_pre_lock(this, __tsan_mutex_read_lock);
    real(this);
    __tsan_mutex_post_lock(this, __tsan_mutex_read_lock, 0);
}

void QReadWriteLock::lockForWrite()
{
    static const s_function real = s_real("_ZN14QReadWriteLock12lockForWriteEv");
    __tsan_mutex_pre_lock(this, 0);
    real(this);
    __tsan_mutex_post_lock(this, 0, 0);
    s_written = this;
}

void QReadWriteLock::unlock()
{
    static const s_function real = s_real("_ZN14QReadWriteLock6unlockEv");
    const unsigned flags = s_written == this ? 0 : __tsan_mutex_read_lock;
    if (s_written == this) {
        s_written = nullptr;
    }
    __tsan_mutex_pre_unlock(this, flags);
    real(this);
    __tsan_mutex_post_unlock(this, flags);
}

#endif
