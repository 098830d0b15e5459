#pragma once
// In-process notifications by name: "uploadState", "uploadProgress",
// "updateFromConfig" and the serial port manager's connect/disconnect news.
// Observers run synchronously on the posting thread, like the platform centre
// this mirrors; observers that touch the window hop to the main queue themselves.
#include <any>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace quendral {

struct Notification {
    std::string name;
    const void* sender = nullptr;
    std::any object;
    std::map<std::string, std::any> userInfo;

    // The object as T, or nullptr when it holds something else.
    template <typename T> [[nodiscard]] const T* objectAs() const { return std::any_cast<T>(&object); }
};

class NotificationCenter {
public:
    using ObserverId = std::uint64_t;
    using Handler = std::function<void(const Notification&)>;

    static NotificationCenter& defaultCenter();

    // Observe `name` (empty: every name) from `sender` (nullptr: any sender).
    ObserverId addObserver(std::string name, const void* sender, Handler handler);
    // After this returns the handler is not called again (a call running on
    // another thread at that moment may still finish).
    void removeObserver(ObserverId id);

    void post(const Notification& notification);
    void post(std::string name, const void* sender, std::any object = {},
              std::map<std::string, std::any> userInfo = {});

private:
    struct Observer;
    std::mutex _mutex;
    std::vector<std::shared_ptr<Observer>> _observers;
    ObserverId _nextId = 1;
};

// Removes its observer when destroyed.
class ScopedObserver {
public:
    ScopedObserver() = default;
    ScopedObserver(NotificationCenter& center, std::string name, const void* sender,
                   NotificationCenter::Handler handler);
    ~ScopedObserver();
    ScopedObserver(ScopedObserver&& other) noexcept;
    ScopedObserver& operator=(ScopedObserver&& other) noexcept;
    ScopedObserver(const ScopedObserver&) = delete;
    ScopedObserver& operator=(const ScopedObserver&) = delete;
    void reset();

private:
    NotificationCenter* _center = nullptr;
    NotificationCenter::ObserverId _id = 0;
};

} // namespace quendral
