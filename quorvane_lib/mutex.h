// Locks that clang's thread safety analysis understands: thin wrappers of the standard ones.
//
// They cost no more than the locks in them and throw the same exceptions. Declare what a lock
// guards with QV_GUARDED_BY and what a function expects with QV_REQUIRES; clang then refuses
// code that touches a field without its lock, forgets to unlock, or takes two locks in the
// wrong order (-Wthread-safety, -Wthread-safety-beta). Other compilers see no annotation.
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <shared_mutex>

#if defined(__clang__)
#define QV_THREAD_ANNOTATION(annotation) __attribute__((annotation))
#else
#define QV_THREAD_ANNOTATION(annotation)
#endif

// The field may be touched only while the lock is held.
#define QV_GUARDED_BY(lock) QV_THREAD_ANNOTATION(guarded_by(lock))
// The caller holds the lock: alone, or together with others that only read.
#define QV_REQUIRES(...) QV_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define QV_REQUIRES_SHARED(...) QV_THREAD_ANNOTATION(requires_shared_capability(__VA_ARGS__))
// The caller does not hold the lock: the function takes it.
#define QV_EXCLUDES(...) QV_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))
// The order of locks: this one is taken after that one.
#define QV_ACQUIRED_AFTER(...) QV_THREAD_ANNOTATION(acquired_after(__VA_ARGS__))
// For functions whose locking the analysis cannot follow; the reason stands beside it.
#define QV_NO_THREAD_SAFETY_ANALYSIS QV_THREAD_ANNOTATION(no_thread_safety_analysis)

#define QV_CAPABILITY(name) QV_THREAD_ANNOTATION(capability(name))
#define QV_SCOPED_CAPABILITY QV_THREAD_ANNOTATION(scoped_lockable)
#define QV_ACQUIRE(...) QV_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define QV_ACQUIRE_SHARED(...) QV_THREAD_ANNOTATION(acquire_shared_capability(__VA_ARGS__))
#define QV_RELEASE(...) QV_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
#define QV_RELEASE_GENERIC(...) QV_THREAD_ANNOTATION(release_generic_capability(__VA_ARGS__))
#define QV_TRY_ACQUIRE(...) QV_THREAD_ANNOTATION(try_acquire_capability(__VA_ARGS__))

namespace qv {

// A plain mutex. `lock` throws std::system_error when the lock cannot be taken.
class QV_CAPABILITY("mutex") Mutex {
  public:
    void lock() QV_ACQUIRE() { mutex_.lock(); }
    void unlock() QV_RELEASE() { mutex_.unlock(); }
    bool try_lock() QV_TRY_ACQUIRE(true) { return mutex_.try_lock(); }

  private:
    friend class Condition;
    std::mutex mutex_;
};

// A mutex that several threads may hold together to read.
class QV_CAPABILITY("mutex") SharedMutex {
  public:
    void lock() QV_ACQUIRE() { mutex_.lock(); }
    void unlock() QV_RELEASE() { mutex_.unlock(); }
    void lock_shared() QV_ACQUIRE_SHARED() { mutex_.lock_shared(); }
    void unlock_shared() QV_RELEASE_GENERIC() { mutex_.unlock_shared(); }

  private:
    std::shared_mutex mutex_;
};

// Holds a lock for as long as it lives.
template <typename Lockable>
class QV_SCOPED_CAPABILITY BasicLockGuard {
  public:
    explicit BasicLockGuard(Lockable& lock) QV_ACQUIRE(lock) : lock_(lock) { lock_.lock(); }
    ~BasicLockGuard() QV_RELEASE() { lock_.unlock(); }
    BasicLockGuard(const BasicLockGuard&) = delete;
    BasicLockGuard& operator=(const BasicLockGuard&) = delete;

  private:
    Lockable& lock_;
};
using LockGuard = BasicLockGuard<Mutex>;
using ExclusiveGuard = BasicLockGuard<SharedMutex>;

// Holds a SharedMutex together with others that read.
class QV_SCOPED_CAPABILITY SharedGuard {
  public:
    explicit SharedGuard(SharedMutex& lock) QV_ACQUIRE_SHARED(lock) : lock_(lock) {
        lock_.lock_shared();
    }
    ~SharedGuard() QV_RELEASE_GENERIC() { lock_.unlock_shared(); }
    SharedGuard(const SharedGuard&) = delete;
    SharedGuard& operator=(const SharedGuard&) = delete;

  private:
    SharedMutex& lock_;
};

// A condition variable for a Mutex. The caller holds the mutex and waits in a loop that
// tests what it waits for; the mutex is free while it waits.
class Condition {
  public:
    void wait(Mutex& mutex) QV_REQUIRES(mutex) {
        Held held(mutex.mutex_);
        condition_.wait(held.lock);
    }
    // False when the time came before a notification.
    template <typename Clock, typename Duration>
    bool wait_until(Mutex& mutex, const std::chrono::time_point<Clock, Duration>& time)
        QV_REQUIRES(mutex) {
        Held held(mutex.mutex_);
        return condition_.wait_until(held.lock, time) == std::cv_status::no_timeout;
    }
    void notify_one() { condition_.notify_one(); }
    void notify_all() { condition_.notify_all(); }

  private:
    // The caller's lock, borrowed for the standard condition variable and given back.
    struct Held {
        explicit Held(std::mutex& mutex) : lock(mutex, std::adopt_lock) {}
        ~Held() { lock.release(); }
        Held(const Held&) = delete;
        Held& operator=(const Held&) = delete;
        std::unique_lock<std::mutex> lock;
    };

    std::condition_variable condition_;
};

}  // namespace qv
