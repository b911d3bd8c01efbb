#pragma once
// Runs programs for integration tests (postclone itself and the tools that check its work) and
// gives each test a temporary folder of its own.

#include <filesystem>
#include <string>
#include <vector>

namespace TestSupport {

struct CommandResult {
    int exitCode; // -1 when the program could not be started or was killed
    std::string out;
    std::string err;
};

// The exit codes `make asan` gives sanitizer reports (ASAN_OPTIONS / UBSAN_OPTIONS exitcode).
inline constexpr int kAddressSanitizerExit = 86;
inline constexpr int kUndefinedSanitizerExit = 87;

// Runs argv[0] (looked up in PATH) with no shell involved. A sanitizer report's exit code fails
// the calling test.
CommandResult run(const std::vector<std::string>& argv);

class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    const std::filesystem::path& path() const { return path_; }
    std::string file(const std::string& name) const { return (path_ / name).string(); }

private:
    std::filesystem::path path_;
};

// A zero-filled (sparse) file of the given size.
void createImage(const std::string& path, std::uint64_t bytes);

// A file's whole contents (empty when it cannot be read).
std::string readFile(const std::filesystem::path& path);

// length bytes of a file from offset (zeros past its end).
std::vector<std::uint8_t> readAt(const std::string& path, std::uint64_t offset, std::size_t length);

} // namespace TestSupport

#include "platform/storage/memory_storage.h"

namespace TestSupport {

// An image file's bytes as a memory storage of 512-byte sectors, and back.
Platform::Ref<Platform::MemoryStorage> loadImage(const std::string& path);
void saveImage(Platform::MemoryStorage& storage, const std::string& path);

// Runs a tool that must succeed; its stdout, or a test failure with its stderr.
std::string runTool(const std::vector<std::string>& argv);

} // namespace TestSupport
