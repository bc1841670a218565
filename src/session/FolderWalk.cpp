#include "session/FolderWalk.h"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string_view>
#include <thread>
#include <utility>

#include <fmt/format.h>

#include "cache/DigestCache.h"
#include "cache/FileState.h"
#include "records/FileKind.h"
#include "records/DirSyncInfo.h"
#include "records/RecordEncoding.h"
#include "wire/Paths.h"
#include "wire/Protocol.h"
#include "wire/StreamIO.h"

namespace {

// Files digested ahead of the one whose record goes out next.
constexpr std::size_t kLookAhead = 64;
// Records gathered before a write.
constexpr std::size_t kWriteSize = 256 * 1024;

} // namespace

// Digests files on as many threads as there are cores.
class DigestPool {
public:
    explicit DigestPool(unsigned workers)
    {
        for (unsigned i = 0; i < workers; ++i)
            m_threads.emplace_back([this] { work(); });
    }
    // Drops the jobs nobody has started and waits for the running ones.
    ~DigestPool()
    {
        {
            std::lock_guard guard(m_mutex);
            m_stopping = true;
            m_jobs.clear();
        }
        m_wake.notify_all();
        for (auto& t : m_threads)
            t.join();
    }
    DigestPool(const DigestPool&) = delete;
    DigestPool& operator=(const DigestPool&) = delete;

    std::future<std::string> submit(std::function<std::string()> job)
    {
        std::packaged_task<std::string()> task(std::move(job));
        auto result = task.get_future();
        {
            std::lock_guard guard(m_mutex);
            m_jobs.push_back(std::move(task));
        }
        m_wake.notify_one();
        return result;
    }

private:
    void work()
    {
        std::unique_lock guard(m_mutex);
        for (;;) {
            m_wake.wait(guard, [&] { return m_stopping || !m_jobs.empty(); });
            if (m_jobs.empty())
                return;
            auto task = std::move(m_jobs.front());
            m_jobs.pop_front();
            guard.unlock();
            task();
            guard.lock();
        }
    }

    std::mutex m_mutex;
    std::condition_variable m_wake;
    std::deque<std::packaged_task<std::string()>> m_jobs;
    std::vector<std::thread> m_threads;
    bool m_stopping = false;
};

namespace {

// Room for the directory reads of any folder in a few calls.
constexpr std::size_t kDirBlock = 256 * 1024;

std::string_view extensionOf(std::string_view name)
{
    auto dot = name.rfind('.');
    return dot == std::string_view::npos ? std::string_view() : name.substr(dot + 1);
}

} // namespace

FolderWalk::FolderWalk(StreamIO& io, std::string context, Hooks hooks, bool withDigests)
    : m_io(io), m_context(std::move(context)), m_hooks(std::move(hooks)), m_block(kDirBlock)
{
    if (withDigests) {
        m_cache = DigestCache::shared();
        m_pool = std::make_unique<DigestPool>(std::max(1u, std::thread::hardware_concurrency()));
    }
    if (std::thread::hardware_concurrency() > 1)
        m_helper = std::make_unique<HelperThread>();
    m_buffer.reserve(kWriteSize + 64 * 1024);
}

FolderWalk::~FolderWalk() = default;

void FolderWalk::run(const std::string& root)
{
    // The root's record is built from its path, as a folder query builds it.
    m_rootRecord = BitHelper::encodeDirSyncInfo(DirSyncInfo::initFromPath(root));
    walkFolder(root, 0, nullptr);
    emit(BitHelper::encodeDirSyncInfo(DirSyncInfo::finish()), false);
    drain(0);
    flush();
    if (m_cache)
        if (auto problem = m_cache->takeProblem())
            m_hooks.logInfo(*problem);
}

void FolderWalk::walkFolder(const std::string& path, std::size_t depth, const WalkRecords::Common* self)
{
    if (m_levels.size() <= depth)
        m_levels.push_back(std::make_unique<FolderListing>());
    FolderListing& listing = *m_levels[depth];
    // The root is named by the phone and listed through a link; below it,
    // links to folders are not followed, so the walk cannot loop.
    listing.read(path, depth == 0, m_access, m_block, m_helper.get());
    if (self) {
        auto count = std::count_if(listing.entries().begin(), listing.entries().end(),
            [&](const FolderListing::Entry& e) { return !e.isFolder && !Protocol::isLeftOutOfListings(listing.name(e)); });
        Bytes record;
        if (m_pending.empty()) {
            written(false);
            WalkRecords::appendFolder(m_buffer, *self, static_cast<std::int32_t>(count));
        } else {
            WalkRecords::appendFolder(record, *self, static_cast<std::int32_t>(count));
        }
        emit(std::move(record), false);
    } else {
        emit(m_rootRecord, false);
    }

    // Every child path is "<path>/<name>", as the phone sees it; its parent
    // text is the same for all of them.
    const std::string prefix = path + "/";
    const std::string parent = Paths::deletingLastPathComponent(prefix + "x");
    auto itemOf = [&](const FolderListing::Entry& e) {
        return WalkRecords::Common{prefix, listing.name(e), parent, e.created, e.modified, !e.writable};
    };
    auto listed = [&](const FolderListing::Entry& e) {
        return !e.isFolder && !Protocol::isLeftOutOfListings(listing.name(e));
    };
    // With digests, the cache is asked about the folder's files at once.
    if (m_cache) {
        m_states.clear();
        for (const auto& entry : listing.entries())
            if (listed(entry))
                m_states.push_back(entry.state);
        m_cache->lookupMany(m_states, m_known);
    }
    std::size_t file = 0;
    for (const auto& entry : listing.entries())
        if (listed(entry))
            emitFile(listing, entry, itemOf(entry), m_cache ? std::move(m_known[file++]) : std::string());
    for (const auto& entry : listing.entries()) {
        if (!entry.isFolder)
            continue;
        const WalkRecords::Common child = itemOf(entry);
        walkFolder(prefix + std::string(child.name), depth + 1, &child);
    }
}

