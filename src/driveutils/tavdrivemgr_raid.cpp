// How drives join and leave the RAID, how the set starts, and how the mount
// and dismount stamps move as they do: the survivors of a removal are stamped
// newer than the removed drive, so that a stale drive can never rejoin an
// array that went on without it.
#include <csignal>
#include <cstring>
#include <pthread.h>
#include <vector>

#include "driveutils/tav_md_raiddev.h"
#include "driveutils/tavbus.h"
#include "driveutils/tavdrive.h"
#include "driveutils/tavdrivemgr.h"
#include "driveutils/tavlock.h"
#include "driveutils/tavraiddevices.h"
#include "hwlib/tavhwid.h"
#include "platform/platform.h"

static int giDebug_tavraidpolicy = 0;
#define TAV_DEBUG_FLAG giDebug_tavraidpolicy
#include "driveutils/tavlog.h"

namespace {

const char* const kOsMirrors[] = {"/dev/md200", "/dev/md201"};
constexpr unsigned kRebuildPollSeconds = 10;

// The disk node of a position in the live tree, fetched under the lock.
TavRaidDevice* liveDisk(int driveID)
{
    TavLocked lock(TavDriveMgr::accessMutex);
    return TavDriveMgr::devices ? TavDriveMgr::devices->findDisk(driveID) : nullptr;
}

// The state of a deep copy of the tree; OFF without a tree.
TavRaidDevice::RaidStatus copiedStatus()
{
    TavRaidDevices* copy = TavDriveMgr::getRaidDevices();
    if (!copy) return TavRaidDevice::OFF;
    TavRaidDevice::RaidStatus status = copy->checkRaid();
    delete copy;
    return status;
}

// Renews the record and writes the signature of every position whose verdict
// is one of `codes`.
void rewriteSignatures(std::initializer_list<int> codes)
{
    for (int position = 1; position <= TavDriveMgr::nDrives; ++position) {
        int verdict = TavDriveMgr::checkDrive(position);
        for (int code : codes)
            if (verdict == code) {
                TavDriveMgr::createDriveSignature(position, 0);
                TavDriveMgr::writeSignature(position);
                break;
            }
    }
}

} // namespace

// --- joining ---

int TavDriveMgr::addToRaid(int driveID)
{
    if (!devices) return 19;
    TavRaidDevice* node = liveDisk(driveID);
    if (!node) {
        TAV_LOG(0, "addToRaid: no device %d %s:%d\n", driveID, TAV_FILE, __LINE__);
        return 19;
    }
    if (node->isActive() || isHotSpare(driveID)) {
        TAV_LOG(0, "addToRaid: drive %s is active\n", node->getName());
        return 16;
    }
    return addToRaid(node);
}

int TavDriveMgr::addToRaid(TavRaidDevice* drive)
{
    TavRaidDevice* parent;
    {
        TavLocked lock(accessMutex);
        parent = drive->getParent();
    }
    TAV_LOG(TAV_LOG_L10, "addToRaid: drive %s %s:%d\n", drive->getName(), TAV_FILE, __LINE__);
    int rc = 0;
    if (drive->getRaidLevel() >= 0) {
        rc = drive->raidStart(nullptr);
        if (rc != 0) {
            TAV_LOG(0, "addToRaid: can't start device %s", drive->getName());
            return rc;
        }
    }
    if (parent) {
        TAV_LOG(TAV_LOG_L10, "addToRaid: recursing to parent");
        addToRaid(parent);
        if (parent->isActive()) {
            // A stale membership goes before the hot add.
            drive->raidRemove();
            rc = drive->raidAdd();
        }
    } else if (drive->getType() == TavRaidDevice::DISK) {
        // A drive of its own: the set starts again.
        std::vector<int> okDrives(static_cast<size_t>(nDrives) + 1, 0);
        for (int position = 1; position <= nDrives; ++position)
            if (checkDrive(position) == 0) okDrives[static_cast<size_t>(position - 1)] = 1;
        startRaid(static_cast<long>(getLatestUnmountTime() + 1), okDrives.data());
    }
    TAV_LOG(TAV_LOG_L10, "addToRaid rc:%d %s:%d\n", rc, TAV_FILE, __LINE__);
    return rc;
}

int TavDriveMgr::startRaid(long now, int* okDrives)
{
    if (!devices) {
        TAV_LOG(0, "no devices %s:%d\n", TAV_FILE, __LINE__);
        return 1;
    }
    if (!devices->haveQuorum(okDrives)) {
        TAV_LOG(0, "don't have quorum %s:%d\n", TAV_FILE, __LINE__);
        return 1;
    }
    if (int rc = devices->raidStartAll(now, okDrives)) {
        TAV_LOG(0, "raidStartAll failed %d %s:%d\n", rc, TAV_FILE, __LINE__);
        return rc;
    }
    // A 32-bit time, sign-extended.
    const long long stamp = static_cast<int32_t>(now);
    for (int position = 1; position <= nDrives; ++position)
        if (isActive(position)) setUnmountTime(position, stamp);
    return 0;
}

