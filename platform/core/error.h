#pragma once
// The per-thread code of the last failed platform call, from one closed set for every layer, and
// the text that says what failed where. The codes with a POSIX counterpart keep its number, so
// that a code in a log line reads familiar.

#include <cerrno>
#include <cstdint>
#include <string>

namespace Platform {

class Error {
public:
    static constexpr std::uint32_t None = 0;
    static constexpr std::uint32_t Io = 5;            // a read or write failed
    static constexpr std::uint32_t Busy = 16;         // in use by the system or another run
    static constexpr std::uint32_t Exists = 17;       // the name is taken
    static constexpr std::uint32_t NotDirectory = 20; // a path goes through a file
    static constexpr std::uint32_t IsDirectory = 21;  // a file operation on a directory
    static constexpr std::uint32_t Invalid = 22;      // the call's arguments are off
    static constexpr std::uint32_t TooLarge = 27;     // beyond what the file system can hold in one file
    static constexpr std::uint32_t NoSpace = 28;
    static constexpr std::uint32_t ReadOnly = 30; // opened, mounted or permitted read-only
    static constexpr std::uint32_t PathNotFound = 32;
    static constexpr std::uint32_t Corrupt = 117; // the structures are damaged
    static constexpr std::uint32_t NotSupported = 0x10002;
    static constexpr std::uint32_t DirtyLog = 0x10003;     // a journal or log must be replayed first
    static constexpr std::uint32_t DeviceBroken = 0x10004; // the medium stopped answering

    static std::uint32_t get() noexcept;
    // Sets the code and clears the text.
    static void set(std::uint32_t code) noexcept;
    // Sets the code and what failed, for the caller's log line.
    static void set(std::uint32_t code, std::string text);
    // What the last failure said; empty when it set a code only.
    static const std::string& text() noexcept;
    // The code for an errno value; anything outside the set is an I/O failure.
    static std::uint32_t fromErrno(int value) noexcept;
    static void setFromErrno() noexcept { set(fromErrno(errno)); }
};

} // namespace Platform
