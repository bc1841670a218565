#include "shell/ActivityReader.h"

#include <algorithm>
#include <set>
#include <utility>

#include <sys/stat.h>

#include <QMetaObject>

namespace {

bool sameQuery(const ActivityQuery& a, const ActivityQuery& b)
{
    return a.filter.since == b.filter.since && a.filter.until == b.filter.until && a.filter.device == b.filter.device
        && a.filter.restorableOnly == b.filter.restorableOnly && a.kinds == b.kinds;
}

} // namespace

ActivityReader::ActivityReader(std::string file, QObject* receiver)
    : m_file(std::move(file)), m_receiver(receiver), m_worker(std::make_unique<QObject>())
{
    m_thread.setObjectName("activity reader");
    m_worker->moveToThread(&m_thread);
    m_thread.start();
}

ActivityReader::~ActivityReader()
{
    m_thread.quit();
    m_thread.wait();
    // The thread is gone, so its objects may go from here.
    m_store.reset();
    m_worker.reset();
}

template <class Work>
void ActivityReader::run(Work work)
{
    QMetaObject::invokeMethod(m_worker.get(), std::move(work), Qt::QueuedConnection);
}

template <class Result>
void ActivityReader::answer(std::function<void(Result)> done, Result result)
{
    // Queued on the receiver, so a window that is gone by then gets nothing.
    QMetaObject::invokeMethod(
        m_receiver, [done = std::move(done), result = std::move(result)]() mutable { done(std::move(result)); },
        Qt::QueuedConnection);
}

ActivityStore* ActivityReader::store(std::string& error)
{
    if (!m_store)
        m_store = ActivityStore::open(&error, m_file);
    return m_store.get();
}

ActivityReader::Stamp ActivityReader::stamp() const
{
    Stamp s;
    struct stat st {};
    if (::stat(m_file.c_str(), &st) == 0) {
        s.inode = st.st_ino;
        s.size = st.st_size;
        s.timeNs = st.st_mtim.tv_sec * 1'000'000'000LL + st.st_mtim.tv_nsec;
    }
    if (::stat((m_file + "-wal").c_str(), &st) == 0) {
        s.walSize = st.st_size;
        s.walTimeNs = st.st_mtim.tv_sec * 1'000'000'000LL + st.st_mtim.tv_nsec;
    }
    return s;
}

void ActivityReader::list(ActivityQuery query, bool force, std::function<void(ActivityListing)> done)
{
    run([this, query = std::move(query), force, done = std::move(done)]() mutable {
        const Stamp now = stamp();
        if (!force && m_store && m_lastStamp == now && m_lastQuery && sameQuery(*m_lastQuery, query))
            return;
        // A connection to a file set aside would show it for ever.
        if (m_lastStamp && m_lastStamp->inode != now.inode)
            m_store.reset();
        ActivityListing listing;
        if (const ActivityStore* s = store(listing.error)) {
            listing = read(*s, query);
            m_lastStamp = now;
            m_lastQuery = query;
        }
        answer(std::move(done), std::move(listing));
    });
}

ActivityListing ActivityReader::read(const ActivityStore& store, const ActivityQuery& query)
{
    ActivityListing listing;
    ChangeFilter everyPhone = query.filter;
    everyPhone.device.reset();
    std::set<std::string> devices;
    for (Change& change : store.list(everyPhone)) {
        devices.insert(change.device);
        if (query.filter.device && change.device != *query.filter.device)
            continue;
        if (!query.kinds.empty() && std::find(query.kinds.begin(), query.kinds.end(), change.kind) == query.kinds.end())
            continue;
        listing.changes.push_back(std::move(change));
    }
    std::reverse(listing.changes.begin(), listing.changes.end());
    listing.devices.assign(devices.begin(), devices.end());
    ChangeFilter kept;
    kept.restorableOnly = true;
    listing.keptCount = store.list(kept).size();
    listing.keptBytes = store.keptBytes();
    return listing;
}

void ActivityReader::restore(std::vector<std::int64_t> ids, std::function<void(std::vector<RestoreResult>)> done)
{
    run([this, ids = std::move(ids), done = std::move(done)]() mutable {
        std::vector<RestoreResult> results;
        std::string error;
        ActivityStore* s = store(error);
        for (std::int64_t id : ids) {
            if (s) {
                results.push_back(s->restore(id));
                continue;
            }
            RestoreResult failed;
            failed.id = id;
            failed.why = error;
            results.push_back(std::move(failed));
        }
        answer(std::move(done), std::move(results));
    });
}

void ActivityReader::emptyKept(std::function<void(int)> done)
{
    run([this, done = std::move(done)]() mutable {
        std::string error;
        ActivityStore* s = store(error);
        answer(std::move(done), s ? s->emptyKept() : 0);
    });
}