// --- leaving ---

void TavDriveMgr::removeFromRaid(int driveID)
{
    const long long latest = getLatestUnmountTime();
    TAV_LOG(0, "removeFromRaid(%d)  %s:%d\n", driveID, TAV_FILE, __LINE__);
    bool haveTree;
    TavRaidDevice* node = nullptr;
    {
        TavLocked lock(accessMutex);
        haveTree = devices != nullptr;
        if (haveTree) node = devices->findDisk(driveID);
    }
    if (!haveTree) {
        TAV_LOG(0, " removeFromRaid: no device table %s:%d\n", TAV_FILE, __LINE__);
    } else {
        if (!node)
            TAV_LOG(0, "no raid device for disk %d %s:%d\n", driveID, TAV_FILE, __LINE__);
        else
            removeFromRaid(node);
        if (copiedStatus() != TavRaidDevice::OFF) {
            // The survivors are newer than the removed drive from now on.
            for (int position = 1; position <= nDrives; ++position)
                if (isActive(position)) setUnmountTime(position, latest + 1);
        }
    }
    rewriteSignatures({0, 9});
}

int TavDriveMgr::removeFromRaid(TavRaidDevice* node)
{
    if (TavRaidDevice* parent = node->getParent()) {
        TAV_LOG(0, "removeFromRaid( %s ) %s %d \n", node->getName(), TAV_FILE, __LINE__);
        if (parent->willCauseFailure(node) == 0) {
            node->raidSetFaulty();
            node->raidRemove();
        } else {
            TAV_LOG(0, "removeFromRaid: recursing to parent");
            // The whole array comes down instead.
            removeFromRaid(parent);
        }
    }
    node->setActive(0);
    if (node->getRaidLevel() >= 0) {
        TAV_LOG(0, "raidStop(%s) %s:%d\n", node->getName(), TAV_FILE, __LINE__);
        node->raidStop();
        if (node->getRaidLevel() == 0)
            for (int i = 0; i < node->getSubdeviceCount(); ++i)
                if (node->getSubdevice(i)->getType() == TavRaidDevice::DISK) node->getSubdevice(i)->setActive(0);
    }
    if (!node->getParent() && node->getType() == TavRaidDevice::DISK) {
        TavLocked lock(accessMutex);
        if (devices) devices->setAllActive(0);
    }
    return node->isActive();
}

void TavDriveMgr::raidSetFaulty(int driveID)
{
    // The lock is held through the kernel's settling.
    TavLocked lock(accessMutex);
    TAV_LOG(0, "raidSetFaulty(%d)  %s:%d\n", driveID, TAV_FILE, __LINE__);
    RaidDeviceMgmt::TavDrive* drive = getDrive(driveID);
    std::string name = drive ? drive->getDataPartitionName() : std::string();
    if (!devices) {
        TAV_LOG(0, "raidSetFaulty(%d)  no devices %s:%d\n", driveID, TAV_FILE, __LINE__);
        return;
    }
    if (TavRaidDevice* node = devices->findDevice(name.c_str()))
        node->raidSetFaulty();
    else
        TAV_LOG(0, "raidSetFaulty(%d) no raid device %s %s:%d\n", driveID, name.c_str(), TAV_FILE, __LINE__);
}

int TavDriveMgr::willCauseFailure(int driveNo)
{
    TavRaidDevice* node = liveDisk(driveNo);
    return willCauseFailure(node, std::to_string(driveNo).c_str());
}

int TavDriveMgr::willCauseFailure(const char* devName)
{
    TavRaidDevice* node = nullptr;
    {
        TavLocked lock(accessMutex);
        if (devices) node = devices->findDevice(devName);
    }
    return willCauseFailure(node, devName);
}

int TavDriveMgr::willCauseFailure(TavRaidDevice* node, const char* what)
{
    if (!node) {
        TAV_LOG(0, "willCauseFailure no device %s:%d\n", TAV_FILE, __LINE__);
        return 0;
    }
    if (!node->getParent()) {
        TAV_LOG(0, "willCauseFailure no parent %s %s:%d\n", what, TAV_FILE, __LINE__);
        return 1;
    }
    return node->getParent()->willCauseFailure(node);
}

// --- the set as a whole ---

void TavDriveMgr::setDrivesActive()
{
    TavLocked lock(accessMutex);
    if (devices)
        devices->setAllActive(1);
    else
        TAV_LOG(0, " setDrivesActive: no device table %s:%d\n", TAV_FILE, __LINE__);
}