// `known` is the file's digest text (empty without digests), or nothing
// when it must be read.
void FolderWalk::emitFile(const FolderListing& listing, const FolderListing::Entry& entry, WalkRecords::Common item,
    std::optional<std::string> known)
{
    const std::string_view extension = extensionOf(listing.name(entry));
    const auto kind = extension.empty() ? FileKindOther : fileKindForExtension(std::string(extension));
    if (known && m_pending.empty()) {
        written(true);
        WalkRecords::appendFile(m_buffer, item, extension, kind, entry.size, *known);
        emit({}, true);
        return;
    }
    Pending pending;
    pending.isFile = true;
    WalkRecords::appendFile(pending.record, item, extension, kind, entry.size, known ? *known : std::string());
    // An unchanged file is answered at once; only files to be read go to
    // the pool.
    if (!known) {
        std::string path = std::string(item.folderPart) + std::string(item.name);
        pending.digest = m_pool->submit([cache = m_cache, path = std::move(path), state = entry.state,
                                            keepGoing = m_hooks.keepGoing] { return cache->digestOf(path, state, keepGoing); });
    }
    m_pending.push_back(std::move(pending));
    drain(kLookAhead);
}

// A record already in the buffer (empty `record`), or one to queue behind
// files still being digested.
void FolderWalk::emit(Bytes record, bool isFile)
{
    if (!record.empty()) {
        if (m_pending.empty()) {
            append(record, isFile);
        } else {
            Pending pending;
            pending.record = std::move(record);
            pending.isFile = isFile;
            m_pending.push_back(std::move(pending));
            drain(kLookAhead);
            return;
        }
    }
    if (m_oneByOne || m_buffer.size() >= kWriteSize)
        flush();
}

// Sends records from the front while they are ready, and waits for the
// front's digest while more than `keep` records are queued.
void FolderWalk::drain(std::size_t keep)
{
    while (!m_pending.empty()) {
        Pending& front = m_pending.front();
        if (front.digest.valid()) {
            bool ready = front.digest.wait_for(std::chrono::seconds(0)) == std::future_status::ready;
            if (!ready && m_pending.size() <= keep)
                return;
            if (!ready)
                flush(); // the phone gets what is ready while we wait
            WalkRecords::fillDigest(front.record, front.digest.get());
        }
        append(front.record, front.isFile);
        m_pending.pop_front();
        if (m_oneByOne || m_buffer.size() >= kWriteSize)
            flush();
    }
}

void FolderWalk::append(const Bytes& record, bool isFile)
{
    written(isFile);
    m_buffer += record;
}

// Notes that a record starts at the buffer's end.
void FolderWalk::written(bool isFile)
{
    m_marks.push_back({static_cast<std::uint32_t>(m_buffer.size()), isFile});
}

// One write for every record gathered. Should it fail, each file record in
// it counts as failed (logged, the walk goes on) up to the first folder
// record, whose failure ends the walk: a file's failure is its own, a folder
// record's is the connection's. After a failure records go out one by one,
// as they did before there were batches.
void FolderWalk::flush()
{
    if (m_buffer.empty())
        return;
    try {
        m_io.writeData(m_buffer, m_context);
    } catch (const std::exception& failure) {
        m_oneByOne = true;
        for (const auto& mark : m_marks) {
            if (!mark.isFile)
                throw;
            m_hooks.logInfo(fmt::format("Exception thrown for {}: {} - {}", WalkRecords::fullNameAt(m_buffer, mark.at),
                StreamIO::nameOf(failure), StreamIO::reasonOf(failure)));
        }
        m_buffer.clear();
        m_marks.clear();
        return;
    }
    if (m_hooks.logging)
        for (const auto& mark : m_marks)
            if (mark.isFile)
                m_hooks.logInfo(fmt::format("Found file: {}.", WalkRecords::fullNameAt(m_buffer, mark.at)));
    m_buffer.clear();
    m_marks.clear();
}
