// The manifest of a simulated module: which platform it is, its serial
// number, its bays (device name and numbers) and the drives it knows, each in
// a bay or on the shelf. Kept as text in "sim/manifest" of the module:
//
//   platform 1
//   module-serial OBXSIM-1A2B3C4D
//   bay 1 /dev/ide/host0/bus0/target0/lun0/disc 3 0
//   drive serial=SIMA0001 bay=1 kind=ata sectors=156301488 model=SIM%20DISK ...
//
// Values are percent-encoded where they hold blanks, "%", "=" or control
// characters. Numbers are decimal; udma alone is hex ("udma=0x203f"). Lines
// and fields that cannot be read are skipped with a warning naming
// "sim/manifest" and the line.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace sim {

struct Bay {
    int number = 0;          // 1-based drive position
    std::string device;      // whole-disk node, "/dev/.../disc"
    unsigned major = 0;
    unsigned minor = 0;      // first minor of the disk
    unsigned maxPartitions = 15;
    int line = 0;            // of sim/manifest when read from it, else 0
};

struct Drive {
    std::string serial;
    std::string kind = "ata";  // "ata" or "scsi"
    int bay = 0;               // 0: on the shelf
    uint64_t sectors = 0;
    std::string model;
    std::string firmware;
    std::string vendor;        // SCSI inquiry vendor
    uint16_t udma = 0x203f;    // identify word 88
    bool writeCache = true;
    int transferMode = -1;     // last set-features transfer mode, -1 none
    int line = 0;              // of sim/manifest when read from it, else 0
};

struct Manifest {
    int platform = -1;
    std::string moduleSerial;
    std::vector<Bay> bays;
    std::vector<Drive> drives;

    const Bay* bay(int number) const;
    const Bay* bayOfDevice(const std::string& device) const;
    Drive* driveInBay(int number);
    const Drive* driveInBay(int number) const;
    Drive* drive(const std::string& serial);

    // Never fails: what it cannot read goes to `warnings`.
    static Manifest parse(const std::string& text, std::vector<std::string>* warnings = nullptr);
    std::string format() const;
};

std::string percentEncode(const std::string& value);
std::string percentDecode(const std::string& value);

// Strict unsigned parse of a whole word in decimal: digits only, no sign, no
// leading zero (so that "010" is never taken for octal); false otherwise.
bool parseNumber(const std::string& word, uint64_t& out);
// The same for a field kept in hex: "0x" and 1 to 16 hex digits.
bool parseHexNumber(const std::string& word, uint64_t& out);
// A decimal number `min` to `max`, with an optional "-"; no leading zero.
bool parseSigned(const std::string& word, int64_t min, int64_t max, int64_t& out);
// The lines of a text, without their newlines.
std::vector<std::string> textLines(const std::string& text);

} // namespace sim