void TavDriveMgr::setDrivesInactive()
{
    TavLocked lock(accessMutex);
    if (devices)
        devices->setAllActive(0);
    else
        TAV_LOG(0, " setDrivesInactive: no device table %s:%d\n", TAV_FILE, __LINE__);
}

void TavDriveMgr::setMacAddresses(TavRaidDevices* tree)
{
    setRaidDevices(tree);
    for (int position = 1; position <= nDrives; ++position) createDriveSignature(position, 0);
    for (int position = 1; position <= nDrives; ++position) writeSignature(position);
}

// --- the OS mirror ---

void TavDriveMgr::removeFromOS(int driveID)
{
    if (RaidDeviceMgmt::TavDrive* drive = getDrive(driveID)) drive->removeFromOsRaid();
    updateMountTimeAfterRebuild();
}

// --- stamps after a rebuild ---

bool TavDriveMgr::anyRebuilding()
{
    for (const char* mirror : kOsMirrors)
        if (TavMdRaidDevice::isRebuilding(mirror)) return true;
    TavLocked lock(accessMutex);
    return devices && devices->anyRebuilding();
}

void TavDriveMgr::updateMountTimeAfterRebuild()
{
    TavLocked lock(accessMutex);
    if (checkRebuild.load()) {
        TAV_LOG(0, "%s called while in progress %s:%d\n", "updateMountTimeAfterRebuild", TAV_FILE, __LINE__);
        return;
    }
    checkRebuild.store(true);
    pthread_attr_t attr;
    pthread_attr_init(&attr);
    pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED);
    pthread_t thread;
    if (pthread_create(&thread, &attr, updateMountTimes, nullptr) != 0) {
        TAV_LOG(0, "pthread_create failed in %s %s:%d\n", "updateMountTimeAfterRebuild", TAV_FILE, __LINE__);
        checkRebuild.store(false);
    }
    pthread_attr_destroy(&attr);
}

void* TavDriveMgr::updateMountTimes(void*)
{
    sigset_t hup;
    sigemptyset(&hup);
    sigaddset(&hup, SIGHUP);
    pthread_sigmask(SIG_BLOCK, &hup, nullptr);
    bool rebuilding = anyRebuilding();
    updateNominalMountTimes();
    while (rebuilding && checkRebuild.load()) {
        plat::sleep(kRebuildPollSeconds);
        rebuilding = anyRebuilding();
    }
    updateNominalMountTimes();
    writeSerialNumbers();
    checkRebuild.store(false);
    return nullptr;
}

void TavDriveMgr::updateNominalMountTimes()
{
    const long long latestMount = getLatestMountTime();
    const long long latestDismount = getLatestUnmountTime();

    // Drives whole in both OS mirrors count as mounted.
    if (hwid_model_id* model = hwid_getModelInfo(nullptr)) {
        const unsigned id = model->id;
        hwid_freeModelInfo(model);
        if (id == 1 || id == 2 || id == 4) {
            TavRaidDevice::DiskStatus os[TavRaidDevice::MAX_DISKS], log[TavRaidDevice::MAX_DISKS];
            TavMdRaidDevice::getDiskInfo(kOsMirrors[0], TavRaidDevice::MAX_DISKS, os);
            TavMdRaidDevice::getDiskInfo(kOsMirrors[1], TavRaidDevice::MAX_DISKS, log);
            for (int i = 0; i < nDrives && i < TavRaidDevice::MAX_DISKS; ++i)
                if (os[i] == TavRaidDevice::DISK_NOMINAL && log[i] == TavRaidDevice::DISK_NOMINAL)
                    setMountTime(i + 1, latestMount + 1);
        }
    }

    // Drives whole in the data array are stamped as the set's members.
    if (TavRaidDevices* copy = getRaidDevices()) {
        if (copy->checkRaid() != TavRaidDevice::OFF) {
            TavRaidDevice::DiskStatus status[TavRaidDevice::MAX_DISKS];
            copy->getDiskInfo(TavRaidDevice::MAX_DISKS, status);
            for (int position = 1; position <= TavRaidDevice::MAX_DISKS; ++position) {
                if (status[position - 1] != TavRaidDevice::DISK_NOMINAL) continue;
                if (!getDrive(position)) {
                    TAV_LOG(0, "no drive for index:%d %s:%d\n", position - 1, TAV_FILE, __LINE__);
                    continue;
                }
                createDriveSignature(position, 0);
                setUnmountTime(position, latestDismount + 1);
                TavRaidDevice* node = copy->findDisk(position);
                if (!node) {
                    TAV_LOG(0, "no raid device for drive %d %s:%d\n", position, TAV_FILE, __LINE__);
                    continue;
                }
                node->setActive(1);
                writeSignature(position);
            }
        }
        delete copy;
    }

    rewriteSignatures({0});
    for (int i = 0; i < nBuses; ++i) buses[i]->flushDrives();
}
