#include "session/FolderWalk.h"

#include <algorithm>
#include <chrono>
#include <string_view>
#include <thread>
#include <utility>

#include <fmt/format.h>

#include "cache/DigestCache.h"
#include "records/DirSyncInfo.h"
#include "records/FileKind.h"
#include "records/RecordEncoding.h"
#include "wire/Paths.h"
#include "wire/Protocol.h"
#include "wire/StreamIO.h"

namespace {

// Files digested ahead of the one whose record goes out next.
constexpr std::size_t kLookAhead = 64;
// Records gathered before a write.
constexpr std::size_t kWriteSize = 256 * 1024;
// How long a digest is waited for before what is ready goes out.
constexpr auto kShortWait = std::chrono::milliseconds(2);
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
        m_pool = std::make_unique<DigestPool>(
            m_cache, m_hooks.keepGoing, std::max(1u, std::thread::hardware_concurrency()));
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
    if (!known)
        pending.ticket = m_pool->submit(std::string(item.folderPart) + std::string(item.name), entry.state);
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
        if (front.ticket) {
            const auto& batch = front.ticket->batch;
            bool ready = batch.wait_for(std::chrono::seconds(0)) == std::future_status::ready;
            if (!ready && m_pending.size() <= keep)
                return;
            if (!ready)
                m_pool->seal();
            // The phone gets what is ready while we wait for a large file;
            // small ones are done before a write would be.
            if (!ready && batch.wait_for(kShortWait) != std::future_status::ready)
                flush();
            WalkRecords::fillDigest(front.record, batch.get()[front.ticket->index]);
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
