#include "platform/notification_center.h"

#include <algorithm>
#include <atomic>
#include <utility>

namespace quendral {

struct NotificationCenter::Observer {
    Observer(ObserverId anId, std::string aName, const void* aSender, Handler aHandler)
        : id(anId), name(std::move(aName)), sender(aSender), handler(std::move(aHandler))
    {
    }
    ObserverId id;
    std::string name;
    const void* sender;
    Handler handler;
    std::atomic<bool> removed{false};
};

NotificationCenter& NotificationCenter::defaultCenter()
{
    static NotificationCenter* center = new NotificationCenter; // outlives static destructors that post
    return *center;
}

NotificationCenter::ObserverId NotificationCenter::addObserver(std::string name, const void* sender, Handler handler)
{
    std::lock_guard lock(_mutex);
    const ObserverId id = _nextId++;
    _observers.push_back(std::make_shared<Observer>(id, std::move(name), sender, std::move(handler)));
    return id;
}

void NotificationCenter::removeObserver(ObserverId id)
{
    std::lock_guard lock(_mutex);
    auto it = std::find_if(_observers.begin(), _observers.end(), [id](const auto& o) { return o->id == id; });
    if (it != _observers.end()) {
        (*it)->removed.store(true);
        _observers.erase(it);
    }
}

void NotificationCenter::post(const Notification& notification)
{
    std::vector<std::shared_ptr<Observer>> matching;
    {
        std::lock_guard lock(_mutex);
        for (const auto& observer : _observers) {
            const bool nameMatches = observer->name.empty() || observer->name == notification.name;
            const bool senderMatches = observer->sender == nullptr || observer->sender == notification.sender;
            if (nameMatches && senderMatches) {
                matching.push_back(observer);
            }
        }
    }
    for (const auto& observer : matching) {
        if (!observer->removed.load()) {
            observer->handler(notification);
        }
    }
}

void NotificationCenter::post(std::string name, const void* sender, std::any object,
                              std::map<std::string, std::any> userInfo)
{
    post(Notification{std::move(name), sender, std::move(object), std::move(userInfo)});
}

ScopedObserver::ScopedObserver(NotificationCenter& center, std::string name, const void* sender,
                               NotificationCenter::Handler handler)
    : _center(&center), _id(center.addObserver(std::move(name), sender, std::move(handler)))
{
}

ScopedObserver::~ScopedObserver()
{
    reset();
}

ScopedObserver::ScopedObserver(ScopedObserver&& other) noexcept
    : _center(std::exchange(other._center, nullptr)), _id(std::exchange(other._id, 0))
{
}

ScopedObserver& ScopedObserver::operator=(ScopedObserver&& other) noexcept
{
    if (this != &other) {
        reset();
        _center = std::exchange(other._center, nullptr);
        _id = std::exchange(other._id, 0);
    }
    return *this;
}

void ScopedObserver::reset()
{
    if (_center != nullptr) {
        _center->removeObserver(_id);
        _center = nullptr;
    }
}

} // namespace quendral
