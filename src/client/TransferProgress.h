#pragma once

#include <cstdint>
#include <string>

// Where a transfer reports how far it has come, one file at a time. Called
// on the transferring thread; implementations return quickly.
class TransferProgress {
public:
    virtual ~TransferProgress() = default;
    // A file starts; `done` bytes of `total` are already in place (resumed).
    virtual void start(const std::string& name, std::int64_t done, std::int64_t total) = 0;
    virtual void update(std::int64_t done) = 0;
    virtual void finish() = 0;
    // A short state shown with the file ("reconnecting, attempt 2 of 5");
    // empty clears it.
    virtual void note(const std::string& text) { (void)text; }
    // Takes the line off the terminal so a message can be printed; the next
    // update draws it again.
    virtual void clear() {}
};
