#include "sam3x_memory.h"

#include <algorithm>

namespace quendral::sim {

namespace {

constexpr uint32_t kKey = 0x5A;
constexpr uint32_t kFrdy = 1u << 0;
constexpr uint32_t kFcmde = 1u << 1;
constexpr uint32_t kFlocke = 1u << 2;
constexpr uint32_t kCpuId = 0x412FC230; // Cortex-M3 r2p0
constexpr uint32_t kLockRegionSize = 16 * 1024;
// A fixed 128-bit unique identifier: the same chip on every run.
constexpr uint8_t kUniqueId[16] = {'Q',  'S',  'I',  'M',  0x33, 0x58, 0x38, 0x45,
                                   0x10, 0x32, 0x54, 0x76, 0x98, 0xba, 0xdc, 0xfe};

} // namespace

Sam3xMemory::Sam3xMemory() : flash_(kFlashSize, 0xff)
{
    for (unsigned i = 0; i < banks_.size(); ++i) {
        banks_[i].regs = i == 0 ? kEefc0 : kEefc1;
        banks_[i].flashOffset = i * kBankSize;
        banks_[i].latch.fill(0xff);
    }
    // The boot ROM's vector table at 0 (initial stack pointer, reset handler).
    writeWord(0x00000000, 0x20001000);
    writeWord(0x00000004, 0x00100011);
    writeWord(0xE000ED00, kCpuId);
    writeWord(kChipIdAddress, kChipId);
    writeWord(kChipIdAddress + 4, 0); // CHIPID_EXID
}

Sam3xMemory::Bank* Sam3xMemory::bankOfRegister(uint32_t addr)
{
    for (auto& b : banks_) {
        if (addr >= b.regs && addr < b.regs + 0x10) {
            return &b;
        }
    }
    return nullptr;
}

Sam3xMemory::Bank* Sam3xMemory::bankOfFlash(uint32_t addr)
{
    if (addr < kFlashBase || addr >= kFlashBase + kFlashSize) {
        return nullptr;
    }
    return &banks_[(addr - kFlashBase) / kBankSize];
}

void Sam3xMemory::setGpnvm(unsigned bit, bool on)
{
    if (on) {
        gpnvm_ |= 1u << bit;
    } else {
        gpnvm_ &= ~(1u << bit);
    }
}

bool Sam3xMemory::takeResetRequest()
{
    bool r = resetRequested_;
    resetRequested_ = false;
    return r;
}

uint8_t Sam3xMemory::readByte(uint32_t addr)
{
    if (Bank* bank = bankOfRegister(addr & ~3u)) {
        return static_cast<uint8_t>(readRegister(*bank, (addr & ~3u) - bank->regs) >> (8 * (addr & 3)));
    }
    if (Bank* bank = bankOfFlash(addr)) {
        uint32_t offset = addr - kFlashBase;
        if (bank->uniqueIdMode && offset - bank->flashOffset < sizeof kUniqueId) {
            return kUniqueId[offset - bank->flashOffset];
        }
        return flash_[offset];
    }
    auto it = other_.find(addr);
    return it == other_.end() ? 0 : it->second;
}

void Sam3xMemory::writeByte(uint32_t addr, uint8_t value)
{
    if (bankOfRegister(addr & ~3u) || addr - kResetControl < 4) {
        // Peripheral registers take whole words only; keep the byte lanes consistent.
        uint32_t word = readWord(addr & ~3u);
        unsigned shift = 8 * (addr & 3);
        word = (word & ~(0xffu << shift)) | (uint32_t{value} << shift);
        writeWord(addr & ~3u, word);
        return;
    }
    if (Bank* bank = bankOfFlash(addr)) {
        bank->latch[(addr - kFlashBase) % kPageSize] = value;
        return;
    }
    other_[addr] = value;
}

uint32_t Sam3xMemory::readWord(uint32_t addr)
{
    if (Bank* bank = bankOfRegister(addr)) {
        return readRegister(*bank, addr - bank->regs);
    }
    uint32_t v = 0;
    for (unsigned i = 0; i < 4; ++i) {
        v |= uint32_t{readByte(addr + i)} << (8 * i);
    }
    return v;
}

void Sam3xMemory::writeWord(uint32_t addr, uint32_t value)
{
    if (Bank* bank = bankOfRegister(addr)) {
        writeRegister(*bank, addr - bank->regs, value);
        return;
    }
    if (addr == kResetControl) {
        if ((value >> 24) == 0xA5 && (value & 1u)) { // key, PROCRST
            resetRequested_ = true;
        }
        return;
    }
    for (unsigned i = 0; i < 4; ++i) {
        writeByte(addr + i, static_cast<uint8_t>(value >> (8 * i)));
    }
}

uint32_t Sam3xMemory::readRegister(Bank& bank, uint32_t offset)
{
    switch (offset) {
    case 0x0:
        return bank.mode;
    case 0x8: {
        uint32_t s = bank.status;
        bank.status &= ~(kFcmde | kFlocke); // error flags clear when read
        return s;
    }
    case 0xC:
        if (bank.resultIndex < bank.results.size()) {
            return bank.results[bank.resultIndex++];
        }
        return 0;
    default: // FCR is write-only
        return 0;
    }
}

void Sam3xMemory::writeRegister(Bank& bank, uint32_t offset, uint32_t value)
{
    if (offset == 0x0) {
        bank.mode = value;
    } else if (offset == 0x4) {
        if ((value >> 24) != kKey) {
            bank.status |= kFcmde;
            return;
        }
        command(bank, static_cast<uint8_t>(value), static_cast<uint16_t>(value >> 8));
    }
}

void Sam3xMemory::writePage(Bank& bank, uint16_t page, bool erase)
{
    uint32_t start = bank.flashOffset + uint32_t{page} * kPageSize;
    if (bank.lockBits & (1u << ((uint32_t{page} * kPageSize) / kLockRegionSize))) {
        bank.status |= kFlocke;
        return;
    }
    for (uint32_t i = 0; i < kPageSize; ++i) {
        uint8_t& cell = flash_[start + i];
        // Without erase, programming can only clear bits.
        cell = erase ? bank.latch[i] : static_cast<uint8_t>(cell & bank.latch[i]);
        if (stuck_ && *stuck_ == start + i) {
            cell ^= 0x01;
        }
    }
    bank.latch.fill(0xff);
    ++pagesWritten_;
}

void Sam3xMemory::command(Bank& bank, uint8_t cmd, uint16_t arg)
{
    bank.results.clear();
    bank.resultIndex = 0;
    const uint32_t pages = kBankSize / kPageSize;
    switch (cmd) {
    case 0x00: // GETD: flash descriptor
        bank.results = {kChipId, kBankSize, kPageSize, 1, kBankSize, kBankSize / kLockRegionSize};
        for (uint32_t i = 0; i < kBankSize / kLockRegionSize; ++i) {
            bank.results.push_back(kLockRegionSize);
        }
        break;
    case 0x01: // WP
    case 0x02: // WPL
    case 0x03: // EWP
    case 0x04: // EWPL
        if (arg >= pages) {
            bank.status |= kFcmde;
            break;
        }
        writePage(bank, arg, cmd == 0x03 || cmd == 0x04);
        if (cmd == 0x02 || cmd == 0x04) {
            bank.lockBits |= static_cast<uint16_t>(1u << ((uint32_t{arg} * kPageSize) / kLockRegionSize));
        }
        break;
    case 0x05: // EA: erase the whole bank
        if (bank.lockBits != 0) {
            bank.status |= kFlocke;
            break;
        }
        std::fill(flash_.begin() + bank.flashOffset, flash_.begin() + bank.flashOffset + kBankSize, 0xff);
        break;
    case 0x08: // SLB
    case 0x09: // CLB
    {
        if (arg >= pages) {
            bank.status |= kFcmde;
            break;
        }
        uint16_t bit = static_cast<uint16_t>(1u << ((uint32_t{arg} * kPageSize) / kLockRegionSize));
        bank.lockBits =
            cmd == 0x08 ? static_cast<uint16_t>(bank.lockBits | bit) : static_cast<uint16_t>(bank.lockBits & ~bit);
        break;
    }
    case 0x0A: // GLB
        bank.results = {bank.lockBits};
        break;
    case 0x0B: // SGPB
    case 0x0C: // CGPB
        if (&bank != &banks_[0] || arg > 2) {
            bank.status |= kFcmde;
            break;
        }
        setGpnvm(arg, cmd == 0x0B);
        break;
    case 0x0D: // GGPB
        bank.results = {gpnvm_};
        break;
    case 0x0E: // STUI
        bank.uniqueIdMode = true;
        break;
    case 0x0F: // SPUI
        bank.uniqueIdMode = false;
        break;
    default:
        bank.status |= kFcmde;
        break;
    }
}

} // namespace quendral::sim
