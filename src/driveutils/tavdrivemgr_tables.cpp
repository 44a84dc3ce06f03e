// Two text dumps for support staff: the in-memory signature, one row a drive,
// and the RAID tree, one row a node. They go to the log line by line and
// change nothing.
#include <string>

#include "driveutils/tavdrivemgr.h"
#include "driveutils/tavraiddevices.h"
#include "tavutils/tavdrivesig.h"

static int giDebug_tavtables = 0;
#define TAV_DEBUG_FLAG giDebug_tavtables
#include "driveutils/tavlog.h"

namespace {

const char* const kSignatureColumns[] = {"drive",     "os-tstamp",    "data-tstamp", "Order", "motherboard tag",
                                         "SerialNum", "drive status", "active"};
const char* const kRaidColumns[] = {"deviceName", "deviceNum",  "deviceType",  "deviceParent", "raidLevel",
                                    "numDevices", "isActive",   "stringTable", "stringIndex"};

// The titles, then a row of empty cells that prints as the underline.
template <size_t N>
int addHeading(TavDriveMgr::Table& table, const char* const (&columns)[N], const char* who)
{
    if (!table.empty()) {
        TAV_LOG(0, "%s() should only be call with an empty vector.\n", who);
        return 0;
    }
    table.emplace_back(columns, columns + N);
    table.emplace_back(N);
    return 1;
}

// Fixed-width text of a record: up to its first NUL.
template <size_t N>
std::string text(const char (&field)[N])
{
    size_t length = 0;
    while (length < N && field[length]) ++length;
    return std::string(field, length);
}

const char* typeName(int type)
{
    switch (type) {
    case TavRaidDevice::DISK: return "Disk";
    case TavRaidDevice::ARRAY: return "Array";
    case TavRaidDevice::AEBS: return "Aebs";
    default: return "Unknown";
    }
}

} // namespace

int TavDriveMgr::buildSignatureTableHeading(Table& table)
{
    return addHeading(table, kSignatureColumns, "buildSignatureTableHeading");
}

int TavDriveMgr::buildRaidDeviceTableHeading(Table& table)
{
    return addHeading(table, kRaidColumns, "buildRaidDeviceTableHeading");
}

void TavDriveMgr::buildSignatureTableRow(Table& table, int driveID)
{
    std::vector<std::string> row{std::to_string(driveID)};
    SECT_AUTO_RAID* record = driveID <= numHardDriveSignatures ? findDriveDescription(driveID) : nullptr;
    if (record) {
        row.push_back(std::to_string(record->llLastMountTime));
        row.push_back(std::to_string(record->llLastDismountTime));
        row.push_back(std::to_string(record->uLastOrder));
        row.push_back(text(record->caMotherboardTag));
        row.push_back(text(record->caSerialNumber));
    } else {
        row.insert(row.end(), 5, "-");
    }
    row.push_back(getDriveSignatureText(checkDrive(driveID)));
    row.push_back(std::to_string(isActive(driveID)));
    table.push_back(row);
}

void TavDriveMgr::buildRaidDeviceRows(Table& table, TavRaidDevice* node)
{
    const SECT_RAID_DEV* d = node->getDescription();
    table.push_back({node->getName(), std::to_string(d->deviceNum), typeName(d->deviceType),
                     node->getParent() ? node->getParentName() : "NULL", std::to_string(d->raidLevel),
                     std::to_string(d->numDevices), std::to_string(d->isActive), std::to_string(d->stringTable),
                     std::to_string(d->stringIndex)});
    for (int i = 0; i < node->getSubdeviceCount(); ++i) buildRaidDeviceRows(table, node->getSubdevice(i));
}

void TavDriveMgr::printTableData(Table& table)
{
    if (table.empty()) {
        TAV_LOG(0, "TavDriveMgr::printSignatureData no rows %s:%d\n", TAV_FILE, __LINE__);
        return;
    }
    if (table[0].empty()) {
        TAV_LOG(0, "TavDriveMgr::printSignatureData no cols %s:%d\n", TAV_FILE, __LINE__);
        return;
    }
    // Right-aligned columns; the underline has the width of its column.
    for (size_t column = 0; column < table[0].size(); ++column) {
        size_t width = 0;
        for (const auto& row : table)
            if (column < row.size()) width = std::max(width, row[column].size());
        for (size_t r = 0; r < table.size(); ++r)
            if (column < table[r].size())
                table[r][column].insert(0, width - table[r][column].size(), r == 1 ? '-' : ' ');
    }
    for (const auto& row : table) {
        std::string line;
        for (size_t column = 0; column < row.size(); ++column) line += (column ? "   " : "") + row[column];
        TAV_LOG(0, "%s\n", line.c_str());
    }
}

void TavDriveMgr::dumpInMemorySignatureData()
{
    Table table;
    buildSignatureTableHeading(table);
    for (int position = 1; position <= nDrives; ++position) buildSignatureTableRow(table, position);
    printTableData(table);
}

void TavDriveMgr::dumpRaidDeviceTables(TavRaidDevices* tree)
{
    TavRaidDevices* owned = tree ? nullptr : getRaidDevices();
    TavRaidDevices* shown = tree ? tree : owned;
    Table table;
    buildRaidDeviceTableHeading(table);
    for (int i = 0; shown && i < shown->getNTopLevelDevs(); ++i) buildRaidDeviceRows(table, shown->getNthTopLevelDev(i));
    printTableData(table);
    delete owned;
}
