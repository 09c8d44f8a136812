#include "crashdump/efs2_replies.h"

void DueReplies::expect(uint16_t command)
{
    const std::lock_guard lock(mutex_);
    if (command < commands)
        ++due_[command];
}

void DueReplies::note(uint16_t command)
{
    const std::lock_guard lock(mutex_);
    if (command >= commands)
        return;
    if (due_[command] != 0)
        --due_[command];
    else
        ++strays_;
}

uint32_t DueReplies::due(uint16_t command) const
{
    const std::lock_guard lock(mutex_);
    return command < commands ? due_[command] : 0;
}

void DueReplies::forget(uint16_t command)
{
    const std::lock_guard lock(mutex_);
    if (command < commands)
        due_[command] = 0;
}

void DueReplies::forget_all()
{
    const std::lock_guard lock(mutex_);
    due_.fill(0);
}

uint32_t DueReplies::strays() const
{
    const std::lock_guard lock(mutex_);
    return strays_;
}
