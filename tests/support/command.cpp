#include "tests/support/command.h"

#include <cstdlib>
#include <fcntl.h>
#include <fstream>
#include <gtest/gtest.h>
#include <spawn.h>
#include <sstream>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

namespace TestSupport {

std::string readFile(const std::filesystem::path& path)
{
    std::ifstream in(path, std::ios::binary);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
}

CommandResult run(const std::vector<std::string>& argv)
{
    TempDir capture;
    const std::string outPath = capture.file("out"), errPath = capture.file("err");
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);

    std::vector<char*> args;
    for (const auto& arg : argv)
        args.push_back(const_cast<char*>(arg.c_str()));
    args.push_back(nullptr);

    pid_t pid = 0;
    const int spawned = posix_spawnp(&pid, args[0], &actions, nullptr, args.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    if (spawned != 0)
        return {-1, {}, "could not start " + argv[0]};
    int status = 0;
    waitpid(pid, &status, 0);
    CommandResult result{WIFEXITED(status) ? WEXITSTATUS(status) : -1, readFile(outPath), readFile(errPath)};
    // `make asan` gives sanitizer reports exit codes of their own: a memory error in a program
    // under test fails the test whatever exit code the test expected.
    if (result.exitCode == kAddressSanitizerExit || result.exitCode == kUndefinedSanitizerExit)
        ADD_FAILURE() << "sanitizer report from " << argv[0] << ":\n" << result.err;
    return result;
}

TempDir::TempDir()
{
    std::string pattern = (std::filesystem::temp_directory_path() / "postclone-test-XXXXXX").string();
    path_ = ::mkdtemp(pattern.data());
}

TempDir::~TempDir()
{
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

void createImage(const std::string& path, std::uint64_t bytes)
{
    {
        std::ofstream(path, std::ios::binary | std::ios::trunc);
    }
    std::filesystem::resize_file(path, bytes);
}

std::vector<std::uint8_t> readAt(const std::string& path, std::uint64_t offset, std::size_t length)
{
    std::ifstream in(path, std::ios::binary);
    in.seekg(std::streamoff(offset));
    std::vector<std::uint8_t> bytes(length);
    in.read(reinterpret_cast<char*>(bytes.data()), std::streamsize(length));
    return bytes;
}

} // namespace TestSupport

#include <gtest/gtest.h>

namespace TestSupport {

Platform::Ref<Platform::MemoryStorage> loadImage(const std::string& path)
{
    const std::string bytes = readFile(path);
    auto storage = Platform::makeRef<Platform::MemoryStorage>(512u, bytes.size() / 512);
    std::copy(bytes.begin(), bytes.begin() + std::ptrdiff_t(storage->bytes().size()), storage->bytes().begin());
    return storage;
}

void saveImage(Platform::MemoryStorage& storage, const std::string& path)
{
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(storage.bytes().data()), std::streamsize(storage.bytes().size()));
}

std::string runTool(const std::vector<std::string>& argv)
{
    const auto result = run(argv);
    EXPECT_EQ(result.exitCode, 0) << argv[0] << ": " << result.err << result.out;
    return result.out;
}

} // namespace TestSupport
