#include "avr_board.h"

#include "intel_hex.h"
#include "serial_link.h"
#include "stop_worker.h"

#include <avr_ioport.h>
#include <avr_uart.h>
#include <sim_avr.h>
#include <sim_hex.h>
#include <sim_io.h>
#include <sim_irq.h>
#include <sim_regbit.h>

#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#ifndef QUENDRAL_SIM_STK500V2_2560_HEX
#define QUENDRAL_SIM_STK500V2_2560_HEX ""
#endif
#ifndef QUENDRAL_SIM_OPTIBOOT_1284P_HEX
#define QUENDRAL_SIM_OPTIBOOT_1284P_HEX ""
#endif

namespace quendral::sim {

namespace {

std::atomic<bool> g_verboseSimavr{false};

void simavrLogger(avr_t*, const int level, const char* format, va_list ap)
{
    if (level <= LOG_ERROR || g_verboseSimavr.load()) {
        std::vfprintf(stderr, format, ap);
    }
}

constexpr uint32_t kFrequency = 16000000;

} // namespace

struct AvrBoard::Core {
    avr_t* avr = nullptr;
    std::unique_ptr<SerialLink> link;
    avr_irq_t* uartInput = nullptr;
    bool xon = true;
    uint8_t stuckLastSeen = 0;

    void feedUart()
    {
        auto& in = link->input();
        while (xon && !in.empty()) {
            uint8_t b = in.front();
            in.pop_front();
            avr_raise_irq(uartInput, b);
        }
    }

