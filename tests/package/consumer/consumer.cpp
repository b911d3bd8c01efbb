// A program that uses the installed library as an imaging application would: its own storage
// over a disk image, a keeper with every step switched off, one run. Exit 0 when every step
// reads "Not activated" or "Not accessed" and nothing failed.

#include <platform/storage/storage.h>
#include <postprocessing/pp_handler.h>

#include <cstdio>
#include <fstream>

namespace PP = Libraries::KRO::PostProcessing;

// A disk image read and written whole sectors at a time.
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

int main(int argc, char** argv)
{
    if (argc != 2) {
        std::fprintf(stderr, "usage: consumer IMAGE\n");
        return 2;
    }
    const auto storage = PP::makeRef<ImageStorage>(argv[1]);
    if (!storage->good()) {
        std::fprintf(stderr, "consumer: cannot open %s\n", argv[1]);
        return 2;
    }
    PP::Ref<PP::Keeper> keeper = PP::Keeper::create();
    const PP::u64 disk = keeper->addEntry(PP::KindDisk, {}, {PP::Variant::string(argv[1])}, 0, 0);
    keeper->addObjectEntry(PP::KindDiskStorage, nullptr, storage, disk, 0);
    PP::PPHandler::process(keeper, PP::Ref<PP::PPNotifier>());
    int unexpected = 0;
    for (PP::s32 slot = 0; slot < PP::kStepCount; ++slot) {
        const PP::StepResult result = keeper->getResult(slot);
        if (result != PP::StepResult::NotActivated && result != PP::StepResult::NotAccessed) {
            std::fprintf(stderr, "consumer: slot %d reads %u\n", slot, unsigned(result));
            ++unexpected;
        }
    }
    std::printf("postclone library %s: %d steps, none run\n", PP::PPHandler::version(), PP::kStepCount);
    return unexpected == 0 ? 0 : 1;
}
