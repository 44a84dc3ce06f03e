// ATA identify data of a simulated drive, and the HDIO_DRIVE_CMD requests.
#pragma once

#include <array>
#include <cstdint>
#include <string>

#include "manifest.h"

namespace sim {

using IdentifyBlock = std::array<unsigned char, 512>;

// How the strings (serial, firmware, model) stand in the block.
enum class IdentifyForm {
    Raw,          // as the drive sends them: ATA order, two characters a word swapped, blank-padded
    KernelFixed,  // as HDIO_GET_IDENTITY gives them: readable, blanks trimmed and squeezed, NUL-padded
};

IdentifyBlock identifyData(const Drive& drive, IdentifyForm form);

// An HDIO_DRIVE_CMD request on `args` (4 bytes, then 512 of data for identify).
// Changes the drive's recorded state; returns 0 or an errno, and a note for
// the ATA log in `note`.
int driveCommand(Drive& drive, unsigned char* args, std::string& note);

// ATA command and feature codes the simulation knows.
constexpr unsigned char kAtaIdentify = 0xEC;
constexpr unsigned char kAtaSetFeatures = 0xEF;
constexpr unsigned char kAtaFlushCache = 0xE7;
constexpr unsigned char kAtaFlushCacheExt = 0xEA;
constexpr unsigned char kFeatureWriteCacheOn = 0x02;
constexpr unsigned char kFeatureWriteCacheOff = 0x82;
constexpr unsigned char kFeatureTransferMode = 0x03;

} // namespace sim
