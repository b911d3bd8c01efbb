#include "platform/storage/memory_budget.h"

namespace Platform {

MemoryBudget::ColdHolder::ColdHolder(std::function<void()> release)
    : entry_(coldHolders_.insert(coldHolders_.end(), std::move(release)))
{
}

MemoryBudget::ColdHolder::~ColdHolder()
{
    coldHolders_.erase(entry_);
}

void MemoryBudget::releaseCold()
{
    for (const auto& release : coldHolders_) {
        if (!exceeded())
            return;
        release();
    }
}

} // namespace Platform
