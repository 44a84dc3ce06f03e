#include "ata.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <utility>

namespace sim {
namespace {

void putWord(IdentifyBlock& b, int word, uint16_t v)
{
    b[2 * word] = static_cast<unsigned char>(v & 0xff);
    b[2 * word + 1] = static_cast<unsigned char>(v >> 8);
}

void putString(IdentifyBlock& b, int firstWord, int chars, const std::string& text, IdentifyForm form)
{
    unsigned char* p = b.data() + 2 * firstWord;
    if (form == IdentifyForm::Raw) {
        std::string padded = text.substr(0, chars);
        padded.resize(chars, ' ');
        for (int i = 0; i < chars; i += 2) {
            p[i] = static_cast<unsigned char>(padded[i + 1]);
            p[i + 1] = static_cast<unsigned char>(padded[i]);
        }
        return;
    }
    // The kernel's fix-up: leading blanks go, runs of blanks become one, NUL fill.
    std::string fixed;
    for (char c : text.substr(0, chars)) {
        if (c == ' ' && (fixed.empty() || fixed.back() == ' ')) continue;
        fixed += c;
    }
    while (!fixed.empty() && fixed.back() == ' ') fixed.pop_back();
    std::memset(p, 0, chars);
    std::memcpy(p, fixed.data(), fixed.size());
}

uint16_t word(const IdentifyBlock& b, int w) { return static_cast<uint16_t>(b[2 * w] | b[2 * w + 1] << 8); }

// A set-features transfer mode (sector count register) the drive offers, by
// its own identify words: 0x00 and 0x01 (PIO default) always; PIO 0 to 2
// (0x08-0x0A) always, PIO 3 and 4 by bits 0 and 1 of word 64; multiword DMA n
// (0x20|n) by bit n of word 63; UDMA n (0x40|n) by bit n of word 88. Words 64
// and 88 count only when word 53 marks them valid. Anything else (single-word
// DMA, PIO 5 and up, unknown values) the drive aborts.
bool offersTransferMode(const Drive& drive, unsigned mode)
{
    const IdentifyBlock id = identifyData(drive, IdentifyForm::Raw);
    const unsigned n = mode & 7;
    switch (mode & 0xf8) {
    case 0x00: return mode <= 0x01;
    case 0x08: return n <= 2 || (n <= 4 && (word(id, 53) & 0x2) && (word(id, 64) >> (n - 3) & 1));
    case 0x20: return word(id, 63) >> n & 1;
    case 0x40: return (word(id, 53) & 0x4) && (word(id, 88) >> n & 1);
    default: return false;
    }
}

std::string hex2(unsigned value)
{
    char text[8];
    snprintf(text, sizeof text, "0x%02x", value & 0xff);
    return text;
}

int aborted(unsigned char* args, std::string& note, std::string what)
{
    note = std::move(what) + " refused";
    args[0] = 0x51;  // status: ready, seek complete, error
    args[1] = 0x04;  // error: aborted command
    return EIO;
}

} // namespace

IdentifyBlock identifyData(const Drive& drive, IdentifyForm form)
{
    IdentifyBlock b{};
    const uint64_t sectors = drive.sectors;
    const bool lba48 = sectors > 0x0FFFFFFFULL;
    const uint64_t chsSectors = std::min<uint64_t>(sectors, 16383ULL * 16 * 63);
    putWord(b, 0, 0x0040);
    putWord(b, 1, static_cast<uint16_t>(chsSectors / (16 * 63)));
    putWord(b, 3, 16);
    putWord(b, 6, 63);
    putString(b, 10, 20, drive.serial, form);
    putString(b, 23, 8, drive.firmware, form);
    putString(b, 27, 40, drive.model, form);
    putWord(b, 47, 0x8010);
    putWord(b, 49, 0x0300);  // LBA and DMA
    putWord(b, 53, 0x0007);  // words 54-58, 64-70 and 88 valid
    const uint32_t lba28 = static_cast<uint32_t>(std::min<uint64_t>(sectors, 0x0FFFFFFFULL));
    putWord(b, 60, static_cast<uint16_t>(lba28 & 0xffff));
    putWord(b, 61, static_cast<uint16_t>(lba28 >> 16));
    putWord(b, 63, 0x0007);
    putWord(b, 64, 0x0003);
    putWord(b, 80, 0x007e);
    putWord(b, 82, 0x746b);  // bit 5: write cache supported
    putWord(b, 83, static_cast<uint16_t>(0x5000 | (lba48 ? 0x2400 : 0)));
    putWord(b, 84, 0x4000);
    putWord(b, 85, static_cast<uint16_t>(0x7448 | (drive.writeCache ? 0x0020 : 0)));
    putWord(b, 86, static_cast<uint16_t>(0x1000 | (lba48 ? 0x2400 : 0)));
    putWord(b, 87, 0x4000);
    uint16_t udma = drive.udma;
    if (drive.transferMode >= 0x40 && drive.transferMode < 0x48)
        udma = static_cast<uint16_t>((udma & 0x00ff) | (1u << (8 + (drive.transferMode & 7))));
    putWord(b, 88, udma);
    for (int i = 0; i < 4; ++i) putWord(b, 100 + i, static_cast<uint16_t>(sectors >> (16 * i)));
    // Integrity word: signature 0xA5 and a checksum making all bytes sum to 0.
    b[510] = 0xA5;
    unsigned sum = 0;
    for (int i = 0; i < 511; ++i) sum += b[i];
    b[511] = static_cast<unsigned char>(-sum & 0xff);
    return b;
}

int driveCommand(Drive& drive, unsigned char* args, std::string& note)
{
    switch (args[0]) {
    case kAtaIdentify: {
        IdentifyBlock id = identifyData(drive, IdentifyForm::Raw);
        std::memcpy(args + 4, id.data(), id.size());
        note = "identify";
        break;
    }
    case kAtaSetFeatures:
        if (args[2] == kFeatureWriteCacheOn) {
            drive.writeCache = true;
            note = "setfeatures write-cache on";
        } else if (args[2] == kFeatureWriteCacheOff) {
            drive.writeCache = false;
            note = "setfeatures write-cache off";
        } else if (args[2] == kFeatureTransferMode) {
            note = "setfeatures transfer-mode " + hex2(args[1]);
            if (!offersTransferMode(drive, args[1])) return aborted(args, note, note);
            drive.transferMode = args[1];
        } else {
            return aborted(args, note, "setfeatures " + hex2(args[2]));
        }
        break;
    case kAtaFlushCache:
    case kAtaFlushCacheExt:
        note = "flush-cache";
        break;
    default:
        return aborted(args, note, "command " + hex2(args[0]));
    }
    args[0] = 0x50;  // status: ready, seek complete
    args[1] = 0;
    args[2] = 0;
    return 0;
}

} // namespace sim
