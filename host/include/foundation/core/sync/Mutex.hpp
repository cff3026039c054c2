#pragma once

// A mutex and its locks that Clang's thread-safety analysis understands.
//
// Mark a field that a mutex guards with QZ_GUARDED_BY(mutex_) and a function
// that must be called with it held with QZ_REQUIRES(mutex_); a Clang build
// with -Wthread-safety (`make thread-safety`) then rejects any access made
// without the lock. With other compilers the annotations expand to nothing
// and the types below cost what std::mutex and its locks cost.
//
// Waiting on a std::condition_variable: wait on `lock.native()` in a loop
// written in the function body (`while (!ready_) cv.wait(lock.native());`),
// not with a predicate lambda, so that the analysis sees the guarded reads
// made with the lock held.

#include <mutex>

#if defined(__clang__)
#define QZ_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define QZ_THREAD_ANNOTATION(x)
#endif

#define QZ_CAPABILITY(name) QZ_THREAD_ANNOTATION(capability(name))
#define QZ_SCOPED_CAPABILITY QZ_THREAD_ANNOTATION(scoped_lockable)
#define QZ_GUARDED_BY(mutex) QZ_THREAD_ANNOTATION(guarded_by(mutex))
#define QZ_PT_GUARDED_BY(mutex) QZ_THREAD_ANNOTATION(pt_guarded_by(mutex))
#define QZ_REQUIRES(...) QZ_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define QZ_EXCLUDES(...) QZ_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))
#define QZ_ACQUIRE(...) QZ_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define QZ_RELEASE(...) QZ_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
#define QZ_TRY_ACQUIRE(...) QZ_THREAD_ANNOTATION(try_acquire_capability(__VA_ARGS__))
#define QZ_RETURN_CAPABILITY(mutex) QZ_THREAD_ANNOTATION(lock_returned(mutex))
#define QZ_NO_THREAD_SAFETY_ANALYSIS QZ_THREAD_ANNOTATION(no_thread_safety_analysis)

namespace foundation::core::sync {

// A non-recursive mutex. Any thread.
class QZ_CAPABILITY("mutex") Mutex {
public:
    Mutex() = default;
    Mutex(const Mutex&) = delete;
    Mutex& operator=(const Mutex&) = delete;

    void lock() QZ_ACQUIRE() { mutex_.lock(); }
    void unlock() QZ_RELEASE() { mutex_.unlock(); }
    bool try_lock() QZ_TRY_ACQUIRE(true) { return mutex_.try_lock(); }

    // The mutex underneath, for UniqueLock only.
    std::mutex& native() noexcept { return mutex_; }

private:
    std::mutex mutex_;
};

// Holds a Mutex for its whole scope.
class QZ_SCOPED_CAPABILITY LockGuard {
public:
    explicit LockGuard(Mutex& mutex) QZ_ACQUIRE(mutex) : mutex_(mutex) { mutex_.lock(); }
    ~LockGuard() QZ_RELEASE() { mutex_.unlock(); }
    LockGuard(const LockGuard&) = delete;
    LockGuard& operator=(const LockGuard&) = delete;

private:
    Mutex& mutex_;
};

// Holds a Mutex from construction, may release and take it again, and
// releases it at the end of its scope if held. `native()` is what a
// std::condition_variable waits on.
class QZ_SCOPED_CAPABILITY UniqueLock {
public:
    explicit UniqueLock(Mutex& mutex) QZ_ACQUIRE(mutex) : lock_(mutex.native()) {}
    ~UniqueLock() QZ_RELEASE() = default;
    UniqueLock(const UniqueLock&) = delete;
    UniqueLock& operator=(const UniqueLock&) = delete;

    void lock() QZ_ACQUIRE() { lock_.lock(); }
    void unlock() QZ_RELEASE() { lock_.unlock(); }

    std::unique_lock<std::mutex>& native() noexcept { return lock_; }

private:
    std::unique_lock<std::mutex> lock_;
};

} // namespace foundation::core::sync
