#pragma once
// Turns the command line into a filled keeper: switches, one disk entry per target and the
// settings that belong to each disk.

#include "cli/options.h"
#include "cli/report.h"
#include "platform/storage/cached_storage.h"
#include "platform/storage/file_storage.h"
#include "postprocessing/keeper.h"

#include <functional>
#include <string>

namespace Cli {

// Empty when every target and source is a readable (and, for targets, writable) image file or
// block device; otherwise the one-line message naming the first that is not.
std::string checkMedia(const Options& options);

// Called for each target once it is open (and locked) and before anything reads it through its
// cache: the run journal's turn. False stops the run.
using TargetPreparation = std::function<bool(Platform::FileStorage& target, Platform::CachedStorage& cache)>;

// refused: what on the targets will not be touched (a partition table the reader refuses).
Platform::Ref<Libraries::KRO::PostProcessing::Keeper>
buildKeeper(const Options& options, std::vector<Refusal>* refused = nullptr, const TargetPreparation& prepare = {});

} // namespace Cli
