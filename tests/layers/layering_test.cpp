// The layers point one way: platform below postprocessing below cli, and within platform, core
// and log below everything else. A file-system family never includes another family: what
// families share lives outside them. Reads every source file's #include lines.

#include <gtest/gtest.h>

#include <algorithm>

#include <filesystem>
#include <fstream>
#include <regex>
#include <string>
#include <vector>

namespace {

namespace fs = std::filesystem;

struct Include {
    std::string file;   // relative to the source tree
    std::string target; // as written between the quotes
    int line;
};

std::vector<Include> includesUnder(const std::string& folder)
{
    std::vector<Include> found;
    const fs::path root(POSTCLONE_SOURCE_DIR);
    const std::regex include(R"(^\s*#\s*include\s*"([^"]+)\")");
    for (const auto& entry : fs::recursive_directory_iterator(root / folder)) {
        const auto extension = entry.path().extension();
        if (!entry.is_regular_file() || (extension != ".h" && extension != ".cpp"))
            continue;
        std::ifstream in(entry.path());
        int number = 0;
        for (std::string text; std::getline(in, text);) {
            ++number;
            std::smatch match;
            if (std::regex_search(text, match, include))
                found.push_back({fs::relative(entry.path(), root).string(), match[1].str(), number});
        }
    }
    return found;
}

bool startsWith(const std::string& text, const std::string& prefix)
{
    return text.compare(0, prefix.size(), prefix) == 0;
}

// The family a platform/fs file belongs to, by its folder; empty for the shared pieces.
std::string familyOf(const std::string& path)
{
    const std::string root = "platform/fs/";
    if (!startsWith(path, root))
        return {};
    const std::size_t slash = path.find('/', root.size());
    return slash == std::string::npos ? std::string{} : path.substr(root.size(), slash - root.size());
}

std::string where(const Include& include)
{
    return include.file + ":" + std::to_string(include.line) + " includes " + include.target;
}

TEST(Layers, NoLayerIncludesOneAboveIt)
{
    const std::vector<std::pair<std::string, std::vector<std::string>>> forbidden{
        {"platform/core",
         {"platform/log", "platform/storage", "platform/partman", "platform/boot", "platform/fs", "platform/archive",
          "postprocessing/", "cli/", "tests/"}},
        {"platform/log",
         {"platform/storage", "platform/partman", "platform/boot", "platform/fs", "platform/archive", "postprocessing/",
          "cli/", "tests/"}},
        {"platform", {"postprocessing/", "cli/", "tests/"}},
        {"postprocessing", {"cli/", "tests/"}},
        {"cli", {"tests/"}},
    };
    std::size_t checked = 0;
    for (const auto& [folder, above] : forbidden)
        for (const auto& include : includesUnder(folder)) {
            ++checked;
            for (const auto& prefix : above)
                EXPECT_FALSE(startsWith(include.target, prefix)) << where(include);
        }
    EXPECT_GT(checked, 100u); // the tree was found and read
}

TEST(Layers, NoFileSystemFamilyIncludesAnother)
{
    std::size_t familyIncludes = 0;
    for (const auto& include : includesUnder("platform/fs")) {
        const std::string from = familyOf(include.file);
        const std::string to = familyOf(include.target);
        if (from.empty() || to.empty())
            continue;
        ++familyIncludes;
        EXPECT_EQ(from, to) << where(include);
    }
    EXPECT_GT(familyIncludes, 0u);
}

// What the families share is built before them (its own CMake target): only the probe and the
// facade factory, built after every family, may name one.
TEST(Layers, OnlyTheFactoriesIncludeAFamily)
{
    const std::vector<std::string> factories{"platform/fs/mount_helper.cpp", "platform/fs/open_filesys.cpp"};
    std::size_t factoryIncludes = 0;
    for (const auto& include : includesUnder("platform")) {
        if (!familyOf(include.file).empty() || familyOf(include.target).empty())
            continue;
        const bool factory = std::find(factories.begin(), factories.end(), include.file) != factories.end();
        factoryIncludes += factory;
        EXPECT_TRUE(factory) << where(include);
    }
    EXPECT_GT(factoryIncludes, 0u);
}

} // namespace
