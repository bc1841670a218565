#include "shell/BackgroundJobs.h"

#include <atomic>
#include <list>
#include <memory>
#include <mutex>
#include <set>
#include <thread>

#include <QEventLoop>
#include <QMetaObject>

namespace {

struct Job {
    std::thread thread;
    std::shared_ptr<std::atomic<bool>> done;
};

// Jobs still listed when the program ends without stopAll (a test, an
// early exit) must not take it down: the finished are joined, the rest let go.
struct JobList : std::list<Job> {
    ~JobList()
    {
        for (Job& job : *this) {
            if (job.done->load())
                job.thread.join();
            else
                job.thread.detach();
        }
    }
};

// Guards every field below.
std::mutex g_mutex;
JobList g_jobs;
std::set<QEventLoop*> g_loops;
bool g_stopping = false;

// Joins the jobs that have finished, so handles do not pile up over a long
// run. Called with g_mutex held; a finished job no longer takes the lock.
void reapFinished()
{
    for (auto it = g_jobs.begin(); it != g_jobs.end();) {
        if (it->done->load()) {
            it->thread.join();
            it = g_jobs.erase(it);
        } else {
            ++it;
        }
    }
}

} // namespace

namespace BackgroundJobs {

void start(std::function<void()> job)
{
    std::lock_guard lock(g_mutex);
    if (g_stopping)
        return;
    reapFinished();
    auto done = std::make_shared<std::atomic<bool>>(false);
    std::thread thread([job = std::move(job), done] {
        try {
            job();
        } catch (...) {
            // Background work ends quietly: the window keeps what it showed last.
        }
        done->store(true);
    });
    g_jobs.push_back(Job{std::move(thread), done});
}

void stopAll()
{
    std::list<Job> jobs;
    {
        std::lock_guard lock(g_mutex);
        g_stopping = true;
        for (QEventLoop* loop : g_loops)
            QMetaObject::invokeMethod(loop, &QEventLoop::quit, Qt::QueuedConnection);
        jobs.swap(g_jobs);
    }
    for (Job& job : jobs)
        job.thread.join();
    std::lock_guard lock(g_mutex);
    g_stopping = false;
}

bool exec(QEventLoop& loop)
{
    {
        std::lock_guard lock(g_mutex);
        if (g_stopping)
            return false;
        g_loops.insert(&loop);
    }
    loop.exec();
    std::lock_guard lock(g_mutex);
    g_loops.erase(&loop);
    return true;
}

} // namespace BackgroundJobs
