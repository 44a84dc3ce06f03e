// The RAID tree from arbitrary device and string tables: built, copied and
// flattened again, and the flattened tables read once more; the rest of the
// input is an mdstat text asked for an array's rebuild. The first byte
// chooses how many tables of each kind the input fills.
#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

#include "driveutils/tavraiddevices.h"
#include "fuzz_module.h"

namespace {

constexpr size_t kMaxDeviceTables = 3;
constexpr size_t kMaxStringTables = 3;

template <typename T>
std::vector<T> take(const uint8_t*& data, size_t& size, size_t count)
{
    std::vector<T> tables(count);
    size_t bytes = std::min(size, count * sizeof(T));
    if (bytes) std::memcpy(tables.data(), data, bytes);
    data += bytes;
    size -= bytes;
    return tables;
}

void flattenAndReadAgain(TavRaidDevices& tree)
{
    TavVectorP<SECT_DEVICE_TABLE> devices(10);
    TavVectorP<SECT_STRING_TABLE> strings(10);
    devices.add(new SECT_DEVICE_TABLE());
    strings.add(new SECT_STRING_TABLE());
    tree.buildTables(&devices, &strings);
    std::vector<SECT_DEVICE_TABLE> d;
    std::vector<SECT_STRING_TABLE> s;
    for (int i = 0; i < devices.size(); ++i) d.push_back(*devices[i]), delete devices[i];
    for (int i = 0; i < strings.size(); ++i) s.push_back(*strings[i]), delete strings[i];
    TavRaidDevices again(d.data(), s.data(), static_cast<int>(d.size()), static_cast<int>(s.size()));
    if (again.getRaidDevCount() != tree.getRaidDevCount()) std::abort();
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    fuzzmodule::install("raid-tree-fuzz", 65536);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size == 0) return 0;
    const size_t nDevices = data[0] % (kMaxDeviceTables + 1);
    const size_t nStrings = 1 + (data[0] >> 4) % kMaxStringTables;
    ++data;
    --size;
    std::vector<SECT_DEVICE_TABLE> devices = take<SECT_DEVICE_TABLE>(data, size, nDevices);
    std::vector<SECT_STRING_TABLE> strings = take<SECT_STRING_TABLE>(data, size, nStrings);

    TavRaidDevices tree(devices.data(), strings.data(), static_cast<int>(nDevices), static_cast<int>(nStrings));
    tree.getDiskCount();
    tree.findDisk(1);
    TavRaidDevices copy(tree);
    if (copy.getRaidDevCount() != tree.getRaidDevCount()) std::abort();
    flattenAndReadAgain(tree);

    std::vector<char> text(data, data + size);
    FILE* mdstat = fmemopen(text.empty() ? nullptr : text.data(), text.size(), "r");
    if (mdstat) {
        char out[128];
        tavDisksToRebuild(mdstat, "md0", "Data", out, sizeof out);
        fclose(mdstat);
    }
    return 0;
}
