#include "postprocessing/linux/boot_references.h"

#include "platform/archive/initramfs.h"
#include "platform/core/string_util.h"
#include "postprocessing/log_channels.h"
#include "postprocessing/tools/device_reference.h"
#include "postprocessing/tools/file_tools.h"
#include "postprocessing/tools/text_rewrite.h"

#include <vector>

namespace Libraries::KRO::PostProcessing::Linux {

namespace {

using Platform::StringUtil;

bool isComment(const std::string& line)
{
    const auto trimmed = StringUtil::ltrim(line);
    return trimmed.empty() || trimmed.front() == '#';
}

bool firstWord(std::size_t index)
{
    return index == 0;
}

std::string rewriteFstabDeviceLine(const std::string& line, const Tools::IdMaps& maps)
{
    if (isComment(line))
        return line;
    return Tools::rewriteWords(line, firstWord,
                               [&](const std::string& word) { return Tools::rewriteDeviceReference(word, maps); });
}

// root= and resume= among kernel options.
std::string rewriteKernelOptionsLine(const std::string& line, const Tools::IdMaps& maps)
{
    if (isComment(line))
        return line;
    const auto everyWord = [](std::size_t) { return true; };
    return Tools::rewriteWords(line, everyWord, [&](const std::string& word) {
        for (const std::string key : {"root=", "resume="})
            if (StringUtil::startsWith(word, key))
                return key + Tools::rewriteDeviceReference(word.substr(key.size()), maps);
        return word;
    });
}

// The image's names: Debian's and Ubuntu's initrd.img-VERSION, and initramfs-VERSION.img.
bool isInitramfsName(const std::string& name)
{
    return StringUtil::startsWith(name, "initrd.img-") ||
           (StringUtil::startsWith(name, "initramfs-") && StringUtil::endsWith(name, ".img"));
}

StepResult adjustInitramfs(const Ref<Platform::File>& file, const std::string& path, const Tools::IdMaps& maps)
{
    const auto whole = Platform::readWholeFile(*file);
    if (!whole) {
        LogMessage(Channels::linuxSys(), LogError) << "Could not read " << path;
        return StepResult::Failed;
    }
    const std::vector<u8>& image = *whole;
    if (!Platform::looksLikeInitramfs(image)) {
        LogMessage(Channels::linuxSys(), LogWarning) << path << " is no initramfs image; left as it is";
        return StepResult::NothingFound;
    }
    const auto rewrite = Platform::rewriteInitramfs(image, [&](const std::string& name, std::string_view content) {
        auto changed = rewriteInitramfsMember(name, content, maps);
        if (changed)
            LogMessage(Channels::linuxSys(), LogNotice) << "Rewriting " << name << " in " << path;
        return changed;
    });
    if (!rewrite.ok) {
        LogMessage(Channels::linuxSys(), LogError) << "Could not rewrite " << path << ": " << rewrite.error;
        return StepResult::Failed;
    }
    if (!rewrite.changed)
        return StepResult::NothingFound;
    file->seek(0);
    if (file->resize(rewrite.image.size()) != rewrite.image.size() ||
        file->write(rewrite.image.data(), rewrite.image.size()) != rewrite.image.size() || !file->flush()) {
        LogMessage(Channels::linuxSys(), LogError) << "Failed to write changed " << path << " back to disk";
        return StepResult::Failed;
    }
    return StepResult::Ok;
}

// The initramfs images in /boot, or at the top of a file system that is mounted as /boot.
StepResult adjustInitramfsImages(Platform::Filesys& fs, const Tools::IdMaps& maps)
{
    StepResult result = StepResult::NothingFound;
    for (const std::string folder : {"/boot", ""}) {
        const auto directory = fs.openDirectory(folder.empty() ? "/" : folder);
        if (!directory)
            continue;
        std::vector<std::string> names;
        for (Platform::DirectoryEntry entry; directory->next(entry);)
            if (entry.type != 1 && isInitramfsName(entry.name))
                names.push_back(entry.name);
        for (const auto& name : names) {
            const std::string path = folder + "/" + name;
            if (const auto file = Tools::openExistingFile(fs, path, Channels::linuxSys()))
                result = foldResult(result, adjustInitramfs(file, path, maps));
        }
    }
    return result;
}

StepResult adjustFileSystem(Platform::Filesys& fs, const Tools::IdMaps& maps)
{
    struct TextFile {
        const char* path;
        std::string (*rewrite)(const std::string&, const Tools::IdMaps&);
    };
    static constexpr TextFile kFiles[] = {
        {"/etc/initramfs-tools/conf.d/resume", rewriteResumeLine},
        {"/etc/crypttab", rewriteCrypttabLine},
    };
    StepResult result = StepResult::NothingFound;
    for (const auto& textFile : kFiles) {
        const auto file = Tools::openExistingFile(fs, textFile.path, Channels::linuxSys());
        if (!file)
            continue;
        const std::string name = textFile.path;
        const auto rewrite = textFile.rewrite;
        const Tools::RewriteWording wording{"Failed to write changed " + name + " back to disk",
                                            "Nothing found to adjust in " + name,
                                            "Adjust failed, not writing updated " + name};
        result = foldResult(result, Tools::rewriteTextFile(
                                        file, [&](const std::string& line) { return rewrite(line, maps); },
                                        Channels::linuxSys(), wording));
    }
    return foldResult(result, adjustInitramfsImages(fs, maps));
}

} // namespace

std::string rewriteResumeLine(const std::string& line, const Tools::IdMaps& maps)
{
    const std::string_view trimmed = StringUtil::ltrim(line);
    for (const std::string_view key : {"RESUME=", "ROOT="}) {
        if (!StringUtil::startsWith(std::string(trimmed), std::string(key)))
            continue;
        const std::size_t valueStart = line.size() - trimmed.size() + key.size();
        return line.substr(0, valueStart) +
               Tools::rewriteWords(line.substr(valueStart), firstWord,
                                   [&](const std::string& word) { return Tools::rewriteDeviceReference(word, maps); });
    }
    return line;
}

std::string rewriteCrypttabLine(const std::string& line, const Tools::IdMaps& maps)
{
    if (isComment(line))
        return line;
    return Tools::rewriteWords(
        line, [](std::size_t index) { return index == 1; },
        [&](const std::string& word) { return Tools::rewriteDeviceReference(word, maps); });
}

std::optional<std::string> rewriteInitramfsMember(const std::string& name, std::string_view content,
                                                  const Tools::IdMaps& maps)
{
    std::string (*rewrite)(const std::string&, const Tools::IdMaps&) = nullptr;
    if (StringUtil::startsWith(name, "conf/conf.d/") || name == "conf/param.conf")
        rewrite = rewriteResumeLine;
    else if (name == "cryptroot/crypttab" || name == "etc/crypttab")
        rewrite = rewriteCrypttabLine;
    else if (name == "etc/fstab")
        rewrite = rewriteFstabDeviceLine;
    else if (StringUtil::startsWith(name, "etc/cmdline.d/")) // kernel options baked in by dracut
        rewrite = rewriteKernelOptionsLine;
    if (!rewrite)
        return std::nullopt;
    return Tools::rewriteText(content, [&](const std::string& line) { return rewrite(line, maps); });
}

StepResult adjustBootReferences(Ref<Keeper> keeper)
{
    if (!keeper)
        return StepResult::Failed;
    Tools::IdMaps maps;
    if (!Tools::buildIdMaps(
            keeper, maps,
            "Libraries::KRO::PostProcessing::Linux::adjustBootReferences invalid fs ids, cannot add mapping for ",
            "Libraries::KRO::PostProcessing::Linux::adjustBootReferences invalid partition ids, cannot add mapping "
            "for ",
            Channels::linuxSys()))
        return StepResult::Failed;
    if (maps.empty())
        return StepResult::NothingFound;
    return Tools::foldTargetFileSystems(keeper, [&](Platform::Filesys& fs) { return adjustFileSystem(fs, maps); });
}

} // namespace Libraries::KRO::PostProcessing::Linux
