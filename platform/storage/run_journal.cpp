#include "platform/storage/run_journal.h"

#include "platform/core/crc32.h"
#include "platform/storage/sector_set.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

namespace Platform {

namespace {

constexpr char kMagic[8] = {'P', 'C', 'L', 'N', 'J', 'R', 'N', '1'};
constexpr std::uint32_t kRecordTag = 0x44524352; // "RCRD"
constexpr std::size_t kRecordHead = 4 + 4 + 8 + 8 + 4 + 4;
constexpr std::size_t kBufferBytes = std::size_t(1) << 20;

// Little-endian fields, whatever the host.
void put(std::vector<std::uint8_t>& out, std::uint64_t value, int bytes)
{
    for (int i = 0; i < bytes; ++i)
        out.push_back(std::uint8_t(value >> (8 * i)));
}

std::uint64_t get(const std::uint8_t* in, int bytes)
{
    std::uint64_t value = 0;
    for (int i = 0; i < bytes; ++i)
        value |= std::uint64_t(in[i]) << (8 * i);
    return value;
}

std::string errnoText(const std::string& what)
{
    return what + ": " + std::strerror(errno);
}

bool readAt(int fd, void* bytes, std::size_t size, off_t at)
{
    return ::pread(fd, bytes, size, at) == ssize_t(size);
}

std::vector<std::uint8_t> header(const JournalTarget& target)
{
    std::vector<std::uint8_t> out(kMagic, kMagic + sizeof kMagic);
    put(out, 0, 4); // size, set below
    put(out, 0, 4); // checksum, set below
    put(out, target.sectorSize, 4);
    put(out, target.sectorCount, 8);
    put(out, target.identity.size(), 4);
    out.insert(out.end(), target.identity.begin(), target.identity.end());
    put(out, target.path.size(), 4);
    out.insert(out.end(), target.path.begin(), target.path.end());
    const auto size = std::uint32_t(out.size());
    for (int i = 0; i < 4; ++i)
        out[8 + std::size_t(i)] = std::uint8_t(size >> (8 * i));
    const std::uint32_t crc = crc32(out);
    for (int i = 0; i < 4; ++i)
        out[12 + std::size_t(i)] = std::uint8_t(crc >> (8 * i));
    return out;
}

} // namespace

RunJournal::RunJournal(std::string path, JournalTarget target) : path_(std::move(path)), target_(std::move(target)) {}

RunJournal::~RunJournal()
{
    if (fd_ >= 0)
        ::close(fd_);
}

bool RunJournal::open(std::string& problem)
{
    fd_ = ::open(path_.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    if (fd_ < 0) {
        problem = errnoText("cannot create the run journal " + path_);
        return false;
    }
    buffer_ = header(target_);
    if (!drain(problem))
        return false;
    // The journal's name must survive a crash as well as its content.
    const std::string folder = path_.substr(0, path_.find_last_of('/') + 1);
    const int dir = ::open(folder.empty() ? "." : folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    const bool synced = dir >= 0 && ::fsync(fd_) == 0 && ::fsync(dir) == 0;
    if (dir >= 0)
        ::close(dir);
    if (!synced)
        problem = errnoText("cannot sync the run journal " + path_);
    return synced;
}

bool RunJournal::drain(std::string& problem)
{
    std::size_t done = 0;
    while (done < buffer_.size()) {
        const ssize_t wrote = ::write(fd_, buffer_.data() + done, buffer_.size() - done);
        if (wrote <= 0) {
            problem = errnoText("cannot write the run journal " + path_);
            return false;
        }
        done += std::size_t(wrote);
    }
    buffer_.clear();
    return true;
}

bool RunJournal::append(const void* bytes, std::size_t size, std::string& problem)
{
    const auto* in = static_cast<const std::uint8_t*>(bytes);
    buffer_.insert(buffer_.end(), in, in + size);
    return buffer_.size() < kBufferBytes || drain(problem);
}

bool RunJournal::record(const Run& run, std::string& problem)
{
    if (fd_ < 0 && !open(problem))
        return false;
    std::vector<std::uint8_t> head;
    put(head, kRecordTag, 4);
    put(head, 0, 4); // checksum of what follows it, set below
    put(head, run.first, 8);
    put(head, run.count, 8);
    put(head, crc32(run.before), 4);
    put(head, crc32(run.after), 4);
    const std::uint32_t crc = crc32(run.before, crc32({head.data() + 8, head.size() - 8}));
    for (int i = 0; i < 4; ++i)
        head[4 + std::size_t(i)] = std::uint8_t(crc >> (8 * i));
    recordedSectors_ += run.count;
    return append(head.data(), head.size(), problem) && append(run.before.data(), run.before.size(), problem);
}

bool RunJournal::commitRecords(std::string& problem)
{
    if (fd_ < 0)
        return true;
    if (!drain(problem))
        return false;
    if (::fdatasync(fd_) != 0) {
        problem = errnoText("cannot sync the run journal " + path_);
        return false;
    }
    return true;
}

std::optional<JournalFile> JournalFile::read(const std::string& path, std::string& problem)
{
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        problem = errnoText("cannot open " + path);
        return std::nullopt;
    }
    JournalFile journal;
    journal.path_ = path;
    const auto fail = [&](const std::string& why) {
        problem = path + " is not a run journal postclone can read: " + why;
        ::close(fd);
        return std::nullopt;
    };
    std::uint8_t fixed[16];
    if (!readAt(fd, fixed, sizeof fixed, 0) || std::memcmp(fixed, kMagic, sizeof kMagic) != 0)
        return fail("no journal header");
    const auto headerBytes = std::size_t(get(fixed + 8, 4));
    if (headerBytes < 36 || headerBytes > 65536)
        return fail("a header of impossible size");
    std::vector<std::uint8_t> head(headerBytes);
    if (!readAt(fd, head.data(), headerBytes, 0))
        return fail("the header is cut short");
    const auto crc = std::uint32_t(get(head.data() + 12, 4));
    std::fill(head.begin() + 12, head.begin() + 16, 0);
    if (crc32(head) != crc)
        return fail("the header does not match its checksum");
    JournalTarget& target = journal.target_;
    target.sectorSize = std::uint32_t(get(head.data() + 16, 4));
    target.sectorCount = get(head.data() + 20, 8);
    std::size_t at = 28;
    for (std::string* text : {&target.identity, &target.path}) {
        const auto length = std::size_t(get(head.data() + at, 4));
        if (at + 4 + length > headerBytes)
            return fail("the header's names run past it");
        text->assign(head.begin() + std::ptrdiff_t(at + 4), head.begin() + std::ptrdiff_t(at + 4 + length));
        at += 4 + length;
    }
    if (target.sectorSize == 0 || target.sectorSize > 65536)
        return fail("an impossible sector size");

    off_t offset = off_t(headerBytes);
    std::vector<std::uint8_t> data;
    for (;;) {
        std::uint8_t record[kRecordHead];
        const ssize_t got = ::pread(fd, record, sizeof record, offset);
        if (got == 0)
            break;
        Record entry{get(record + 8, 8), get(record + 16, 8), std::uint32_t(get(record + 24, 4)),
                     std::uint32_t(get(record + 28, 4)), std::uint64_t(offset) + kRecordHead};
        const bool plausible = got == ssize_t(sizeof record) && get(record, 4) == kRecordTag && entry.count > 0 &&
                               entry.first < target.sectorCount && entry.count <= target.sectorCount - entry.first;
        if (plausible) {
            data.resize(std::size_t(entry.count) * target.sectorSize);
            const std::uint32_t expected = std::uint32_t(get(record + 4, 4));
            if (readAt(fd, data.data(), data.size(), off_t(entry.offset)) &&
                crc32(data, crc32({record + 8, kRecordHead - 8})) == expected && crc32(data) == entry.crcBefore) {
                journal.records_.push_back(entry);
                offset = off_t(entry.offset + data.size());
                continue;
            }
        }
        journal.tornTail_ = true; // written while the run stopped; its write-back never began
        break;
    }
    ::close(fd);
    return journal;
}

std::uint64_t JournalFile::sectors() const
{
    std::uint64_t total = 0;
    for (const auto& record : records_)
        total += record.count;
    return total;
}

bool JournalFile::targetHoldsRunResult(Interfaces::Storage& target, std::uint64_t& changedSector) const
{
    // Sectors a later record wrote again: their content after an earlier record is not known.
    SectorSet later;
    std::vector<std::uint8_t> now;
    for (auto record = records_.rbegin(); record != records_.rend(); ++record) {
        const std::uint64_t end = record->first + record->count;
        if (!later.overlaps(record->first, end)) {
            now.resize(std::size_t(record->count) * target.elementSize());
            if (target.read(record->first, record->count, now.data()) != record->count ||
                crc32(now) != record->crcAfter) {
                changedSector = record->first;
                return false;
            }
        }
        later.insert(record->first, end);
    }
    return true;
}

bool JournalFile::putBack(Interfaces::Storage& target, std::string& problem) const
{
    const int fd = ::open(path_.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) {
        problem = errnoText("cannot open " + path_);
        return false;
    }
    std::vector<std::uint8_t> old;
    std::vector<std::uint8_t> check;
    bool ok = true;
    for (auto record = records_.rbegin(); ok && record != records_.rend(); ++record) {
        old.resize(std::size_t(record->count) * target_.sectorSize);
        check.resize(old.size());
        if (!readAt(fd, old.data(), old.size(), off_t(record->offset))) {
            problem = errnoText("cannot read " + path_);
            ok = false;
        } else if (target.write(record->first, record->count, old.data()) != record->count ||
                   target.read(record->first, record->count, check.data()) != record->count ||
                   crc32(check) != record->crcBefore) {
            problem = "sectors " + std::to_string(record->first) + " to " +
                      std::to_string(record->first + record->count - 1) + " could not be put back";
            ok = false;
        }
    }
    ::close(fd);
    if (ok && !target.flush()) {
        problem = "the disk did not confirm the writes (flush failed)";
        ok = false;
    }
    return ok;
}

} // namespace Platform
