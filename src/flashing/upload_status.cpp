#include "flashing/upload_status.h"

#include "platform/notification_center.h"

namespace quendral::upload {

void postState(const void* sender, const std::string& text)
{
    NotificationCenter::defaultCenter().post(kStateNotification, sender, std::string(text));
}

void postProgress(const void* sender, int percent)
{
    NotificationCenter::defaultCenter().post(kProgressNotification, sender, percent);
}

} // namespace quendral::upload
