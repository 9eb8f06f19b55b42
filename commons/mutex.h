// A mutex that says what it guards: fields marked GUARDED_BY(mutex_) and
// functions marked REQUIRES(mutex_) are checked by clang's -Wthread-safety
// (scripts/test builds with it), as LevelDB's port::Mutex is.
#ifndef VANTREL_COMMONS_MUTEX_H
#define VANTREL_COMMONS_MUTEX_H

#include <condition_variable>
#include <mutex>

#if defined(__clang__)
#define VANTREL_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define VANTREL_THREAD_ANNOTATION(x)
#endif

#define CAPABILITY(x) VANTREL_THREAD_ANNOTATION(capability(x))
#define SCOPED_CAPABILITY VANTREL_THREAD_ANNOTATION(scoped_lockable)
#define GUARDED_BY(x) VANTREL_THREAD_ANNOTATION(guarded_by(x))
#define PT_GUARDED_BY(x) VANTREL_THREAD_ANNOTATION(pt_guarded_by(x))
#define REQUIRES(...) VANTREL_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define EXCLUDES(...) VANTREL_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))
#define ACQUIRE(...) VANTREL_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define RELEASE(...) VANTREL_THREAD_ANNOTATION(release_capability(__VA_ARGS__))

namespace velmo {

class CAPABILITY("mutex") Mutex {
public:
    void lock() ACQUIRE() { mutex_.lock(); }
    void unlock() RELEASE() { mutex_.unlock(); }

private:
    friend class CondVar;
    std::mutex mutex_;
};

// Holds a Mutex for its scope; unlock() and lock() let go of it around work
// that must not run under it (I/O, a login, a wait).
class SCOPED_CAPABILITY MutexLock {
public:
    explicit MutexLock(Mutex& mutex) ACQUIRE(mutex) : mutex_(mutex) { mutex_.lock(); }
    ~MutexLock() RELEASE() {
        if (held_) mutex_.unlock();
    }
    void unlock() RELEASE() {
        held_ = false;
        mutex_.unlock();
    }
    void lock() ACQUIRE() {
        mutex_.lock();
        held_ = true;
    }
    MutexLock(const MutexLock&) = delete;
    MutexLock& operator=(const MutexLock&) = delete;

private:
    Mutex& mutex_;
    bool held_ = true;
};

// Waits on a Mutex the caller holds.
class CondVar {
public:
    explicit CondVar(Mutex* mutex) : mutex_(mutex) {}
    // Waits until notified (or woken without cause: callers loop on their
    // condition). The caller holds the mutex, and holds it again on return.
    void wait() {
        std::unique_lock<std::mutex> held(mutex_->mutex_, std::adopt_lock);
        changed_.wait(held);
        held.release();
    }
    void notifyAll() { changed_.notify_all(); }

private:
    Mutex* mutex_;
    std::condition_variable changed_;
};

}  // namespace velmo

#endif
