#include "cli/reg_command.h"

#include "cli/partition_fs.h"
#include "cli/terminal.h"

#include "platform/core/error.h"
#include "platform/hive/hive_file.h"

#include <cstdio>
#include <cstring>
#include <fstream>
#include <iostream>
#include <map>
#include <string>
#include <vector>

namespace Cli {

namespace {

using namespace Platform;
using Platform::Hive::HiveFile;

constexpr int kDone = 0;
constexpr int kMissing = 1;
constexpr int kUsage = 2;
constexpr const char* kUsageText =
    "usage: postclone reg export|get|set|recover HIVE|TARGET PARTITION PATH [KEY [NAME [TYPE [DATA...]]]]";

const std::map<std::string, std::uint32_t> kTypes = {{"none", 0},  {"sz", 1},       {"expand_sz", 2}, {"binary", 3},
                                                     {"dword", 4}, {"dword_be", 5}, {"multi_sz", 7},  {"qword", 11}};

int failure(int code, const std::string& message)
{
    std::fprintf(stderr, "postclone: %s\n", message.c_str());
    return code;
}

// As the file commands say it, but a path inside a hive names keys and values.
std::string hiveErrorText()
{
    return Error::get() == Error::PathNotFound ? "no such key or value" : errorText();
}

bool isHiveFile(const std::string& path)
{
    std::ifstream in(path, std::ios::binary);
    char signature[4] = {};
    return in.read(signature, 4) && std::memcmp(signature, "regf", 4) == 0;
}

struct Opened {
    Ref<Filesys> fs;
    Ref<HiveFile> hive;
    std::vector<std::string> rest; // the arguments after the hive's address
};

// The hive the arguments name, and the arguments that follow its address.
std::optional<Opened> openNamedHive(const std::vector<std::string>& args, bool writable, std::string& error)
{
    Opened opened;
    std::string path;
    const Access access = writable ? Access::ReadWrite : Access::ReadOnly;
    if (isHiveFile(args[0])) {
        const auto slash = args[0].rfind('/');
        const std::string folder = slash == std::string::npos ? "." : slash == 0 ? "/" : args[0].substr(0, slash);
        path = "/" + (slash == std::string::npos ? args[0] : args[0].substr(slash + 1));
        opened.fs = Filesys::create(folder, 0, access);
        opened.rest.assign(args.begin() + 1, args.end());
        if (!opened.fs) {
            error = "cannot open the folder of '" + args[0] + "'";
            return std::nullopt;
        }
    } else {
        if (args.size() < 3) {
            error = kUsageText;
            return std::nullopt;
        }
        unsigned number = 0;
        try {
            number = unsigned(std::stoul(args[1]));
        } catch (...) {
            error = "'" + args[0] + "' is no hive file, and PARTITION must be a number, not '" + args[1] + "'";
            return std::nullopt;
        }
        opened.fs = openPartition(args[0], number, access, error);
        if (!opened.fs)
            return std::nullopt;
        path = args[2];
        opened.rest.assign(args.begin() + 3, args.end());
    }
    opened.hive = Hive::Utils::openHive(opened.fs, path, writable, 0, 32);
    if (!opened.hive) {
        error = path + ": " + errorText();
        return std::nullopt;
    }
    return opened;
}

std::string hexBytes(const std::vector<std::uint8_t>& bytes)
{
    std::string text;
    char pair[4];
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        std::snprintf(pair, sizeof pair, "%02x", bytes[i]);
        if (i)
            text += ',';
        text += pair;
    }
    return text;
}

int get(HiveFile& hive, const std::string& key, const std::string& name)
{
    const auto node = hive.root() ? hive.root()->find(key) : nullptr;
    const auto value = node ? node->value(name) : nullptr;
    if (!value)
        return failure(kMissing, key + (node ? "\\" + name : "") + ": " + hiveErrorText());
    switch (value->type()) {
    case 1:
    case 2:
        std::printf("%s\n", value->getString(0x10000).value_or("").c_str());
        return kDone;
    case 7:
        for (const auto& line : value->getMultiString(0x10000).value_or(std::vector<std::string>{}))
            std::printf("%s\n", line.c_str());
        return kDone;
    case 4:
    case 5:
    case 11:
        std::printf("%lld\n", (long long)value->getNumber());
        return kDone;
    default:
        const auto data = value->data();
        if (!data)
            return failure(kMissing, key + "\\" + name + ": " + hiveErrorText());
        std::printf("%s\n", hexBytes(*data).c_str());
        return kDone;
    }
}

// DATA as TYPE wants it: text, lines of a multi-string, a number, or hex bytes.
std::optional<std::vector<std::uint8_t>> parseBinary(const std::string& text)
{
    std::vector<std::uint8_t> bytes;
    std::string digits;
    for (const char c : text)
        if (std::isxdigit(static_cast<unsigned char>(c)))
            digits += c;
        else if (c != ',' && c != ' ' && c != ':')
            return std::nullopt;
    if (digits.size() % 2)
        return std::nullopt;
    for (std::size_t i = 0; i < digits.size(); i += 2)
        bytes.push_back(std::uint8_t(std::stoul(digits.substr(i, 2), nullptr, 16)));
    return bytes;
}

int set(HiveFile& hive, const std::vector<std::string>& args)
{
    // KEY NAME TYPE [DATA...]
    const auto type = kTypes.find(args[2]);
    if (type == kTypes.end())
        return failure(kUsage, "TYPE is one of none, sz, expand_sz, binary, dword, dword_be, multi_sz, qword");
    const std::vector<std::string> data(args.begin() + 3, args.end());
    if (type->second != 7 && type->second != 0 && data.size() != 1)
        return failure(kUsage, "give the value's data as one argument");
    auto key = hive.root();
    for (const auto& part : [&] {
             std::string path = args[0];
             std::replace(path.begin(), path.end(), '/', '\\');
             std::vector<std::string> parts;
             for (std::size_t start = 0; start <= path.size();) {
                 const std::size_t end = std::min(path.find('\\', start), path.size());
                 if (end > start)
                     parts.push_back(path.substr(start, end - start));
                 start = end + 1;
             }
             return parts;
         }()) {
        if (!key)
            break;
        key = key->createKey(part);
    }
    if (!key)
        return failure(kMissing, args[0] + ": " + hiveErrorText());
    const auto value = key->createValue(args[1], type->second);
    bool ok = value != nullptr;
    try {
        switch (type->second) {
        case 0:
            break;
        case 1:
        case 2:
            ok = ok && value->setString(data[0]);
            break;
        case 7:
            ok = ok && value->setMultiString(data);
            break;
        case 4:
        case 5:
        case 11:
            ok = ok && value->setNumber(std::stoull(data[0], nullptr, 0));
            break;
        default:
            const auto bytes = parseBinary(data[0]);
            if (!bytes)
                return failure(kUsage, "binary data are hex bytes, such as 01,02,ff");
            ok = ok && value->setData(type->second, *bytes);
        }
    } catch (...) {
        return failure(kUsage, "'" + data[0] + "' is no number");
    }
    if (!ok || !hive.flush())
        return failure(kMissing, args[0] + "\\" + args[1] + ": " + hiveErrorText());
    return kDone;
}

} // namespace

