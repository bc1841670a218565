#pragma once

#include <mutex>
#include <utility>

#include <QMetaObject>
#include <QObject>

// Lets worker threads queue calls onto a GUI-thread object that may be gone
// by the time they are done. post is callable from any thread and never
// waits; detach runs on the GUI thread, from the target's destructor, after
// which every post is dropped (calls already queued die with the target).
template <class T>
class GuiRelay {
public:
    explicit GuiRelay(T* target) : m_target(target) {}

    void detach()
    {
        std::lock_guard lock(m_mutex);
        m_target = nullptr;
    }

    template <class F>
    void post(F call)
    {
        std::lock_guard lock(m_mutex);
        if (!m_target)
            return;
        T* target = m_target;
        QMetaObject::invokeMethod(
            target, [target, call = std::move(call)]() mutable { call(*target); }, Qt::QueuedConnection);
    }

private:
    std::mutex m_mutex;
    T* m_target;
};
