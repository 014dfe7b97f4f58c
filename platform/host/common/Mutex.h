// Two mutexes, their scope guard and a condition variable, annotated so that clang's -Wthread-safety proves that
// guarded members are only touched under their lock.
#ifndef REPORT_EVENT_PLATFORM_HOST_COMMON_MUTEX_H
#define REPORT_EVENT_PLATFORM_HOST_COMMON_MUTEX_H

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>

#if defined(__clang__)
#define HOST_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define HOST_THREAD_ANNOTATION(x)
#endif

#define HOST_CAPABILITY(name) HOST_THREAD_ANNOTATION(capability(name))
#define HOST_SCOPED_CAPABILITY HOST_THREAD_ANNOTATION(scoped_lockable)
#define HOST_GUARDED_BY(mutex) HOST_THREAD_ANNOTATION(guarded_by(mutex))
#define HOST_REQUIRES(...) HOST_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define HOST_EXCLUDES(...) HOST_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))
#define HOST_ACQUIRE(...) HOST_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define HOST_RELEASE(...) HOST_THREAD_ANNOTATION(release_capability(__VA_ARGS__))

namespace host_platform {

class HOST_CAPABILITY("mutex") Mutex {
public:
    constexpr Mutex() = default;
    Mutex(const Mutex&) = delete;
    Mutex& operator=(const Mutex&) = delete;

    void Lock() HOST_ACQUIRE()
    {
        mutex_.lock();
    }
    void Unlock() HOST_RELEASE()
    {
        mutex_.unlock();
    }

private:
    friend class CondVar;
    std::mutex mutex_;
};

// For sections of a few dozen instructions that every record passes. Letting go is a plain store, about half the price
// of a lock, because nobody is woken: whoever finds it held looks again, and sleeps in between when its holder seems to
// have lost the processor.
class HOST_CAPABILITY("mutex") BriefMutex {
public:
    constexpr BriefMutex() = default;
    BriefMutex(const BriefMutex&) = delete;
    BriefMutex& operator=(const BriefMutex&) = delete;

    void Lock() HOST_ACQUIRE()
    {
        // Acquire here and release there: what the last holder wrote is seen by the next.
        for (int attempt = 1; held_.exchange(true, std::memory_order_acquire); ++attempt) {
            if (attempt % ATTEMPTS_AWAKE == 0) {
                std::this_thread::sleep_for(std::chrono::microseconds(20));
            }
        }
    }
    void Unlock() HOST_RELEASE()
    {
        held_.store(false, std::memory_order_release);
    }

private:
    static constexpr int ATTEMPTS_AWAKE = 64;

    std::atomic<bool> held_{false};
};

// Holds a mutex for the length of a scope.
template <typename MutexType = Mutex>
class HOST_SCOPED_CAPABILITY MutexLock {
public:
    explicit MutexLock(MutexType& mutex) HOST_ACQUIRE(mutex) : mutex_(mutex)
    {
        mutex_.Lock();
    }
    ~MutexLock() HOST_RELEASE()
    {
        mutex_.Unlock();
    }
    MutexLock(const MutexLock&) = delete;
    MutexLock& operator=(const MutexLock&) = delete;

private:
    MutexType& mutex_;
};

// Waits may end without a notification: the caller loops on its condition, in its own scope, where the analysis can see
// that the lock is held.
class CondVar {
public:
    CondVar() = default;
    CondVar(const CondVar&) = delete;
    CondVar& operator=(const CondVar&) = delete;

    void Wait(Mutex& mutex) HOST_REQUIRES(mutex)
    {
        Borrowed lock(mutex.mutex_);
        condition_.wait(lock.lock);
    }

    void NotifyOne()
    {
        condition_.notify_one();
    }
    void NotifyAll()
    {
        condition_.notify_all();
    }

private:
    // The standard's view of a mutex that the caller has locked and keeps.
    struct Borrowed {
        explicit Borrowed(std::mutex& mutex) : lock(mutex, std::adopt_lock)
        {
        }
        ~Borrowed()
        {
            lock.release();
        }
        Borrowed(const Borrowed&) = delete;
        Borrowed& operator=(const Borrowed&) = delete;
        std::unique_lock<std::mutex> lock;
    };

    std::condition_variable condition_;
};

}  // namespace host_platform

#endif  // REPORT_EVENT_PLATFORM_HOST_COMMON_MUTEX_H
