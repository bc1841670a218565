#include "session/FolderWalk.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <condition_variable>
#include <mutex>
#include <thread>
#include <utility>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <fmt/format.h>

#include "cache/DigestCache.h"
#include "cache/FileState.h"
#include "records/FileKind.h"
#include "records/ItemAttributes.h"
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

// One entry of a folder: what its record needs, from a single statx
// relative to the folder (kept small: the entries of every folder on the
// current path are held).
struct FolderWalk::Entry {
    std::string name;
    ItemAttributes attrs;
    FileState state;
    bool isFolder = false;
    bool writable = false;
};

namespace {

struct DirCloser {
    void operator()(DIR* dir) const { ::closedir(dir); }
};

// The folder's regular files and folders in the order the platform lists
// them; an unreadable folder, or a listing that broke off, is empty. Only one
// descriptor is open at a time, so no depth of tree runs out of them.
template <typename Entry>
std::vector<Entry> listFolder(const std::string& path, bool followLink)
{
    if (path.find('\0') != std::string::npos)
        return {};
    int fd = ::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC | (followLink ? 0 : O_NOFOLLOW));
    if (fd < 0)
        return {};
    std::unique_ptr<DIR, DirCloser> dir(::fdopendir(fd));
    if (!dir) {
        ::close(fd);
        return {};
    }
    std::vector<Entry> entries;
    errno = 0;
    while (const dirent* d = ::readdir(dir.get())) {
        const char* name = d->d_name;
        struct statx stx {};
        // Links, special files and entries gone since the listing are passed
        // over: the walk lists plain files and folders, and never follows a link.
        if (std::strcmp(name, ".") != 0 && std::strcmp(name, "..") != 0
            && ::statx(fd, name, AT_SYMLINK_NOFOLLOW, STATX_BASIC_STATS | STATX_BTIME, &stx) == 0
            && (S_ISREG(stx.stx_mode) || S_ISDIR(stx.stx_mode))) {
            Entry entry;
            entry.name = name;
            entry.attrs = ItemAttributes::fromStatx(stx);
            entry.state = FileState::fromStatx(stx);
            entry.isFolder = S_ISDIR(stx.stx_mode);
            entry.writable = ::faccessat(fd, name, W_OK, 0) == 0;
            entries.push_back(std::move(entry));
        }
        errno = 0;
    }
    if (errno != 0)
        return {};
    return entries;
}

} // namespace

FolderWalk::FolderWalk(StreamIO& io, std::string context, Hooks hooks, bool withDigests)
    : m_io(io), m_context(std::move(context)), m_hooks(std::move(hooks))
{
    if (withDigests) {
        m_cache = DigestCache::shared();
        m_pool = std::make_unique<DigestPool>(std::max(1u, std::thread::hardware_concurrency()));
    }
}

FolderWalk::~FolderWalk() = default;

void FolderWalk::run(const std::string& root)
{
    walkFolder(root, DirSyncInfo::initFromPath(root), true);
    add({BitHelper::encodeDirSyncInfo(DirSyncInfo::finish()), std::nullopt, {}});
    drain(0);
    flush();
    if (m_cache)
        if (auto problem = m_cache->takeProblem())
            m_hooks.logInfo(*problem);
}

