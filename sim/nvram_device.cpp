#include "nvram_device.h"

#include <cerrno>
#include <climits>
#include <cstring>
#include <fcntl.h>
#include <stdexcept>
#include <sys/mman.h>
#include <sys/sysmacros.h>
#include <unistd.h>
#include <vector>

#include "md.h"
#include "module.h"
#include "nvram_state.h"

static int giDebug_nvram = 0;
#define TAV_DEBUG_FLAG giDebug_nvram
#include "driveutils/tavlog.h"

namespace sim {
namespace {

using namespace nvram;

constexpr unsigned long kGetInterruptStatus = 0x80044701;
constexpr unsigned long kGetDriverVersion = 0x80044705;
constexpr unsigned long kGetNumberOfDevices = 0x80044706;
constexpr unsigned long kSetInterruptMask = 0x40044707;
constexpr unsigned long kSetSetupBits = 0x40044708;
constexpr unsigned long kClearSetupBits = 0x40044709;
constexpr unsigned long kReadEeprom = 0x8004470b;
constexpr unsigned long kWriteEeprom = 0x4004470c;
constexpr int kEepromTimeout = 22;

constexpr off_t kMapRegisters = 0, kMapDescriptor = 4096, kMapHostPage = 8192;
constexpr size_t kMaxArea = 1 << 20;
constexpr uint32_t kBusBase = 0x40000000, kBusStride = 0x100000, kBusSlots = 1024;
constexpr uint32_t kPromVerifyFailed = 3;

struct EepromPair {
    uint32_t address;
    uint32_t value;
};

size_t pageRound(size_t n)
{
    const auto page = static_cast<size_t>(::sysconf(_SC_PAGESIZE));
    return (n + page - 1) / page * page;
}

void requireCard(bool present)
{
    if (!present) throw std::runtime_error("the module has no NVRAM card (" + std::string(kNvramNode) + ")");
}

} // namespace

// ---- the node ----

NvramDevice::~NvramDevice()
{
    for (const auto& [bus, a] : areas_) ::munmap(a.memory, a.mapped);
}

int NvramDevice::open(DeviceContext& ctx, OpenNode& n, int flags)
{
    if (n.vpath != kNvramNode || !nvramPresent(ctx.module)) return fail((flags & O_CREAT) ? EACCES : ENOENT);
    return memoryFile("tav_nvram", "");
}

ssize_t NvramDevice::read(DeviceContext&, OpenNode&, void*, size_t, uint64_t, bool) { return fail(EINVAL); }
ssize_t NvramDevice::write(DeviceContext&, OpenNode&, const void*, size_t, uint64_t, bool) { return fail(EINVAL); }
off_t NvramDevice::seek(DeviceContext&, OpenNode&, off_t, int) { return fail(ESPIPE); }

int NvramDevice::ioctl(DeviceContext& ctx, OpenNode&, unsigned long request, void* arg)
{
    switch (request) {
    case kGetInterruptStatus: case kGetDriverVersion: case kGetNumberOfDevices: case kSetInterruptMask:
    case kSetSetupBits: case kClearSetupBits: case kReadEeprom: case kWriteEeprom:
        break;
    default:
        return fail(EINVAL);
    }
    if (!arg) return fail(EFAULT);
    int result = 0;
    const bool present = visitCard(ctx.module, [&](NvramCard& c, Images& images) {
        uint32_t value = 0;
        std::memcpy(&value, arg, sizeof value);
        switch (request) {
        case kGetInterruptStatus:
            value = c.reg(kRegIntStatus);
            c.setReg(kRegIntStatus, 0);
            std::memcpy(arg, &value, sizeof value);
            return;
        case kGetDriverVersion:
            std::memcpy(arg, &c.driverVersion, sizeof value);
            return;
        case kGetNumberOfDevices:
            value = 1;
            std::memcpy(arg, &value, sizeof value);
            return;
        case kSetInterruptMask:
            c.setReg(kRegIntMask, value);
            return;
        case kSetSetupBits:
            setSetupBits(c, images, value);
            return;
        case kClearSetupBits:
            clearSetupBits(c, images, value);
            return;
        }
        EepromPair pair;
        std::memcpy(&pair, arg, sizeof pair);
        if (static_cast<int32_t>(pair.address) < 0 || pair.address % 4 || pair.address > kEeLastWord) {
            result = fail(EINVAL);
            return;
        }
        if (c.faults.eepromTimeout) {
            result = kEepromTimeout;
            return;
        }
        if (request == kReadEeprom) {
            pair.value = c.word(pair.address);
            std::memcpy(arg, &pair, sizeof pair);
        } else if (!c.faults.stuck.count(pair.address)) {
            // A word written takes fresh parity.
            c.setWord(pair.address, pair.value & ~kEeParity);
        }
    });
    return present ? result : fail(EIO);
}

int NvramDevice::fstat(DeviceContext& ctx, OpenNode& n, struct ::stat* st) { return stat(ctx, n.vpath, n.node, st); }

int NvramDevice::stat(DeviceContext& ctx, const std::string& vpath, const DeviceNode&, struct ::stat* st)
{
    if (vpath != kNvramNode || !nvramPresent(ctx.module)) return fail(ENOENT);
    nodeStat(ctx.module, S_IFCHR | 0660, gnu_dev_makedev(kNvramMajor, kNvramMinor), st);
    return 0;
}

void* NvramDevice::mapRegion(DeviceContext& ctx, OpenNode& n, size_t length, int prot, off_t offset)
{
    if (!nvramPresent(ctx.module)) {
        errno = ENODEV;
        return MAP_FAILED;
    }
    if (offset == kMapRegisters) {
        const bool writable = (prot & PROT_WRITE) != 0;
        if (length == 0 || length > kNvramRegisterBytes) {
            errno = EINVAL;
            return MAP_FAILED;
        }
        if (writable && n.accmode == O_RDONLY) {
            errno = EACCES;
            return MAP_FAILED;
        }
        const int fd = ctx.module.host().open(registersFile(), (writable ? O_RDWR : O_RDONLY) | O_CLOEXEC);
        if (fd < 0) return MAP_FAILED;
        void* p = ::mmap(nullptr, length, prot, MAP_SHARED, fd, 0);
        const int error = errno;
        ::close(fd);
        if (p == MAP_FAILED) errno = error;
        else registerMaps_[reinterpret_cast<uintptr_t>(p)] = writable;
        return p;
    }
    if (offset != kMapDescriptor && offset != kMapHostPage) {
        errno = EINVAL;
        return MAP_FAILED;
    }
    if (length == 0 || length > kMaxArea) {
        errno = length ? ENOMEM : EINVAL;
        return MAP_FAILED;
    }
    uint32_t slot = nextSlot_;
    for (uint32_t tries = 0; areas_.count(kBusBase + slot * kBusStride); slot = (slot + 1) % kBusSlots)
        if (++tries > kBusSlots) {
            errno = ENOMEM;
            return MAP_FAILED;
        }
    // Rotating slots: an address just released is not handed out again at
    // once, so that a stale one finds no memory.
    nextSlot_ = (slot + 1) % kBusSlots;
    Area a;
    a.length = std::max<size_t>(length, offset == kMapDescriptor ? 64 : 4);
    a.mapped = pageRound(a.length);
    void* p = ::mmap(nullptr, a.mapped, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (p == MAP_FAILED) return p;
    a.memory = static_cast<uint8_t*>(p);
    const uint32_t bus = kBusBase + slot * kBusStride;
    std::memcpy(a.memory, &bus, sizeof bus);
    areas_[bus] = a;
    areaBases_[reinterpret_cast<uintptr_t>(p)] = bus;
    return p;
}

int NvramDevice::unmapRegion(DeviceContext&, void* addr, size_t length)
{
    const auto base = reinterpret_cast<uintptr_t>(addr);
    if (auto it = areaBases_.find(base); it != areaBases_.end()) {
        const Area a = areas_[it->second];
        areas_.erase(it->second);
        areaBases_.erase(it);
        return ::munmap(addr, a.mapped);
    }
    registerMaps_.erase(base);
    return ::munmap(addr, length);
}

void NvramDevice::storeRegister(DeviceContext& ctx, void* base, size_t offset, uint32_t value)
{
    auto it = registerMaps_.find(reinterpret_cast<uintptr_t>(base));
    if (it == registerMaps_.end()) {
        DeviceModel::storeRegister(ctx, base, offset, value);
        return;
    }
    if (ctx.powerCut) return;
    if (!it->second || offset % 4 || offset >= kNvramRegisterBytes) {
        TAV_LOG(0, "tavsim: store of 0x%08x at 0x%zx of %s lost: %s %s:%d\n", value, offset, kNvramNode,
                it->second ? "not a register" : "the mapping is read-only", TAV_FILE, __LINE__);
        return;
    }
    const uint32_t reg = static_cast<uint32_t>(offset);
    visitCard(ctx.module, [&](NvramCard& c, Images& images) {
        if (reg == kRegFifo) pushDescriptor(c, images, *this, value);
        else c.setReg(reg, value);
    });
}

int NvramDevice::promDownload(DeviceContext& ctx, OpenNode&, const char* filename)
{
    int result = 1;
    visitCard(ctx.module, [&](NvramCard& c, Images&) {
        if (!(c.setup() & kSetupPromMode)) {
            result = kPromVerifyFailed;
            return;
        }
        const std::string file = filename;
        if (file.empty() || file[0] == '-' || !ctx.module.host().exists(file)) return;
        result = c.faults.prom;
        if (c.faults.promOnce) {
            c.faults.prom = 0;
            c.faults.promOnce = false;
        }
    });
    return result;
}

uint8_t* NvramDevice::find(uint64_t bus, uint64_t length)
{
    if (bus > UINT32_MAX) return nullptr;
    auto it = areas_.upper_bound(static_cast<uint32_t>(bus));
    if (it == areas_.begin()) return nullptr;
    --it;
    const uint64_t in = bus - it->first;
    if (in > it->second.length || length > it->second.length - in) return nullptr;
    return it->second.memory + in;
}

void addNvramModel(DeviceRegistry& registry) { registry.byPrefix(kNvramNode, std::make_shared<NvramDevice>()); }

// ---- the API ----

bool nvramPresent(Module& module) { return module.host().exists(Module::stateFile(kCardFile)); }

NvramCard nvramState(Module& module)
{
    NvramCard out;
    requireCard(visitCard(module, [&](NvramCard& c, Images&) { out = c; }));
    return out;
}

void nvramUpdate(Module& module, const std::function<void(NvramCard&)>& change)
{
    requireCard(visitCard(module, [&](NvramCard& c, Images&) {
        NvramCard x = c;
        change(x);
        x.geometry = c.geometry;
        x.badBlocks = c.badBlocks;
        const uint32_t before = faultBits(c.faults), after = faultBits(x.faults);
        uint32_t s = (x.setup() & ~(before & ~after)) | after;
        if (x.faults.halted) s &= ~kSetupRun;
        if (c.faults.transferHang && !x.faults.transferHang) {
            // The descriptors stuck in the FIFO are dropped.
            x.setReg(kRegFifoEntries, 0);
            if (!x.faults.fifoBusy) s &= ~kSetupFifoBusy;
        }
        x.setReg(kRegSetup, s);
        c = x;
    }));
}

std::string nvramAdd(Module& module, const NvramGeometry& geometry)
{
    if (std::string why = geometry.check(); !why.empty()) return why;
    Module::Lock lock(module);
    if (nvramPresent(module)) return "the module has an NVRAM card already";
    const HostDir& root = module.host();
    const std::string dir = Module::stateFile(kDir);
    if (!root.makeDirs(dir)) return "cannot make " + dir;
    const NvramCard card = freshCard(geometry);
    auto image = [&](const std::string& rel, uint64_t bytes, const void* data) {
        const int fd = root.open(rel, O_RDWR | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
        if (fd < 0) return false;
        bool ok = ::ftruncate(fd, static_cast<off_t>(bytes)) == 0;
        if (ok && data) ok = ::pwrite(fd, data, bytes, 0) == static_cast<ssize_t>(bytes);
        ::close(fd);
        return ok;
    };
    unsigned char regs[kNvramRegisterBytes];
    std::memcpy(regs, card.regs, sizeof regs);
    if (!image(registersFile(), sizeof regs, regs) || !image(sdramFile(), geometry.sdramBytes(), nullptr) ||
        !image(flashFile(), geometry.flashBytes(), nullptr))
        return "cannot write the NVRAM card's images";
    // The card file last: its presence is the card's.
    if (!root.writeFileAtomic(Module::stateFile(kCardFile), formatCard(card))) return "cannot write the NVRAM card's state";
    return "";
}

uint8_t nvramPatternByte(uint32_t seed, uint32_t page, uint32_t offset)
{
    uint32_t x = seed * 0x9e3779b1u ^ page * 0x85ebca77u ^ offset * 0xc2b2ae3du;
    x ^= x >> 15;
    x *= 0x2c1b3c6du;
    x ^= x >> 12;
    x *= 0x297a2d39u;
    x ^= x >> 15;
    return static_cast<uint8_t>(x);
}

void nvramFill(Module& module, uint32_t seed, std::optional<uint8_t> byte)
{
    requireCard(visitCard(module, [&](NvramCard& c, Images& images) {
        const NvramGeometry& g = c.geometry;
        std::vector<uint8_t> page(g.sdramPageSize, byte.value_or(0));
        for (uint32_t p = 0; p < g.sdramPages; ++p) {
            if (!byte)
                for (uint32_t i = 0; i < g.sdramPageSize; ++i) page[i] = nvramPatternByte(seed, p, i);
            images.write(false, uint64_t{p} * g.sdramPageSize, page.data(), page.size());
        }
        c.setWord(kEeValidity, kValidityInvalid);
        c.setReg(kRegSetup, c.setup() | kSetupSdramValid | kSetupRefreshing | kSetupCleared);
    }));
}

uint32_t nvramPowerFail(Module& module)
{
    uint32_t flags = 0;
    requireCard(visitCard(module, [&](NvramCard& c, Images& images) { flags = powerFail(c, images, false); }));
    return flags;
}

void nvramPowerCycle(Module& module)
{
    requireCard(visitCard(module, [&](NvramCard& c, Images& images) { powerCycle(c, images); }));
}

void nvramBadBlock(Module& module, uint32_t block)
{
    requireCard(visitCard(module, [&](NvramCard& c, Images& images) {
        if (block >= c.geometry.flashBlocks())
            throw std::out_of_range("block " + std::to_string(block) + ": the flash has blocks 0 to " +
                                    std::to_string(c.geometry.flashBlocks() - 1));
        markBlockBad(c, images, block);
    }));
}

namespace {

std::vector<uint8_t> readPage(Module& module, bool flash, uint32_t page)
{
    std::vector<uint8_t> out;
    requireCard(visitCard(module, [&](NvramCard& c, Images& images) {
        const NvramGeometry& g = c.geometry;
        const uint32_t pages = flash ? g.flashPages : g.sdramPages, size = flash ? g.flashPageSize : g.sdramPageSize;
        if (page >= pages)
            throw std::out_of_range("page " + std::to_string(page) + ": give 0 to " + std::to_string(pages - 1));
        out.resize(size);
        images.read(flash, uint64_t{page} * size, out.data(), size);
    }));
    return out;
}

void checkAddress(uint32_t address)
{
    if (address % 4 || address > kEeLastWord)
        throw std::out_of_range("EEPROM address " + std::to_string(address) + ": give a multiple of 4 from 0 to 508");
}

} // namespace

std::vector<uint8_t> nvramSdramPage(Module& module, uint32_t page) { return readPage(module, false, page); }
std::vector<uint8_t> nvramFlashPage(Module& module, uint32_t page) { return readPage(module, true, page); }

void nvramWriteFlash(Module& module, uint32_t page, uint32_t offset, const std::vector<uint8_t>& bytes)
{
    requireCard(visitCard(module, [&](NvramCard& c, Images& images) {
        const NvramGeometry& g = c.geometry;
        if (page >= g.flashPages || offset > g.flashPageSize || bytes.size() > g.flashPageSize - offset)
            throw std::out_of_range("flash page " + std::to_string(page) + " offset " + std::to_string(offset) +
                                    ": outside the flash");
        images.write(true, uint64_t{page} * g.flashPageSize + offset, bytes.data(), bytes.size());
    }));
}

uint32_t nvramEeprom(Module& module, uint32_t address)
{
    checkAddress(address);
    return nvramState(module).word(address);
}

void nvramSetEeprom(Module& module, uint32_t address, uint32_t value)
{
    checkAddress(address);
    nvramUpdate(module, [&](NvramCard& c) { c.setWord(address, value); });
}

} // namespace sim
