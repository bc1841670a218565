#pragma once

#include <exception>
#include <string>

// A failure inside a session: a name and a reason, both sent or logged as
// they stand (the reason becomes the error packet's message).
class SyncException : public std::exception {
public:
    SyncException(std::string name, std::string reason)
        : m_name(std::move(name)), m_reason(std::move(reason))
    {
    }
    const std::string& name() const noexcept { return m_name; }
    const std::string& reason() const noexcept { return m_reason; }
    const char* what() const noexcept override { return m_reason.c_str(); }

private:
    std::string m_name;
    std::string m_reason;
};
