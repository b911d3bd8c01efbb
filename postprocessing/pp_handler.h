#pragma once
// The library's entry points: the post-processing run and the helpers a caller uses while
// filling the keeper.

#include "platform/core/progress_notifier.h"
#include "postprocessing/keeper.h"
#include "postprocessing/tools/uuid_helper.h"

namespace Libraries::KRO::PostProcessing {

// Receives each step's outcome ("Nothing found", "Ok" or "FAILED") besides the progress.
class PPNotifier : public virtual Interfaces::ProgressNotifier {
public:
    virtual void stepFinished(u32 step, StepResult result) = 0;
};

// Forwards progress to a plain progress notifier and drops step outcomes.
class PPNotifierObj : public Object, public virtual PPNotifier {
public:
    explicit PPNotifierObj(Ref<Interfaces::ProgressNotifier> progress) : progress_(std::move(progress)) {}
    void progress(double fraction) override;
    void completed() override;
    bool cancelled() override { return progress_ && progress_->cancelled(); }
    void stepFinished(u32, StepResult) override {}

private:
    Ref<Interfaces::ProgressNotifier> progress_;
};

class PPHandler {
public:
    PPHandler() = delete;

    // Runs every enabled step once, in the fixed order, and records each result in the keeper.
    // A failing step does not stop the run; both overloads always return true.
    static bool process(Ref<Keeper> keeper, Ref<PPNotifier> notifier);
    static bool process(Ref<Keeper> keeper, Ref<Interfaces::ProgressNotifier> progress);

    // The library's version, "major.minor.patch".
    static const char* version() noexcept;

    // A list Variant "CYL", "HEAD", "SEC" holding the values unchanged.
    static Variant encodeCHS(u32 cylinder, u32 head, u32 sector);
    static Ref<String> formatStorageID(Ref<ByteArray> id, UUIDHelper::PlatformFormat format);

    // Record the old and new by-id names ("Model_Name_SERIAL", "...-partN") of a disk entry
    // (kind 0) or a partition entry (kind 1) as a kind-15 entry.
    static bool addLinuxDiskIdString(Ref<Keeper> keeper, u64 id, const Variant& fromDiskName,
                                     const Variant& fromDiskSerial, const Variant& toDiskName,
                                     const Variant& toDiskSerial);
    static bool addLinuxPartIdString(Ref<Keeper> keeper, u64 id, const Variant& fromDiskName,
                                     const Variant& fromDiskSerial, u64 fromPartIdx, const Variant& toDiskName,
                                     const Variant& toDiskSerial, u64 toPartIdx);
};

} // namespace Libraries::KRO::PostProcessing
