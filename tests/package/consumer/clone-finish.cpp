// clone-finish: runs the steps whose slots are given on a disk image, as an imaging application
// would after a restore, and prints each step's result and the disk ids it changed.
// Usage: clone-finish IMAGE [SLOT...]   (slots as `postclone --list-steps` numbers them)
// Exit status: 0 when no step failed, 1 when one did, 2 when the image cannot be opened.

#include <platform/storage/storage.h>
#include <postprocessing/pp_handler.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>

namespace PP = Libraries::KRO::PostProcessing;

// The library reads and writes disks through a storage the caller provides: here a disk image,
// whole 512-byte sectors at a time.
class ImageStorage : public PP::Object, public virtual Interfaces::Storage {
public:
    explicit ImageStorage(const char* path) : file_(path, std::ios::in | std::ios::out | std::ios::binary)
    {
        file_.seekg(0, std::ios::end);
        size_ = std::uint64_t(file_.tellg());
    }
    bool good() const { return file_.good(); }
    std::uint32_t elementSize() const override { return 512; }
    std::uint64_t elementCount() const override { return size_ / 512; }
    std::uint64_t read(std::uint64_t index, std::uint64_t count, void* buffer) override
    {
        file_.seekg(std::streamoff(index * 512));
        file_.read(static_cast<char*>(buffer), std::streamsize(count * 512));
        return file_ ? count : 0;
    }
    std::uint64_t write(std::uint64_t index, std::uint64_t count, const void* buffer) override
    {
        file_.seekp(std::streamoff(index * 512));
        file_.write(static_cast<const char*>(buffer), std::streamsize(count * 512));
        return file_ ? count : 0;
    }
    bool flush() override { return bool(file_.flush()); }

private:
    std::fstream file_;
    std::uint64_t size_ = 0;
};

static void printId(const PP::ObjectRef& id)
{
    if (const auto bytes = Platform::refCast<PP::ByteArray>(id))
        for (std::size_t i = bytes->size(); i-- > 0;) // an MBR signature is little-endian
            std::printf("%02x", unsigned((*bytes)[i]));
}

int main(int argc, char** argv)
{
    if (argc < 2) {
        std::fprintf(stderr, "usage: clone-finish IMAGE [SLOT...]\n");
        return 2;
    }
    const auto image = PP::makeRef<ImageStorage>(argv[1]);
    if (!image->good()) {
        std::fprintf(stderr, "clone-finish: cannot open %s\n", argv[1]);
        return 2;
    }

    // Every switch starts off; the disk is entry `disk`, its storage the target of a kind-4 entry.
    PP::Ref<PP::Keeper> keeper = PP::Keeper::create();
    for (int i = 2; i < argc; ++i)
        keeper->setEnabled(std::atoi(argv[i]), true);
    const PP::u64 disk = keeper->addEntry(PP::KindDisk, {}, {PP::Variant::string(argv[1])}, 0, 0);
    keeper->addObjectEntry(PP::KindDiskStorage, nullptr, image, disk, 0);

    PP::PPHandler::process(keeper, PP::Ref<PP::PPNotifier>());

    bool failed = false;
    for (PP::s32 slot = 0; slot < PP::kStepCount; ++slot) {
        const PP::StepResult result = keeper->getResult(slot);
        std::printf("slot %d: result %u\n", slot, unsigned(result));
        failed = failed || result == PP::StepResult::Failed;
    }
    for (PP::u64 i = keeper->findNext(PP::KindDiskIdChange, 0, disk); i != 0;
         i = keeper->findNext(PP::KindDiskIdChange, i, disk)) {
        std::printf("disk id ");
        printId(keeper->getFromObject(i));
        std::printf(" -> ");
        printId(keeper->getToObject(i));
        std::printf("\n");
    }
    std::printf("postclone library %s\n", PP::PPHandler::version());
    return failed ? 1 : 0;
}
