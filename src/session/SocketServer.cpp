#include "session/SocketServer.h"

#include <latch>
#include <string_view>
#include <thread>

#include <malloc.h>

#include <fmt/format.h>

#include "bridge/UIBridge.h"
#include "journal/Journal.h"
#include "session/Admission.h"
#include "settings/Settings.h"
#include "wire/BitHelper.h"
#include "wire/Commands.h"
#include "wire/SyncException.h"

namespace {

// What the log shows in place of a password hash, received or stored.
constexpr std::string_view kHidden = "(hidden)";

} // namespace

SocketServer::Started SocketServer::create(StreamPair streams, std::shared_ptr<Settings> settings,
    std::shared_ptr<UIBridge> uiBridge, std::weak_ptr<SessionRegistry> listener, std::shared_ptr<asio::io_context> io,
    std::chrono::milliseconds lifetime, Peer peer, std::shared_ptr<Admission> admission)
{
    std::shared_ptr<SocketServer> session(new SocketServer(std::move(streams), std::move(settings),
        std::move(uiBridge), std::move(listener), io, std::move(peer), std::move(admission)));

    // The thread waits for creation to finish, so that "Added connection."
    // always precedes the session's own lines. When the thread cannot be
    // made, the session and with it the connection go at once.
    struct Gate {
        std::latch open{1};
        bool abandoned = false;
    };
    auto gate = std::make_shared<Gate>();
    std::jthread thread([session, gate](std::stop_token stop) {
        gate->open.wait();
        if (!gate->abandoned)
            session->threadProc(stop);
    });
    try {
        session->m_timer = std::make_unique<asio::steady_timer>(*io, lifetime);
        std::weak_ptr<SocketServer> weak = session;
        session->m_timer->async_wait([weak](const std::error_code& ec) {
            if (ec)
                return;
            if (auto self = weak.lock())
                self->killTime();
        });
        session->m_uiBridge->logInfo("Added connection.");
        session->m_uiBridge->logInfo(fmt::format("Connection from {}.", session->m_peer.text()));
    } catch (...) {
        // The thread returns at once; the connection closes with the session.
        gate->abandoned = true;
        gate->open.count_down();
        throw;
    }
    gate->open.count_down();
    return {std::move(session), std::move(thread)};
}

SocketServer::SocketServer(StreamPair streams, std::shared_ptr<Settings> settings, std::shared_ptr<UIBridge> uiBridge,
    std::weak_ptr<SessionRegistry> listener, std::shared_ptr<asio::io_context> io, Peer peer,
    std::shared_ptr<Admission> admission)
    : m_uiBridge(std::move(uiBridge))
    , m_istream(std::move(streams.input))
    , m_ostream(std::move(streams.output))
    , m_settings(std::move(settings))
    , m_listener(std::move(listener))
    , m_peer(std::move(peer))
    , m_activity(Journal::shared(), *m_settings, m_peer.address)
    , m_admission(std::move(admission))
    , m_work(m_peer)
    , m_io(*m_istream, *m_ostream, *this)
    , m_loop(std::move(io))
    , m_folders(handlerContext())
    , m_transfers(handlerContext())
    , m_fileOps(handlerContext())
{
    m_keepRunning = true;
    auto onEvent = [this](int event) { streamEvent(event); };
    m_istream->setEventHandler(onEvent);
    m_ostream->setEventHandler(onEvent);
}

SocketServer::~SocketServer() = default;

SessionContext SocketServer::handlerContext()
{
    return SessionContext{
        m_io, *m_istream, *m_settings, *m_uiBridge, m_answerable, m_peer, m_activity, m_work};
}

void SocketServer::shutdown()
{
    // Clearing the flag alone would leave a session that waits inside a read
    // for a stalled peer (perhaps holding the upload lock) running for ever.
    m_keepRunning = false;
    m_answerable = false;
    m_istream->close();
    m_ostream->close();
}

void SocketServer::streamEvent(int event)
{
    if (event == kStreamEventErrorOccurred || event == kStreamEventEndEncountered)
        m_keepRunning = false;
}

void SocketServer::killTime()
{
    m_answerable = false;
    m_istream->close();
    m_ostream->close();
}

