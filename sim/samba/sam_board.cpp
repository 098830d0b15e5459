#include "sam_board.h"

#include "baud_touch.h"
#include "controller_protocol.h"
#include "intel_hex.h"
#include "sam3x_memory.h"
#include "samba_monitor.h"
#include "serial_link.h"
#include "stop_worker.h"

#include <chrono>
#include <cstdio>
#include <cstring>

namespace quendral::sim {

struct SamBoard::State {
    Sam3xMemory memory;
    SambaMonitor monitor{memory};
    std::unique_ptr<SerialLink> link;
    int pendingFd = -1;
    std::string pendingPath;
    bool attachPending = false;
    ModeObserver observer;
    LineFilter lineFilter;
    std::optional<ControllerIdentity> identity;
    std::string line; // the application's current input line
    // The running firmware's answers; its settings live in the Controller's
    // EEPROM and survive resets.
    ControllerProtocol protocol;
    // What the firmware says to a new session, once the host's terminal has
    // settled (data sent the instant a port opens can meet it still echoing).
    std::string greeting;
    std::chrono::steady_clock::time_point greetAt;
    unsigned lastBaud = 0;
    BaudTouchDetector touch;
};

namespace {

constexpr auto kSettleAfterOpen = std::chrono::milliseconds(50);

// A Controller's firmware goes on talking after an answer (status lines); one
// line feed stands for that here, so that a host which takes a line only once
// a further byte has come takes the answer at once. The identification
// answers are asked again every second and keep the timing the update road
// was measured with.
std::string trailerAfter(const std::string& command)
{
    return command == "getCID" || command == "getVersion" ? std::string() : std::string("\n");
}

} // namespace

SamBoard::SamBoard(SamBoardOptions options) : options_(std::move(options)), state_(std::make_unique<State>())
{
    // An owner trying the serial monitor's service buttons sees a reply.
    state_->protocol.serviceAnswers = true;
}

SamBoard::~SamBoard()
{
    stop();
}

bool SamBoard::start(int fd, const std::string& peerPath)
{
    Sam3xMemory& mem = state_->memory;
    if (!options_.flashFile.empty()) {
        if (auto saved = readFile(options_.flashFile)) {
            std::memcpy(mem.flash().data(), saved->data(), std::min<size_t>(saved->size(), mem.flash().size()));
        }
    }
    if (!options_.initialImage.empty()) {
        auto image = readFile(options_.initialImage);
        if (!image || image->size() > mem.flash().size()) {
            error_ = "cannot use image " + options_.initialImage;
            return false;
        }
        std::copy(image->begin(), image->end(), mem.flash().begin());
    }
    if (options_.stuckFlashByte && *options_.stuckFlashByte >= Sam3xMemory::kFlashSize) {
        error_ = "stuck flash byte outside the flash";
        return false;
    }
    mem.setStuckByte(options_.stuckFlashByte);
    mem.setGpnvm(1, options_.bootFromFlash || mem.gpnvm(1));
    state_->monitor.setVerbose(options_.verbose);
    state_->link = std::make_unique<SerialLink>(fd, peerPath);
    state_->lastBaud = state_->link->baud();
    {
        std::lock_guard lock(mutex_);
        reboot();
        resets_ = 0; // power-on is not counted
    }
    stop_ = false;
    thread_ = std::thread([this] { run(); });
    return true;
}

void SamBoard::stop()
{
    if (stopWorker(stop_, thread_, [this] { wake(); }) && !options_.flashFile.empty()) {
        saveFlash(options_.flashFile);
    }
}

void SamBoard::attach(int fd, const std::string& peerPath)
{
    std::lock_guard lock(mutex_);
    state_->pendingFd = fd;
    state_->pendingPath = peerPath;
    state_->attachPending = true;
    if (state_->link) {
        state_->link->wake();
    }
}

void SamBoard::setModeObserver(ModeObserver observer)
{
    std::lock_guard lock(mutex_);
    state_->observer = std::move(observer);
}

void SamBoard::setLineFilter(LineFilter filter)
{
    std::lock_guard lock(mutex_);
    state_->lineFilter = std::move(filter);
}

void SamBoard::wake()
{
    // attach() replaces the link on the board's thread under the mutex.
    std::lock_guard lock(mutex_);
    if (state_->link) {
        state_->link->wake();
    }
}

void SamBoard::resetNow()
{
    resetRequested_ = true;
    wake();
}

void SamBoard::touch1200()
{
    touchRequested_ = true;
    wake();
}

std::optional<ControllerIdentity> SamBoard::identity() const
{
    std::lock_guard lock(mutex_);
    return mode_ == SamMode::Application ? state_->identity : std::nullopt;
}

bool SamBoard::bootFromFlash() const
{
    std::lock_guard lock(mutex_);
    return state_->memory.bootFromFlash();
}

std::vector<uint8_t> SamBoard::flash() const
{
    std::lock_guard lock(mutex_);
    return state_->memory.flash();
}

bool SamBoard::saveFlash(const std::string& path) const
{
    return writeFile(path, flash());
}

// With the mutex held.
void SamBoard::reboot()
{
    State& s = *state_;
    s.monitor.restart();
    s.line.clear();
    if (s.link) {
        s.link->input().clear();
    }
    s.greeting.clear();
    if (s.memory.bootFromFlash()) {
        mode_ = SamMode::Application;
        s.identity = findIdentity(s.memory.flash());
        if (s.identity) {
            s.protocol.cid = s.identity->cid;
            s.protocol.version = s.identity->version;
        }
    } else {
        mode_ = SamMode::BootLoader;
        s.identity.reset();
    }
    ++resets_;
    if (options_.verbose) {
        std::fprintf(stderr, "samba: reset into %s%s\n", mode_ == SamMode::BootLoader ? "SAM-BA" : "the application",
                     s.identity ? (" as " + s.identity->cid + " " + s.identity->version).c_str() : "");
    }
    if (!options_.flashFile.empty()) {
        writeFile(options_.flashFile, s.memory.flash());
    }
}

void SamBoard::serveApplication()
{
    State& s = *state_;
    auto& in = s.link->input();
    while (!in.empty()) {
        char c = static_cast<char>(in.front());
        in.pop_front();
        if (c != '\n') {
            if (s.line.size() < 256) {
                s.line += c;
            }
            continue;
        }
        if (s.lineFilter && !s.lineFilter(s.line)) {
            s.line.clear();
            continue;
        }
        if (s.identity) {
            if (const std::string answer = s.protocol.answer(s.line); !answer.empty()) {
                s.link->send(answer + trailerAfter(s.line));
            }
        }
        s.line.clear();
    }
    if (!s.greeting.empty() && std::chrono::steady_clock::now() >= s.greetAt) {
        s.link->send(s.greeting);
        s.greeting.clear();
    }
}

void SamBoard::run()
{
    State& s = *state_;
    while (!stop_) {
        s.link->pump(50);
        std::unique_lock lock(mutex_);
        unsigned resetsBefore = resets_;
        if (s.attachPending) {
            s.attachPending = false;
            s.link = std::make_unique<SerialLink>(s.pendingFd, s.pendingPath);
            s.lastBaud = s.link->baud();
        }
        SerialLink& link = *s.link;
        unsigned closes = link.takeCloses();
        if (link.takeOpens() > 0 && mode_ == SamMode::Application && s.identity) {
            s.greeting = s.protocol.portOpened();
            if (!s.greeting.empty()) {
                s.greeting += trailerAfter("config");
            }
            s.greetAt = std::chrono::steady_clock::now() + kSettleAfterOpen;
        }
        unsigned baud = link.baud();
        bool touched = touchRequested_.exchange(false);
        // The host closed the line since the last look, or opened it, changed
        // its speed and closed it again between two looks.
        const bool hostClosed = closes > 0 || (!link.peerOpen() && s.lastBaud != baud);
        if (mode_ == SamMode::Application && hostClosed && s.touch.hostClosed(baud)) {
            touched = true;
        }
        s.lastBaud = baud;
        if (touched && mode_ == SamMode::Application) {
            s.memory.setGpnvm(1, false);
            reboot();
        } else if (resetRequested_.exchange(false)) {
            reboot();
        }
        if (options_.mute || silenced_) {
            link.input().clear();
        } else if (mode_ == SamMode::BootLoader) {
            std::vector<uint8_t> in(link.input().begin(), link.input().end());
            link.input().clear();
            std::vector<uint8_t> out;
            s.monitor.feed(in.data(), in.size(), out);
            link.send(out.data(), out.size());
            if (s.memory.takeResetRequest()) {
                reboot();
            }
        } else {
            serveApplication();
        }
        ModeObserver observer = s.observer;
        bool changed = resets_ != resetsBefore;
        SamMode now = mode_;
        lock.unlock();
        if (changed && observer) {
            observer(now);
        }
    }
}

} // namespace quendral::sim
