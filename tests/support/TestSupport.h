#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "log/SystemLog.h"

// A fresh temporary folder used as $HOME (and the XDG config, cache, state
// and data homes and the runtime folder below it) for the life of the object; the old values come
// back and the folder goes.
class TempHome {
public:
    TempHome();
    ~TempHome();
    TempHome(const TempHome&) = delete;
    TempHome& operator=(const TempHome&) = delete;

    const std::filesystem::path& path() const { return m_path; }
    // Writes a file below the home folder, making its parents.
    std::filesystem::path write(const std::string& relative, const std::string& contents) const;

private:
    std::filesystem::path m_path;
    // The variables as they were before.
    std::vector<std::pair<std::string, std::string>> m_saved;
};

// Installs a capturing log sink for the life of the object.
class CapturedLog {
public:
    CapturedLog();
    ~CapturedLog();
    CapturedLog(const CapturedLog&) = delete;
    CapturedLog& operator=(const CapturedLog&) = delete;

    CapturingSink& sink() { return *m_sink; }
    std::vector<std::string> lines() const { return m_sink->lines(); }
    bool contains(std::string_view line) const { return m_sink->contains(line); }
    // Waits for a line to be written, with a deadline.
    bool waitFor(std::string_view line, int milliseconds = 5000) const;

private:
    std::shared_ptr<CapturingSink> m_sink;
};

// A TCP port on all addresses held for the life of the object: listening,
// as another program's server would, or only bound, so that connecting to
// it is refused.
class HeldPort {
public:
    explicit HeldPort(bool listening);
    ~HeldPort();
    HeldPort(const HeldPort&) = delete;
    HeldPort& operator=(const HeldPort&) = delete;

    std::uint16_t port() const { return m_port; }

private:
    int m_fd = -1;
    std::uint16_t m_port = 0;
};

std::string readFile(const std::filesystem::path& path);