void SocketServer::threadProc(const std::stop_token& stop)
{
    // The owner's stop request ends the session as shutdown() does.
    std::stop_callback onStop(stop, [this] { shutdown(); });
    m_istream->open();
    m_ostream->open();
    // The keep-running flag was set at creation: set here, it could undo a
    // shutdown() that came before the thread got going.
    m_connected = true;
    m_authenticated = false;
    m_activity.started();
    tellAdmission([this] { m_admission->sessionStarted(m_peer); });
    try {
        commandLoop();
    } catch (const SyncException& failure) {
        if (failure.name() != "Close")
            logError(fmt::format("Exception in run loop: {}", failure.reason()));
    } catch (const std::exception& failure) {
        logError(fmt::format("Exception in run loop: {}", failure.what()));
    }
    releaseLargeBuffers();
    closeStreams();
    m_activity.ended();
}

void SocketServer::releaseLargeBuffers()
{
    // The allocator keeps freed memory for reuse; after a string of several
    // MiB (a phone's choice) that would keep the process that much larger
    // for as long as it runs.
    if (m_io.takeLargeRead())
        ::malloc_trim(0);
}

bool SocketServer::waitForCommand()
{
    if (m_istream->hasBytesAvailable())
        return true;
    // Instead of sleeping in short steps: wait for data on the socket.
    // Closing the streams (the lifetime timer, shutdown) shuts the socket
    // down, which wakes this wait too, so it needs no time-out and an idle
    // session costs nothing.
    if (m_istream->isUsable())
        m_istream->waitReadable(-1);
    return m_istream->hasBytesAvailable();
}

void SocketServer::commandLoop()
{
    while (m_keepRunning) {
        // Streams closed by the lifetime timer end the session now, the way a
        // peer that went away does: left waiting for a flag that nothing
        // clears, it would keep its thread and socket for ever.
        if (!m_istream->isUsable())
            break;
        if (waitForCommand()) {
            std::uint8_t code = 0;
            m_io.read(&code, 1, "get command");
            std::int64_t length = m_io.readLong("get length of command");
            logInfo(fmt::format("Command: {}, Len = {}", code, length));
            m_work.commandStarted(code);
            verifyPassword(code);
            dispatch(code);
            m_work.commandEnded();
            releaseLargeBuffers();
        }
        if (!m_keepRunning)
            break;
    }
}

void SocketServer::verifyPassword(std::uint8_t code)
{
    try {
        // A phone decides how long this is, so it is not copied.
        const auto received = m_io.readString("verifying password");
        const bool logging = m_uiBridge->logging();
        // The hash is what a phone logs in with, so the lines keep their
        // text but never the hash itself: whoever reads the log could log
        // in as any phone. See docs/protocol.md (password hashes in the log).
        // Absent (not UTF-8) prints as "(null)".
        // kept: see docs/protocol.md (text that is not UTF-8)
        auto shown = [&]() -> std::string_view { return received ? kHidden : "(null)"; };
        if (logging)
            logInfo(fmt::format("Received password: {}", shown()));
        if (!admitted()) {
            // Held out: answered as a wrong password, and (in dispatch) as
            // a command the session may not run, whatever it is.
            requirePassword();
            return;
        }
        if (code == Command::IdentifyHost && !m_settings->getStrictIdentify()) {
            // Identify authenticates whatever password it carries, unless
            // the user asked for strict identify: it then passes the same
            // rule as every other command (and is still answered).
            // kept: see docs/protocol.md (identify rule)
            m_authenticated = true;
            return;
        }
        const auto stored = m_settings->getHashedPassword();
        if (received && *received == stored) {
            m_authenticated = true;
            logInfo("Authenticated.");
        } else {
            requirePassword();
            if (logging)
                logInfo(fmt::format("Not authenticated.  Received '{}' != '{}'.", shown(), kHidden));
        }
    } catch (const std::exception& failure) {
        m_io.writeErrorPacket(Command::PasswordFailed, failure, "verifying password");
        throw;
    }
}

void SocketServer::tellAdmission(const std::function<void()>& news)
{
    if (!m_admission)
        return;
    try {
        news();
    } catch (...) {
        // Remembering the phone is no reason to end or keep the session.
    }
}

