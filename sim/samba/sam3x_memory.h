#pragma once
// The memory an ATSAM3X8E shows its SAM-BA boot monitor: sparse SRAM and
// peripheral space, the chip identification, 512 KiB of flash in two banks
// behind two enhanced embedded flash controllers (EEFC), and the reset
// controller. Flash writes go to the bank's latch buffer and reach the flash
// with a write-page command, as on the chip.

#include <array>
#include <cstdint>
#include <map>
#include <optional>
#include <vector>

namespace quendral::sim {

class Sam3xMemory {
public:
    static constexpr uint32_t kFlashBase = 0x00080000;
    static constexpr uint32_t kFlashSize = 512 * 1024;
    static constexpr uint32_t kPageSize = 256;
    static constexpr uint32_t kBankSize = kFlashSize / 2;
    static constexpr uint32_t kChipIdAddress = 0x400E0940;
    static constexpr uint32_t kChipId = 0x285E0A60; // ATSAM3X8E
    static constexpr uint32_t kEefc0 = 0x400E0A00;
    static constexpr uint32_t kEefc1 = 0x400E0C00;
    static constexpr uint32_t kResetControl = 0x400E1A00;

    Sam3xMemory();

    uint8_t readByte(uint32_t addr);
    void writeByte(uint32_t addr, uint8_t value);
    uint32_t readWord(uint32_t addr);
    void writeWord(uint32_t addr, uint32_t value);

    const std::vector<uint8_t>& flash() const { return flash_; }
    std::vector<uint8_t>& flash() { return flash_; }
    bool gpnvm(unsigned bit) const { return (gpnvm_ >> bit) & 1u; }
    void setGpnvm(unsigned bit, bool on);
    bool bootFromFlash() const { return gpnvm(1); }

    // Set by a write to the reset controller with its key; cleared by the caller.
    bool takeResetRequest();
    bool resetPending() const { return resetRequested_; }

    // Failure mode: this flash offset never keeps the value a page write gives it.
    void setStuckByte(std::optional<uint32_t> flashOffset) { stuck_ = flashOffset; }
    unsigned pagesWritten() const { return pagesWritten_; }

private:
    struct Bank {
        uint32_t regs = 0;
        uint32_t flashOffset = 0;
        uint32_t mode = 0;
        uint32_t status = 1; // FRDY
        std::vector<uint32_t> results;
        size_t resultIndex = 0;
        std::array<uint8_t, kPageSize> latch{};
        uint16_t lockBits = 0; // 16 lock regions of 16 KiB
        bool uniqueIdMode = false;
    };

    Bank* bankOfRegister(uint32_t addr);
    Bank* bankOfFlash(uint32_t addr);
    uint32_t readRegister(Bank& bank, uint32_t offset);
    void writeRegister(Bank& bank, uint32_t offset, uint32_t value);
    void command(Bank& bank, uint8_t cmd, uint16_t arg);
    void writePage(Bank& bank, uint16_t page, bool erase);

    std::vector<uint8_t> flash_;
    std::array<Bank, 2> banks_;
    uint32_t gpnvm_ = 0;
    bool resetRequested_ = false;
    std::optional<uint32_t> stuck_;
    unsigned pagesWritten_ = 0;
    std::map<uint32_t, uint8_t> other_; // SRAM and anything else written
};

} // namespace quendral::sim
