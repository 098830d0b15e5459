#pragma once
// A thread-safe list of callbacks with removal by id. Callbacks are called
// from a copy taken under the lock, so one may add or remove observers (itself
// included) while it is being called, and no lock is held while it runs.

#include <algorithm>
#include <cstdint>
#include <mutex>
#include <utility>
#include <vector>

namespace quendral {

template <typename Callback> class ObserverList {
public:
    std::uint64_t add(Callback callback)
    {
        std::lock_guard lock(_mutex);
        const std::uint64_t id = _nextId++;
        _entries.emplace_back(id, std::move(callback));
        return id;
    }

    void remove(std::uint64_t id)
    {
        std::lock_guard lock(_mutex);
        std::erase_if(_entries, [id](const auto& entry) { return entry.first == id; });
    }

    std::vector<Callback> snapshot() const
    {
        std::lock_guard lock(_mutex);
        std::vector<Callback> callbacks;
        callbacks.reserve(_entries.size());
        for (const auto& entry : _entries) {
            callbacks.push_back(entry.second);
        }
        return callbacks;
    }

    template <typename... Args> void notify(Args&&... args) const
    {
        for (const auto& callback : snapshot()) {
            callback(args...);
        }
    }

private:
    mutable std::mutex _mutex;
    std::vector<std::pair<std::uint64_t, Callback>> _entries;
    std::uint64_t _nextId = 1;
};

} // namespace quendral
