#include "dsp_driver.h"

#include <algorithm>
#include <cstring>

namespace sim::dsp {
namespace {

uint8_t checksum(const std::string& bytes)
{
    unsigned sum = 0;
    for (unsigned char c : bytes) sum += c;
    return static_cast<uint8_t>(sum);
}

RecordBytes recordOf(const DriverConfig& config, const Frame& f)
{
    Record r;
    std::memset(&r, 0, sizeof r);
    r.length = static_cast<int8_t>(f.payload.size());
    r.type = static_cast<int8_t>(f.type);
    r.change = static_cast<int8_t>(f.change);
    r.pwrDwn = static_cast<int8_t>(f.pwrDwn);
    r.version = f.version;
    statusBytes(config, f.raw, r.status);
    std::memcpy(r.buff, f.payload.data(), std::min(f.payload.size(), kPayloadMax));
    RecordBytes out;
    std::memcpy(out.data(), &r, sizeof r);
    return out;
}

} // namespace

std::string encodeFrame(const Frame& f)
{
    std::string out;
    out += static_cast<char>(kFrameStart);
    for (uint8_t b : {f.type, f.version, f.change, f.pwrDwn, f.raw[0], f.raw[1], f.raw[2], f.raw[3]})
        out += static_cast<char>(b);
    const std::string payload = f.payload.substr(0, kPayloadMax);
    out += static_cast<char>(payload.size());
    out += payload;
    out += static_cast<char>(checksum(out));
    return out;
}

std::string encodeRawRecord(const RecordBytes& record)
{
    return static_cast<char>(kFrameRawRecord) + std::string(reinterpret_cast<const char*>(record.data()), record.size());
}

void statusBytes(const DriverConfig& config, const uint8_t raw[kRawBytes], uint8_t out[8])
{
    std::memset(out, 0, 8);
    if (!config.configured) return;
    const int drives = std::min(config.numDrives, 8);
    for (int d = 0; d < drives; ++d) {
        const uint8_t mask = config.masks[d];
        const uint8_t byte = config.bytes[d];
        unsigned value = (byte < kRawBytes ? raw[byte] : 0) & mask;
        if (mask) value >>= __builtin_ctz(mask);
        out[d] = static_cast<uint8_t>(value);
    }
}

void recordsOfLine(const DriverConfig& config, const std::string& line, std::vector<RecordBytes>& out)
{
    const auto* b = reinterpret_cast<const uint8_t*>(line.data());
    const size_t size = line.size();
    size_t i = 0;
    while (i < size) {
        if (b[i] == kFrameRawRecord && size - i >= 1 + kRecordBytes) {
            RecordBytes r;
            std::memcpy(r.data(), b + i + 1, kRecordBytes);
            out.push_back(r);
            i += 1 + kRecordBytes;
            continue;
        }
        if (b[i] == kFrameStart && size - i >= kFrameHeader) {
            const size_t length = b[i + 9];
            const size_t total = kFrameHeader + length + 1;
            if (length <= kPayloadMax && size - i >= total &&
                checksum(line.substr(i, total - 1)) == b[i + total - 1]) {
                Frame f;
                f.type = b[i + 1];
                f.version = b[i + 2];
                f.change = b[i + 3];
                f.pwrDwn = b[i + 4];
                std::memcpy(f.raw, b + i + 5, kRawBytes);
                f.payload = line.substr(i + kFrameHeader, length);
                out.push_back(recordOf(config, f));
                i += total;
                continue;
            }
        }
        ++i;  // noise on the line
    }
}

} // namespace sim::dsp
