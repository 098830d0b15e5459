#pragma once
// The getter of a field that several threads share: a copy taken under the
// field's mutex, so a reader never sees half of a value being replaced.
#include <mutex>

namespace quendral {

template <typename Field> [[nodiscard]] Field lockedCopy(std::mutex& mutex, const Field& field)
{
    std::lock_guard lock(mutex);
    return field;
}

} // namespace quendral
