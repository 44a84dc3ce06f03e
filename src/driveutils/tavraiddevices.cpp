#include "driveutils/tavraiddevices.h"

#include <cstring>

#include "tavutils/tav_error.h"

namespace {

template <typename Table>
void fill(TavVectorP<Table>* out, const std::vector<Table>& held)
{
    for (size_t i = 0; i < held.size(); ++i) {
        if (i == 0 && out->size() > 0) {
            *(*out)[0] = held[0];
            continue;
        }
        Table* table;
        try {
            table = new Table(held[i]);
        } catch (...) {
            throw tav_enomem("new failed");
        }
        out->add(table);
    }
}

} // namespace

TavRaidDevices::TavRaidDevices() = default;

TavRaidDevices::TavRaidDevices(const SECT_DEVICE_TABLE* tables, const SECT_STRING_TABLE* stringTables, int nTables,
                               int nStringTables)
{
    if (tables && nTables > 0) devices.assign(tables, tables + nTables);
    if (stringTables && nStringTables > 0) strings.assign(stringTables, stringTables + nStringTables);
}

TavRaidDevices::TavRaidDevices(const TavRaidDevices& other) = default;

TavRaidDevices::~TavRaidDevices() = default;

void TavRaidDevices::buildTables(TavVectorP<SECT_DEVICE_TABLE>* devTables,
                                 TavVectorP<SECT_STRING_TABLE>* stringTables)
{
    fill(devTables, devices);
    fill(stringTables, strings);
}

RaidStatus TavRaidDevices::checkRaid() { return OFF; }

int TavRaidDevices::isActive(int driveID) const
{
    for (const SECT_DEVICE_TABLE& table : devices)
        for (const SECT_RAID_DEV& record : table.devices)
            if (record.deviceType == DISK && record.deviceNum == static_cast<uint32_t>(driveID))
                return record.isActive;
    return 0;
}
