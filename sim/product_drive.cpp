#include "product_drive.h"

#include <cstdint>
#include <cstring>
#include <nettle/md2.h>

#include "module.h"

namespace sim {
namespace {

constexpr size_t kSector = 512;
constexpr size_t kHashBytes = 16;
constexpr uint64_t kSecondCopy = 524288;

// Offsets in the index sector and in a position record.
constexpr size_t kDiskTables = 16, kDeviceTables = 20, kStringTables = 24, kIndexSerial = 28;
constexpr size_t kRecordSerial = 168;
constexpr size_t kSerialBytes = 64;

void put32(std::string& s, size_t at, uint32_t v)
{
    for (int i = 0; i < 4; ++i) s[at + i] = static_cast<char>(v >> (8 * i));
}

void hash(std::string& sector)
{
    md2_ctx ctx;
    md2_init(&ctx);
    md2_update(&ctx, kSector - kHashBytes, reinterpret_cast<const uint8_t*>(sector.data()) + kHashBytes);
    md2_digest(&ctx, kHashBytes, reinterpret_cast<uint8_t*>(sector.data()));
}

} // namespace

std::string newProductSignature(const std::string& serial)
{
    const std::string text = serial.substr(0, kSerialBytes - 1);
    std::string index(kSector, '\0'), record(kSector, '\0');
    put32(index, kDiskTables, 1);
    put32(index, kDeviceTables, 1);
    put32(index, kStringTables, 1);
    std::memcpy(index.data() + kIndexSerial, text.data(), text.size());
    hash(index);
    // No owner (module serial number) and order 0 mark a drive no module has taken.
    std::memcpy(record.data() + kRecordSerial, text.data(), text.size());
    hash(record);
    return index + record + std::string(2 * kSector, '\0');
}

std::string signAsNewProduct(Module& module, int bay)
{
    const Manifest m = module.manifest();
    const Bay* b = m.bay(bay);
    const Drive* d = m.driveInBay(bay);
    if (!b || !d) return "bay " + std::to_string(bay) + ": empty";
    const std::string part1 = b->device.substr(0, b->device.rfind('/')) + "/part1";
    bool present = false;
    const std::optional<DeviceNode> node = module.device(part1, present);
    if (!node || !present || node->size < kSecondCopy + 4 * kSector)
        return "bay " + std::to_string(bay) + ": no signature partition to write";
    const std::string block = newProductSignature(d->serial);
    for (uint64_t at : {uint64_t{0}, kSecondCopy})
        if (std::string err = module.overwrite(part1, at, block); !err.empty()) return err;
    return "";
}

} // namespace sim
