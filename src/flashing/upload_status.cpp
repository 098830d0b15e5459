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

void Reporter::state(const std::string& text) const
{
    if (_onState) {
        _onState(text);
    }
    postState(_sender, text);
}

void Reporter::progress(int percent) const
{
    if (_onProgress) {
        _onProgress(percent);
    }
    postProgress(_sender, percent);
}

} // namespace quendral::upload