bool SocketServer::admitted()
{
    if (!m_admission)
        return true;
    try {
        m_heldOut = !m_admission->admits(m_peer);
        if (m_heldOut && !m_toldHeldOut) {
            m_toldHeldOut = true;
            m_admission->heldOut(m_peer);
        }
    } catch (...) {
        // A rule that cannot be asked lets nobody in; it is never a reason
        // to answer with anything but the refusal.
        m_heldOut = true;
    }
    m_work.setHeldOut(m_heldOut);
    return !m_heldOut;
}

void SocketServer::requirePassword()
{
    m_io.writeDataPacket(Command::PasswordRequired, Bytes{}, "run loop");
}

void SocketServer::dispatch(std::uint8_t code)
{
    // kept: see docs/protocol.md (identify rule); a held-out phone gets
    // the same refusal for every command (see "admission" there).
    if (m_heldOut || (Command::needsAuthentication(code) && !m_authenticated)) {
        requirePassword();
        return;
    }
    switch (code) {
    case Command::IdentifyHost: identifyHost(); break;
    case Command::StartSync: startSync(); break;
    case Command::DefaultPath: m_folders.defaultPath(); break;
    case Command::ParentFolder: m_folders.parentFolder(); break;
    case Command::PathExists: m_folders.pathExists(); break;
    case Command::FolderInfo: m_folders.folderInfo(); break;
    case Command::FoldersInFolder: m_folders.foldersInFolder(); break;
    case Command::FilesInFolder: m_folders.filesInFolder(); break;
    case Command::AllFilesInFolder: m_folders.allFilesInFolder(); break;
    case Command::CalculateFileHash: m_folders.calculateFileHash(); break;
    case Command::DownloadFiles: m_transfers.downloadFiles(); break;
    case Command::UploadFiles: m_transfers.uploadFiles(); break;
    case Command::CreateDirectories: m_fileOps.createDirectories(); break;
    case Command::DeleteFiles: m_fileOps.deleteFiles(); break;
    case Command::DeleteFolders: m_fileOps.deleteFolders(); break;
    case Command::RenameFiles: m_fileOps.renameFiles(); break;
    case Command::FreeSpace: m_fileOps.freeSpace(); break;
    case Command::FinishSync: finishSync(); break;
    default: invalidCommand(); break;
    }
}

void SocketServer::identifyHost()
{
    const std::string context = "identifying host";
    guarded(m_io, Command::IdentifyHost, context, [&] {
        auto identifier = m_settings->getIdentifier();
        logInfo(fmt::format("Identifying host: {}", identifier));
        m_io.writeDataPacket(Command::IdentifyHost, BitHelper::encodeString(std::string_view(identifier)), context);
    });
}

void SocketServer::startSync()
{
    const std::string context = "starting sync";
    guarded(m_io, Command::StartSync, context, [&] {
        logInfo("Starting sync.");
        m_io.writeDataPacket(Command::StartSync, BitHelper::encodeBool(true), context);
    });
}

void SocketServer::finishSync()
{
    const std::string context = "finishing sync";
    guarded(m_io, Command::FinishSync, context, [&] {
        logInfo("Finished sync.");
        m_io.writeDataPacket(Command::FinishSync, BitHelper::encodeBool(true), context);
    });
}

void SocketServer::invalidCommand()
{
    // The rest of an unknown command's payload is not skipped: it is read
    // as the next command.
    // kept: see docs/protocol.md (unknown command's payload)
    const std::string context = "invalid";
    guarded(m_io, Command::Invalid, context, [&] {
        logInfo("Invalid command.");
        m_io.writeEmptyHeader(Command::Invalid, context);
    });
}

void SocketServer::closeStreams()
{
    m_connected = false;
    m_istream->close();
    m_ostream->close();
    m_istream->clearEventHandler();
    m_ostream->clearEventHandler();
    logInfo("Connection closed.");
    tellAdmission([this] { m_admission->sessionEnded(m_work.snapshot()); });
    if (auto listener = m_listener.lock())
        listener->removeConnection(this);
}

void SocketServer::logInfo(const std::string& message) { m_uiBridge->logInfo(message); }
void SocketServer::logMessage(const std::string& message) { m_uiBridge->logMessage(message); }
void SocketServer::logError(const std::string& message) { m_uiBridge->logError(message); }
bool SocketServer::verbose() const { return m_settings->getVerbose(); }
