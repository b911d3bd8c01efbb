#pragma once
// The run journal: before a write-back overwrites a sector of a target, the sector's old content
// is appended to the journal and synced, so that a run that is killed or loses power part-way can
// be taken back by the next run, and a finished run can be undone on purpose.
//
// A journal is one file: a header naming the target (its identity, size and sector size), then one
// record per run of sectors written: the run, a checksum of the content before and after, and the
// content before. Each record carries its own checksum, so a record torn by a crash ends the
// journal (its write-back had not begun: the target changes only after the records are synced).
// Going back applies the records latest first, so every sector ends with what it held before the
// run. The file is created at the first record: a run that changes nothing leaves no journal.

#include "platform/storage/cached_storage.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace Platform {

struct JournalTarget {
    std::string identity; // what the target is: device number and serial, or path and inode
    std::string path;     // where it was opened
    std::uint32_t sectorSize = 0;
    std::uint64_t sectorCount = 0;
};

class RunJournal : public Object, public WriteBackObserver {
public:
    // The journal goes to path when the first record comes; nothing is written before.
    RunJournal(std::string path, JournalTarget target);
    ~RunJournal() override;
    RunJournal(const RunJournal&) = delete;
    RunJournal& operator=(const RunJournal&) = delete;

    bool record(const Run& run, std::string& problem) override;
    bool commitRecords(std::string& problem) override;

    // Whether a record was written (the journal file exists).
    bool started() const { return fd_ >= 0; }
    const std::string& path() const { return path_; }
    std::uint64_t recordedSectors() const { return recordedSectors_; }

private:
    bool open(std::string& problem);
    bool append(const void* bytes, std::size_t size, std::string& problem);
    bool drain(std::string& problem);

    std::string path_;
    JournalTarget target_;
    int fd_ = -1;
    std::vector<std::uint8_t> buffer_;
    std::uint64_t recordedSectors_ = 0;
};

// A journal read back.
class JournalFile {
public:
    struct Record {
        std::uint64_t first;
        std::uint64_t count;
        std::uint32_t crcBefore;
        std::uint32_t crcAfter;
        std::uint64_t offset; // of the old content in the file
    };

    // nullopt with problem set when the file is not a journal or cannot be read.
    static std::optional<JournalFile> read(const std::string& path, std::string& problem);

    const JournalTarget& target() const { return target_; }
    const std::vector<Record>& records() const { return records_; }
    // A record at the end was cut short (the run was stopped while writing it).
    bool tornTail() const { return tornTail_; }
    std::uint64_t sectors() const;

    // Whether the target still holds what the run wrote: every sector whose last write is known
    // whole. The first sector that differs goes to changedSector.
    bool targetHoldsRunResult(Interfaces::Storage& target, std::uint64_t& changedSector) const;
    // Writes the old contents back, the latest record first, reading each back against its
    // checksum, and flushes. False with problem set when a sector could not be put back.
    bool putBack(Interfaces::Storage& target, std::string& problem) const;

private:
    std::string path_;
    JournalTarget target_;
    std::vector<Record> records_;
    bool tornTail_ = false;
};

} // namespace Platform
