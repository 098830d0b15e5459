#pragma once
// Records the "uploadState" and "uploadProgress" notifications one sender
// posts on the default centre, in order.
#include "flashing/upload_status.h"
#include "platform/notification_center.h"

#include <mutex>
#include <string>
#include <variant>
#include <vector>

namespace quendral::test {

class UploadRecorder {
public:
    using Event = std::variant<std::string, int>; // a state text or a progress value

    explicit UploadRecorder(const void* sender)
        : _state(NotificationCenter::defaultCenter(), upload::kStateNotification, sender,
                 [this](const Notification& n) { record(n); }),
          _progress(NotificationCenter::defaultCenter(), upload::kProgressNotification, sender,
                    [this](const Notification& n) { record(n); })
    {
    }

    [[nodiscard]] std::vector<Event> events() const
    {
        std::lock_guard lock(_mutex);
        return _events;
    }
    [[nodiscard]] std::vector<std::string> states() const
    {
        std::vector<std::string> result;
        for (const auto& e : events()) {
            if (const auto* text = std::get_if<std::string>(&e)) {
                result.push_back(*text);
            }
        }
        return result;
    }
    [[nodiscard]] std::vector<int> progress() const
    {
        std::vector<int> result;
        for (const auto& e : events()) {
            if (const auto* value = std::get_if<int>(&e)) {
                result.push_back(*value);
            }
        }
        return result;
    }
    // Objects of a type other than the documented ones.
    [[nodiscard]] int malformed() const
    {
        std::lock_guard lock(_mutex);
        return _malformed;
    }

private:
    void record(const Notification& n)
    {
        std::lock_guard lock(_mutex);
        if (n.name == upload::kStateNotification && n.objectAs<std::string>() != nullptr) {
            _events.emplace_back(*n.objectAs<std::string>());
        } else if (n.name == upload::kProgressNotification && n.objectAs<int>() != nullptr) {
            _events.emplace_back(*n.objectAs<int>());
        } else {
            ++_malformed;
        }
    }

    mutable std::mutex _mutex;
    std::vector<Event> _events;
    int _malformed = 0;
    ScopedObserver _state;
    ScopedObserver _progress;
};

} // namespace quendral::test
