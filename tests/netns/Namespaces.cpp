#include "netns/Namespaces.h"

#include <array>
#include <cerrno>
#include <cstring>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sched.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

std::string ipProgram()
{
    for (const char* path : {"/usr/sbin/ip", "/sbin/ip", "/usr/bin/ip", "/bin/ip"})
        if (::access(path, X_OK) == 0)
            return path;
    return {};
}

std::string systemError(const char* what)
{
    return std::string(what) + ": " + std::strerror(errno);
}

Fd currentNamespace()
{
    // Without O_CLOEXEC: `ip` reaches it as /proc/self/fd/N.
    return Fd(::open("/proc/thread-self/ns/net", O_RDONLY));
}

sockaddr_in address(const char* text, std::uint16_t port)
{
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(port);
    ::inet_pton(AF_INET, text, &a.sin_addr);
    return a;
}

std::string dotted(const in_addr& a)
{
    std::array<char, INET_ADDRSTRLEN> text{};
    ::inet_ntop(AF_INET, &a, text.data(), text.size());
    return text.data();
}

} // namespace

bool runIp(const std::vector<std::string>& args, int nsFd)
{
    const std::string program = ipProgram();
    if (program.empty())
        return false;
    std::vector<std::string> words{program};
    words.insert(words.end(), args.begin(), args.end());
    std::vector<char*> argv;
    for (auto& w : words)
        argv.push_back(w.data());
    argv.push_back(nullptr);

    pid_t pid = ::fork();
    if (pid < 0)
        return false;
    if (pid == 0) {
        if (nsFd >= 0 && ::setns(nsFd, CLONE_NEWNET) != 0)
            ::_exit(126);
        ::execv(argv[0], argv.data());
        ::_exit(127);
    }
    int status = 0;
    while (::waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

std::string isolateNetwork()
{
    if (ipProgram().empty())
        return "iproute2's ip is not installed";
    if (::unshare(CLONE_NEWNET) != 0)
        return systemError("cannot make a private network namespace (needs CAP_SYS_ADMIN, e.g. unshare -rn)");
    if (!runIp({"link", "set", "lo", "up"}) || !runIp({"route", "add", "224.0.0.0/4", "dev", "lo"}))
        return "cannot set up lo in the private network namespace";
    return {};
}

std::string TwoHosts::make()
{
    // First leave whatever namespace the binary was started in, so nothing
    // below can touch a real interface.
    if (std::string why = isolateNetwork(); !why.empty())
        return why;
    m_desktopNs = currentNamespace();
    if (::unshare(CLONE_NEWNET) != 0)
        return systemError("cannot make the phone's network namespace");
    m_phoneNs = currentNamespace();
    if (::setns(m_desktopNs.get(), CLONE_NEWNET) != 0)
        return systemError("cannot return to the desktop's network namespace");
    if (!m_desktopNs.valid() || !m_phoneNs.valid())
        return "cannot open the namespaces' handles";

    const int desktop = -1;
    const int phone = m_phoneNs.get();
    const std::vector<std::pair<int, std::vector<std::string>>> steps{
        {desktop, {"link", "add", "veth0", "type", "veth", "peer", "name", "veth1", "netns",
                   "/proc/self/fd/" + std::to_string(phone)}},
        {desktop, {"addr", "add", std::string(kDesktop) + "/24", "dev", "veth0"}},
        {desktop, {"link", "set", "veth0", "up"}},
        {desktop, {"route", "replace", "224.0.0.0/4", "dev", "veth0"}},
        {phone, {"link", "set", "lo", "up"}},
        {phone, {"addr", "add", std::string(kPhone) + "/24", "dev", "veth1"}},
        {phone, {"addr", "add", std::string(kPhoneHigh) + "/24", "dev", "veth1"}},
        {phone, {"link", "set", "veth1", "up"}},
        {phone, {"route", "add", "224.0.0.0/4", "dev", "veth1"}},
    };
    for (const auto& [ns, args] : steps)
        if (!runIp(args, ns))
            return "ip " + args[0] + " " + args[1] + " failed on the " + (ns == phone ? "phone" : "desktop");
    return {};
}

Fd TwoHosts::phoneSocket() const
{
    if (::setns(m_phoneNs.get(), CLONE_NEWNET) != 0)
        return Fd();
    Fd sock(::socket(AF_INET, SOCK_DGRAM, IPPROTO_UDP));
    if (::setns(m_desktopNs.get(), CLONE_NEWNET) != 0)
        return Fd();
    return sock;
}

bool bindReceiver(int fd, const char* text, std::uint16_t port)
{
    int on = 1;
    if (::setsockopt(fd, IPPROTO_IP, IP_PKTINFO, &on, sizeof on) != 0
        || ::setsockopt(fd, IPPROTO_IP, IP_RECVTTL, &on, sizeof on) != 0)
        return false;
    sockaddr_in a = address(text, port);
    return ::bind(fd, reinterpret_cast<const sockaddr*>(&a), sizeof a) == 0;
}

bool joinGroup(int fd, const char* group)
{
    ip_mreq membership{};
    ::inet_pton(AF_INET, group, &membership.imr_multiaddr);
    membership.imr_interface.s_addr = htonl(INADDR_ANY);
    return ::setsockopt(fd, IPPROTO_IP, IP_ADD_MEMBERSHIP, &membership, sizeof membership) == 0;
}

bool sendDatagram(int fd, const std::string& payload, const char* text, std::uint16_t port)
{
    sockaddr_in to = address(text, port);
    ssize_t sent = ::sendto(fd, payload.data(), payload.size(), 0, reinterpret_cast<const sockaddr*>(&to), sizeof to);
    return sent == static_cast<ssize_t>(payload.size());
}

std::optional<Datagram> receive(int fd, std::chrono::milliseconds timeout)
{
    pollfd p{fd, POLLIN, 0};
    if (::poll(&p, 1, static_cast<int>(timeout.count())) <= 0)
        return std::nullopt;
    std::array<char, 2048> data{};
    std::array<char, 256> control{};
    sockaddr_in from{};
    iovec io{data.data(), data.size()};
    msghdr message{};
    message.msg_name = &from;
    message.msg_namelen = sizeof from;
    message.msg_iov = &io;
    message.msg_iovlen = 1;
    message.msg_control = control.data();
    message.msg_controllen = control.size();
    ssize_t got = ::recvmsg(fd, &message, MSG_DONTWAIT);
    if (got < 0)
        return std::nullopt;
    Datagram d;
    d.payload.assign(data.data(), static_cast<std::size_t>(got));
    d.from = dotted(from.sin_addr);
    for (cmsghdr* c = CMSG_FIRSTHDR(&message); c; c = CMSG_NXTHDR(&message, c)) {
        if (c->cmsg_level == IPPROTO_IP && c->cmsg_type == IP_PKTINFO) {
            in_pktinfo info{};
            std::memcpy(&info, CMSG_DATA(c), sizeof info);
            d.to = dotted(info.ipi_addr);
        } else if (c->cmsg_level == IPPROTO_IP && c->cmsg_type == IP_TTL) {
            std::memcpy(&d.ttl, CMSG_DATA(c), sizeof d.ttl);
        }
    }
    return d;
}