    static void onOutput(avr_irq_t*, uint32_t value, void* param)
    {
        auto* self = static_cast<Core*>(param);
        uint8_t b = static_cast<uint8_t>(value);
        self->link->send(&b, 1);
    }
    static void onXon(avr_irq_t*, uint32_t, void* param)
    {
        auto* self = static_cast<Core*>(param);
        self->xon = true;
        self->feedUart();
    }
    static void onXoff(avr_irq_t*, uint32_t, void* param) { static_cast<Core*>(param)->xon = false; }
    // The idle wait belongs to the pacing loop, not to simavr's usleep.
    static void noSleep(avr_t*, avr_cycle_count_t) {}
};

const char* AvrBoard::mcuName(AvrBoardKind kind)
{
    return kind == AvrBoardKind::Mega2560 ? "atmega2560" : "atmega1284p";
}

std::string AvrBoard::defaultBootLoader(AvrBoardKind kind)
{
    return kind == AvrBoardKind::Mega2560 ? QUENDRAL_SIM_STK500V2_2560_HEX : QUENDRAL_SIM_OPTIBOOT_1284P_HEX;
}

AvrBoard::AvrBoard(AvrBoardOptions options) : options_(std::move(options)), core_(std::make_unique<Core>())
{
    if (options_.bootLoaderHex.empty()) {
        options_.bootLoaderHex = defaultBootLoader(options_.kind);
    }
}

AvrBoard::~AvrBoard()
{
    stop();
    if (core_->avr) {
        avr_terminate(core_->avr);
        std::free(core_->avr);
    }
}

uint32_t AvrBoard::flashSize() const
{
    return core_->avr ? core_->avr->flashend + 1 : 0;
}

std::vector<uint8_t> AvrBoard::flash() const
{
    std::lock_guard lock(mutex_);
    if (!core_->avr) {
        return {};
    }
    return std::vector<uint8_t>(core_->avr->flash, core_->avr->flash + core_->avr->flashend + 1);
}

bool AvrBoard::saveFlash(const std::string& path) const
{
    return writeFile(path, flash());
}

void AvrBoard::resetNow()
{
    resetRequested_ = true;
    if (core_->link) {
        core_->link->wake();
    }
}

bool AvrBoard::start(int fd, const std::string& peerPath)
{
    g_verboseSimavr = options_.verbose;
    avr_global_logger_set(simavrLogger);

    avr_t* avr = avr_make_mcu_by_name(mcuName(options_.kind));
    if (!avr) {
        error_ = std::string("simavr knows no ") + mcuName(options_.kind);
        return false;
    }
    avr_init(avr);
    avr->frequency = kFrequency;
    avr->log = options_.verbose ? LOG_TRACE : LOG_ERROR;
    avr->sleep = Core::noSleep;
    avr->codeend = avr->flashend;
    core_->avr = avr;

    if (!options_.flashFile.empty()) {
        if (auto saved = readFile(options_.flashFile)) {
            std::memcpy(avr->flash, saved->data(), std::min<size_t>(saved->size(), avr->flashend + 1));
        }
    }
    if (!options_.programHex.empty()) {
        auto program = readIntelHexFile(options_.programHex);
        if (!program) {
            error_ = "cannot read " + options_.programHex;
            return false;
        }
        for (auto [addr, byte] : *program) {
            if (addr <= avr->flashend) {
                avr->flash[addr] = byte;
            }
        }
    }
    // The boot loader goes in last: it lives in the protected boot section.
    ihex_chunk_p chunks = nullptr;
    int count = read_ihex_chunks(options_.bootLoaderHex.c_str(), &chunks);
    if (count <= 0) {
        error_ = "cannot read boot loader " + options_.bootLoaderHex;
        return false;
    }
    uint32_t bootStart = avr->flashend;
    for (int i = 0; i < count; ++i) {
        // The version word optiboot keeps at the very end is data, not the start.
        if (chunks[i].size > 2) {
            bootStart = std::min(bootStart, chunks[i].baseaddr);
        }
        avr_loadcode(avr, chunks[i].data, chunks[i].size, chunks[i].baseaddr);
    }
    free_ihex_chunks(chunks); // frees the chunks' data, not the array
    std::free(chunks);
    avr->reset_pc = bootStart; // BOOTRST programmed, as on the real boards
    bootStart_ = bootStart;
    avr->pc = bootStart;

    uint32_t flags = 0;
    avr_ioctl(avr, AVR_IOCTL_UART_GET_FLAGS('0'), &flags);
    flags &= ~(AVR_UART_FLAG_POLL_SLEEP | AVR_UART_FLAG_STDIO);
    avr_ioctl(avr, AVR_IOCTL_UART_SET_FLAGS('0'), &flags);

    core_->link = std::make_unique<SerialLink>(fd, peerPath);
    core_->uartInput = avr_io_getirq(avr, AVR_IOCTL_UART_GETIRQ('0'), UART_IRQ_INPUT);
    avr_irq_register_notify(avr_io_getirq(avr, AVR_IOCTL_UART_GETIRQ('0'), UART_IRQ_OUTPUT), Core::onOutput,
                            core_.get());
    avr_irq_register_notify(avr_io_getirq(avr, AVR_IOCTL_UART_GETIRQ('0'), UART_IRQ_OUT_XON), Core::onXon, core_.get());
    avr_irq_register_notify(avr_io_getirq(avr, AVR_IOCTL_UART_GETIRQ('0'), UART_IRQ_OUT_XOFF), Core::onXoff,
                            core_.get());
    if (options_.stuckFlashByte && *options_.stuckFlashByte > avr->flashend) {
        error_ = "stuck flash byte outside the flash";
        return false;
    }
    if (options_.stuckFlashByte) {
        core_->stuckLastSeen = avr->flash[*options_.stuckFlashByte];
    }
    if (options_.bootIntoBootLoader) {
        resetRequested_ = true;
    }
    stop_ = false;
    thread_ = std::thread([this] { run(); });
    return true;
}

void AvrBoard::stop()
{
    if (stopWorker(stop_, thread_, [this] { core_->link->wake(); }) && !options_.flashFile.empty()) {
        saveFlash(options_.flashFile);
    }
}

void AvrBoard::run()
{
    using Clock = std::chrono::steady_clock;
    avr_t* avr = core_->avr;
    SerialLink& link = *core_->link;
    // At most this much simulated time is made up after the thread was held up;
    // more would shrink the boot loader's wait window as running unpaced does.
    const avr_cycle_count_t maxLag = kFrequency / 50;
    auto t0 = Clock::now();
    avr_cycle_count_t cycle0 = avr->cycle;

    while (!stop_) {
        link.pump(1);
        std::unique_lock lock(mutex_);
        unsigned opens = link.takeOpens();
        unsigned closes = link.takeCloses();
        if (options_.mute) {
            link.input().clear();
        }
        if ((opens > 0 && options_.resetOnOpen) || resetRequested_.exchange(false)) {
            avr_reset(avr);
            // Only the reset pin's flag: optiboot leaves for the application otherwise.
            avr->data[avr->reset_flags.extrf.reg] = 0;
            avr_regbit_set(avr, avr->reset_flags.extrf);
            core_->xon = true;
            inApplication_ = false; // before the count: a reader of both sees the boot loader
            ++resets_;
        }
        core_->feedUart();

        auto elapsed = std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now() - t0).count();
        avr_cycle_count_t target = cycle0 + static_cast<avr_cycle_count_t>(elapsed) * kFrequency / 1000000000ull;
        if (target > avr->cycle + maxLag) {
            cycle0 -= target - (avr->cycle + maxLag);
            target = avr->cycle + maxLag;
        }
        while (avr->cycle < target) {
            int state = avr_run(avr);
            if (state == cpu_Done || state == cpu_Crashed) {
                std::fprintf(stderr, "quendral-avr-sim: core stopped (state %d) at pc 0x%x; power-on reset\n", state,
                             avr->pc);
                avr_reset(avr);
                break;
            }
        }
        inApplication_ = avr->pc < bootStart_;
        if (options_.stuckFlashByte) {
            uint8_t& b = avr->flash[*options_.stuckFlashByte];
            if (b != core_->stuckLastSeen) {
                b ^= 0x01; // the cell never keeps what was programmed
                core_->stuckLastSeen = b;
            }
        }
        lock.unlock();
        if (closes > 0 && !options_.flashFile.empty()) {
            saveFlash(options_.flashFile);
        }
    }
}

} // namespace quendral::sim
