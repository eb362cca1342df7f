#include "server/scheduling/FairPool.h"

#include <algorithm>

namespace dsessd {

FairPool::FairPool(unsigned threads, unsigned mostForOne) : m_mostForOne(mostForOne) {
    try {
        for (unsigned i = 0; i < threads; ++i) {
            m_threads.emplace_back([this] { work(); });
        }
    } catch (...) {
        stop();
        throw;
    }
}

void FairPool::stop() {
    {
        const MutexLock lock(m_mutex);
        m_stopping = true;
    }
    m_changed.notify_all();
    m_threads.clear();        // joins them
    std::list<Line> dropped;  // what the tasks hold goes without the lock
    const MutexLock lock(m_mutex);
    dropped.swap(m_lines);
}

void FairPool::post(std::string_view peer, Task task) {
    {
        const MutexLock lock(m_mutex);
        if (m_stopping) {
            return;
        }
        auto line = std::find_if(m_lines.begin(), m_lines.end(), [&](const Line& other) { return other.peer == peer; });
        if (line == m_lines.end()) {
            line = m_lines.insert(line, {std::string(peer), {}, 0});
        }
        line->tasks.push_back({std::move(task), Clock::now()});
    }
    m_changed.notify_one();
}

FairPool::Task FairPool::takeBack(Clock::time_point before) {
    const MutexLock lock(m_mutex);
    for (auto line = m_lines.begin(); line != m_lines.end(); ++line) {
        if (!line->tasks.empty() && line->tasks.front().since < before) {
            Task task = std::move(line->tasks.front().task);
            line->tasks.pop_front();
            if (line->running == 0 && line->tasks.empty()) {
                m_lines.erase(line);
            }
            return task;
        }
    }
    return {};
}

FairPool::Load FairPool::load() {
    const MutexLock lock(m_mutex);
    Load load{0, m_working};
    for (const Line& line : m_lines) {
        load.waiting += line.tasks.size();
    }
    return load;
}

void FairPool::getOn() {
    const MutexLock lock(m_mutex);
    m_turned = Clock::now();
}

bool FairPool::turns(Clock::duration within) {
    const MutexLock lock(m_mutex);
    return m_working < m_threads.size() || m_working == 0 || Clock::now() - m_turned < within;
}

std::list<FairPool::Line>::iterator FairPool::next() {
    return std::find_if(m_lines.begin(), m_lines.end(),
                        [this](const Line& line) { return !line.tasks.empty() && line.running < m_mostForOne; });
}

void FairPool::work() {
    MutexLock lock(m_mutex);
    for (;;) {
        auto line = m_lines.end();
        lock.wait(m_changed, [&]() REQUIRES(m_mutex) { return m_stopping || (line = next()) != m_lines.end(); });
        if (m_stopping) {
            return;
        }
        m_lines.splice(m_lines.end(), m_lines, line);
        {
            const Task task = std::move(line->tasks.front().task);
            line->tasks.pop_front();
            ++line->running;
            ++m_working;
            m_turned = Clock::now();
            lock.unlock();
            task();
        }
        lock.lock();
        --m_working;
        m_turned = Clock::now();
        if (--line->running == 0 && line->tasks.empty()) {
            m_lines.erase(line);
        }
    }
}

}  // namespace dsessd
