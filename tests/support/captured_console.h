#pragma once
// A console for the logger that a test can read while background work is still
// logging: every write and every read of the captured text takes one lock.
// (A plain std::ostringstream would be read and grown at the same time.)
#include <algorithm>
#include <functional>
#include <mutex>
#include <ostream>
#include <sstream>
#include <streambuf>
#include <string>
#include <utility>
#include <vector>

namespace quendral::test {

class CapturedConsoleBuffer : public std::streambuf {
public:
    [[nodiscard]] std::string text() const
    {
        std::lock_guard lock(_mutex);
        return _text;
    }
    // Runs `action` once `needle` has been written, on the thread that wrote
    // it, before that thread goes on.
    void onceWritten(std::string needle, std::function<void()> action)
    {
        std::lock_guard lock(_mutex);
        _needle = std::move(needle);
        _action = std::move(action);
    }

protected:
    int_type overflow(int_type c) override
    {
        if (!traits_type::eq_int_type(c, traits_type::eof())) {
            const char one = traits_type::to_char_type(c);
            append(&one, 1);
        }
        return traits_type::not_eof(c);
    }

    std::streamsize xsputn(const char* s, std::streamsize n) override
    {
        append(s, static_cast<std::size_t>(n));
        return n;
    }

private:
    void append(const char* s, std::size_t n)
    {
        std::function<void()> action;
        {
            std::lock_guard lock(_mutex);
            _text.append(s, n);
            if (_action && _text.find(_needle) != std::string::npos) {
                action = std::exchange(_action, nullptr);
            }
        }
        if (action) {
            action();
        }
    }

    mutable std::mutex _mutex;
    std::string _text;
    std::string _needle;
    std::function<void()> _action;
};

// The buffer is a base of its own so that it exists before the stream uses it.
class CapturedConsole : private CapturedConsoleBuffer, public std::ostream {
public:
    CapturedConsole() : std::ostream(static_cast<CapturedConsoleBuffer*>(this)) {}

    using CapturedConsoleBuffer::onceWritten;
    [[nodiscard]] std::string str() const { return text(); }

    // The log entries so far without their "[yyyy-MM-dd HH:mm:ss] " prefix;
    // lines without one (a tool's own output) are left out.
    [[nodiscard]] std::vector<std::string> messages() const
    {
        std::vector<std::string> messages;
        std::istringstream lines(text());
        for (std::string line; std::getline(lines, line);) {
            if (line.size() >= 22 && line.front() == '[' && line[20] == ']' && line[21] == ' ') {
                messages.push_back(line.substr(22));
            }
        }
        return messages;
    }

    // Whether `message` is one of the log entries so far.
    [[nodiscard]] bool logged(const std::string& message) const
    {
        const auto all = messages();
        return std::find(all.begin(), all.end(), message) != all.end();
    }
};

} // namespace quendral::test
