#include "TestSupport.h"

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <sstream>

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace fs = std::filesystem;

TempHome::TempHome()
{
    for (const char* name :
         {"HOME", "XDG_CONFIG_HOME", "XDG_CACHE_HOME", "XDG_STATE_HOME", "XDG_DATA_HOME", "XDG_RUNTIME_DIR"})
        if (const char* value = std::getenv(name))
            m_saved.emplace_back(name, value);
    std::string tmpl = (fs::temp_directory_path() / "zandrel-home-XXXXXX").string();
    char* made = ::mkdtemp(tmpl.data());
    if (!made)
        throw std::runtime_error("mkdtemp failed");
    m_path = made;
    ::setenv("HOME", m_path.c_str(), 1);
    ::setenv("XDG_CONFIG_HOME", (m_path / ".config").c_str(), 1);
    // The digest cache too: no test writes to the real one.
    ::setenv("XDG_CACHE_HOME", (m_path / ".cache").c_str(), 1);
    // The activity journal and the trash as well.
    ::setenv("XDG_STATE_HOME", (m_path / ".local/state").c_str(), 1);
    ::setenv("XDG_DATA_HOME", (m_path / ".local/share").c_str(), 1);
    // The control channel of a server a test starts.
    fs::create_directory(m_path / "run");
    fs::permissions(m_path / "run", fs::perms::owner_all);
    ::setenv("XDG_RUNTIME_DIR", (m_path / "run").c_str(), 1);
}

TempHome::~TempHome()
{
    std::error_code ec;
    fs::remove_all(m_path, ec);
    for (const char* name :
         {"HOME", "XDG_CONFIG_HOME", "XDG_CACHE_HOME", "XDG_STATE_HOME", "XDG_DATA_HOME", "XDG_RUNTIME_DIR"})
        ::unsetenv(name);
    for (const auto& [name, value] : m_saved)
        ::setenv(name.c_str(), value.c_str(), 1);
}

fs::path TempHome::write(const std::string& relative, const std::string& contents) const
{
    fs::path p = m_path / relative;
    fs::create_directories(p.parent_path());
    std::ofstream(p, std::ios::binary) << contents;
    return p;
}

CapturedLog::CapturedLog() : m_sink(std::make_shared<CapturingSink>())
{
    SystemLog::setSink(m_sink);
}

CapturedLog::~CapturedLog()
{
    SystemLog::setSink(nullptr);
}

bool CapturedLog::waitFor(std::string_view line, int milliseconds) const
{
    return m_sink->waitFor(line, std::chrono::milliseconds(milliseconds));
}

HeldPort::HeldPort(bool listening) : m_fd(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0))
{
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_ANY);
    socklen_t length = sizeof a;
    if (::bind(m_fd, reinterpret_cast<sockaddr*>(&a), length) != 0 || (listening && ::listen(m_fd, 4) != 0)
        || ::getsockname(m_fd, reinterpret_cast<sockaddr*>(&a), &length) != 0)
        throw std::runtime_error("cannot hold a port");
    m_port = ntohs(a.sin_port);
}

HeldPort::~HeldPort()
{
    ::close(m_fd);
}

std::string readFile(const fs::path& path)
{
    std::ifstream in(path, std::ios::binary);
    std::ostringstream out;
    out << in.rdbuf();
    return out.str();
}