int runRegCommand(int argc, char** argv)
{
    // argv: postclone reg VERB ADDRESS...
    if (argc < 4)
        return failure(kUsage, kUsageText);
    const std::string verb = argv[2];
    if (verb != "export" && verb != "get" && verb != "set" && verb != "recover")
        return failure(kUsage, kUsageText);
    SysLogStream::install(std::make_shared<StderrLog>());
    SysLogFilter::setLevel(LogWarning);
    const std::vector<std::string> args(argv + 3, argv + argc);
    const bool writes = verb == "set" || verb == "recover";
    std::string error;
    const auto opened = openNamedHive(args, writes, error);
    if (!opened)
        return failure(error == kUsageText ? kUsage : kMissing, error);
    HiveFile& hive = *opened->hive;
    const auto& rest = opened->rest;
    if (verb == "export") {
        if (rest.size() > 1)
            return failure(kUsage, kUsageText);
        std::cout << "Windows Registry Editor Version 5.00\n\n";
        if (!hive.exportReg(rest.empty() ? "" : rest[0], std::cout))
            return failure(kMissing, (rest.empty() ? "\\" : rest[0]) + ": " + hiveErrorText());
        return std::cout.flush() ? kDone : failure(kMissing, "the export could not be written");
    }
    if (verb == "get")
        return rest.size() == 2 ? get(hive, rest[0], rest[1]) : failure(kUsage, kUsageText);
    if (verb == "set")
        return rest.size() >= 3 ? set(hive, rest) : failure(kUsage, kUsageText);
    if (!rest.empty())
        return failure(kUsage, kUsageText);
    if (!hive.writable())
        return failure(kMissing, "the hive cannot be recovered: " + hiveErrorText());
    const bool replayed = hive.recovered();
    if (!hive.flush())
        return failure(kMissing, "the recovered hive could not be written: " + hiveErrorText());
    std::printf(replayed ? "recovered from the transaction logs\n" : "clean: nothing to recover\n");
    return kDone;
}

} // namespace Cli