void FolderWalk::walkFolder(const std::string& path, DirSyncInfo record, bool isRoot)
{
    // The root is named by the phone and listed through a link; below it,
    // links to folders are not followed, so the walk cannot loop.
    const std::vector<Entry> entries = listFolder<Entry>(path, isRoot);
    if (!isRoot)
        record.fileCount = static_cast<std::int32_t>(std::count_if(entries.begin(), entries.end(),
            [](const Entry& e) { return !e.isFolder && !Protocol::isLeftOutOfListings(e.name); }));
    add({BitHelper::encodeDirSyncInfo(record), std::nullopt, {}});

    // Every child path is "<path>/<name>", as the phone sees it; its parent
    // text is the same for all of them.
    const std::string prefix = path + "/";
    const std::string parent = Paths::deletingLastPathComponent(prefix + "x");
    for (const auto& entry : entries) {
        if (entry.isFolder || Protocol::isLeftOutOfListings(entry.name))
            continue;
        FileSyncInfo info;
        info.fullName = prefix + entry.name;
        info.parent = parent;
        info.name = entry.name;
        info.extension = Paths::pathExtension(entry.name);
        info.kind = fileKindForExtension(info.extension);
        info.size = entry.attrs.size;
        info.created = entry.attrs.created;
        info.modified = entry.attrs.modified;
        info.hidden = entry.name.starts_with(".");
        info.readonly = !entry.writable;
        info.hash = std::string();
        Pending item{{}, std::move(info), {}};
        if (m_pool) {
            // An unchanged file is answered here at once; only files to be
            // read go to the pool.
            if (auto known = m_cache->lookup(entry.state))
                item.file->hash = std::move(*known);
            else
                item.digest = m_pool->submit(
                    [cache = m_cache, path = item.file->fullName, state = entry.state,
                        keepGoing = m_hooks.keepGoing] { return cache->digestOf(path, state, keepGoing); });
        }
        add(std::move(item));
    }

    for (const auto& entry : entries) {
        if (!entry.isFolder)
            continue;
        const std::string childPath = prefix + entry.name;
        DirSyncInfo child;
        child.fullName = childPath;
        child.parent = parent;
        child.name = entry.name;
        child.created = entry.attrs.created;
        child.modified = entry.attrs.modified;
        child.hidden = entry.name.starts_with(".");
        child.readonly = !entry.writable;
        walkFolder(childPath, std::move(child), false);
    }
}

void FolderWalk::add(Pending item)
{
    m_pending.push_back(std::move(item));
    drain(kLookAhead);
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
            front.file->hash = front.digest.get();
        }
        if (front.file) {
            std::string path = front.file->fullName;
            write(BitHelper::encodeFileSyncInfo(*front.file), &path);
        } else {
            write(std::move(front.folder), nullptr);
        }
        m_pending.pop_front();
    }
}

void FolderWalk::write(Bytes encoded, const std::string* filePath)
{
    if (m_oneByOne) {
        // As records went out before there were batches: a file's failure is
        // logged and the walk goes on; a folder's ends it.
        try {
            m_io.writeData(encoded, m_context);
        } catch (const std::exception& failure) {
            if (!filePath)
                throw;
            m_hooks.logInfo(fmt::format("Exception thrown for {}: {} - {}", *filePath, StreamIO::nameOf(failure),
                StreamIO::reasonOf(failure)));
            return;
        }
        if (filePath && m_hooks.logging)
            m_hooks.logInfo(fmt::format("Found file: {}.", *filePath));
        return;
    }
    m_buffer += encoded;
    m_marks.push_back(filePath ? *filePath : std::string());
    if (m_buffer.size() >= kWriteSize)
        flush();
}

// One write for every record gathered. Should it fail, each file record in
// it counts as failed (logged, the walk goes on) up to the first folder
// record, whose failure ends the walk: a file's failure is its own, a folder
// record's is the connection's.
void FolderWalk::flush()
{
    if (m_buffer.empty())
        return;
    Bytes buffer = std::exchange(m_buffer, Bytes());
    std::vector<std::string> marks = std::exchange(m_marks, {});
    m_buffer.reserve(kWriteSize + 4096);
    try {
        m_io.writeData(buffer, m_context);
    } catch (const std::exception& failure) {
        m_oneByOne = true;
        for (const auto& path : marks) {
            if (path.empty())
                throw;
            m_hooks.logInfo(fmt::format("Exception thrown for {}: {} - {}", path, StreamIO::nameOf(failure),
                StreamIO::reasonOf(failure)));
        }
        return;
    }
    if (m_hooks.logging)
        for (const auto& path : marks)
            if (!path.empty())
                m_hooks.logInfo(fmt::format("Found file: {}.", path));
}
