/// A mutex that says what it guards. Clang then refuses a build in which somebody touches the guarded data without it
/// (-Wthread-safety); GCC reads the same declarations as nothing. The standard library's own mutex cannot carry this.
///
///     Mutex m_mutex;
///     std::deque<Task> m_tasks GUARDED_BY(m_mutex);
///     void drop() REQUIRES(m_mutex);  // to be called with the mutex held
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>

#if defined(__clang__)
#define THREAD_ANNOTATION(x) __attribute__((x))
#else
#define THREAD_ANNOTATION(x)
#endif

/// Before a variable's initial value: only a thread that holds the mutex may read or write the variable.
#define GUARDED_BY(mutex) THREAD_ANNOTATION(guarded_by(mutex))
/// The same for the object that a pointer points to.
#define PT_GUARDED_BY(mutex) THREAD_ANNOTATION(pt_guarded_by(mutex))
/// The caller holds the mutex.
#define REQUIRES(...) THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
/// The caller does not hold the mutex: the function takes it.
#define EXCLUDES(...) THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))
// For the two classes below.
#define UNCHECKED THREAD_ANNOTATION(no_thread_safety_analysis)
#define CAPABILITY(name) THREAD_ANNOTATION(capability(name))
#define SCOPED_CAPABILITY THREAD_ANNOTATION(scoped_lockable)
#define ACQUIRE(...) THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define RELEASE(...) THREAD_ANNOTATION(release_capability(__VA_ARGS__))

/// std::mutex for declarations; MutexLock takes it.
class CAPABILITY("mutex") Mutex {
  private:
    friend class MutexLock;
    std::mutex m_mutex;
};

/// Holds a mutex from here to the end of the block, except between unlock() and lock(), and while it waits. What it
/// waits for says, too, that it is called with the mutex held:
///
///     MutexLock lock(m_mutex);
///     lock.wait(m_changed, [this]() REQUIRES(m_mutex) { return !m_tasks.empty(); });
class SCOPED_CAPABILITY MutexLock {
  public:
    explicit MutexLock(Mutex& mutex) ACQUIRE(mutex) : m_lock(mutex.m_mutex) {}
    MutexLock(const MutexLock&) = delete;
    MutexLock& operator=(const MutexLock&) = delete;
    ~MutexLock() RELEASE() {}

    void lock() ACQUIRE() { m_lock.lock(); }
    void unlock() RELEASE() { m_lock.unlock(); }

    template <class Predicate>
    void wait(std::condition_variable& changed, Predicate isTrue) UNCHECKED {
        changed.wait(m_lock, isTrue);
    }
    /// Waits at most `longest`. Gives whether the predicate is true in the end.
    template <class Predicate>
    bool waitFor(std::condition_variable& changed, std::chrono::nanoseconds longest, Predicate isTrue) UNCHECKED {
        return changed.wait_for(m_lock, longest, isTrue);
    }

  private:
    std::unique_lock<std::mutex> m_lock;
};
