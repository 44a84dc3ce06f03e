#include "driveutils/tavdisk.h"

#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <string>

#include "platform/platform.h"
#include "platform/tavio.h"

static int giDebug_sample = 0;
#define TAV_DEBUG_FLAG giDebug_sample
#include "driveutils/tavlog.h"

namespace {

constexpr int kDebug = 10;
constexpr int kSuperblockArea = 65536;
constexpr int kLiloLine = 1024;

const char* const hddevnames[] = {"/dev/hda", "/dev/hdb", "/dev/hdd", "/dev/hdc", nullptr};
const char* const* devnames = nullptr;

const char* const* deviceNames()
{
    if (!devnames) devnames = hddevnames;
    return devnames;
}

constexpr int kMdEntries = 4;
p_to_md pDrives[kMdEntries];

} // namespace

void mkfs(const char* driveID, const char* partitionLetter)
{
    TAV_LOG(kDebug, "mkfs src:%s part:%s\n", driveID, partitionLetter);
    std::string command = std::string("echo y | mkreiserfs ") + driveID + partitionLetter;
    TAV_LOG(kDebug, "%s\n", command.c_str());
    plat::system(command.c_str());
}

// The caller's buffer must hold the joined path.
void buildDir(char* buffer, const char* driveID, const char* partitionLetter, const char* mountDir)
{
    const char* last = std::strrchr(driveID, '/');
    std::string path = std::string(mountDir) + (last ? last : driveID) + partitionLetter;
    std::memcpy(buffer, path.c_str(), path.size() + 1);
}

void copyFS(const char* srcFS, const char* driveID, const char* partitionLetter, const char* mountDir)
{
    TAV_LOG(kDebug, "copyFS src:%s dest:%s part:%s\n", srcFS, driveID, partitionLetter);
    std::string dest(std::strlen(mountDir) + std::strlen(driveID) + std::strlen(partitionLetter) + 1, '\0');
    buildDir(dest.data(), driveID, partitionLetter, mountDir);
    std::string command = std::string("./fscopy ") + srcFS + " " + dest.c_str();
    plat::system(command.c_str());
}

void runLilo(const char* mountDir, const char* driveID)
{
    size_t idLength = std::strlen(driveID);
    TAV_LOG(kDebug, "runLilo mount:%s drive:%s init:%c\n", mountDir, driveID, idLength ? driveID[idLength - 1] : ' ');
    std::string conf = std::string(mountDir) + "./configs/etc/lilo.conf";
    FILE* file = plat::fopen(conf.c_str(), "r+");
    if (!file) return;
    char line[kLiloLine];
    while (fgets(line, sizeof line, file)) {
        char* at = std::strstr(line, "/dev/hd");
        if (!at) continue;
        size_t length = std::strlen(line);
        // Overwrite in place; the line keeps its length and its line end.
        size_t room = length - static_cast<size_t>(at - line);
        if (room && line[length - 1] == '\n') --room;
        std::memcpy(at, driveID, std::min(idLength, room));
        fseek(file, -static_cast<long>(length), SEEK_CUR);
        fputs(line, file);
        fseek(file, 0, SEEK_CUR);   // a positioning call between writing and reading
    }
    fclose(file);
    std::string command = std::string("lilo -verbose=3 -C ./configs/etc/lilo.conf -r ") + mountDir;
    plat::system(command.c_str());
}

// A device shorter than the area: the seek fails unnoticed and the zeros go
// to its start. Errors are not looked at.
void zeroSuperblock(const char* dev)
{
    TAV_LOG(kDebug, "zeroSuperblock %s %s:%d\n", dev, TAV_FILE, __LINE__);
    int fd = plat::open(dev, O_RDWR);
    if (fd < 0) return;
    static const char zeros[kSuperblockArea] = {};
    tav_lseek(fd, -kSuperblockArea, SEEK_END);
    tav_write(fd, zeros, sizeof zeros);
    plat::close(fd);
}

const char* tavGetDeviceName(int driveNo)
{
    if (driveNo < 1 || driveNo > 4) return nullptr;
    return deviceNames()[driveNo - 1];
}

int tavGetDriveNumber(const char* deviceName)
{
    if (!deviceName) return -1;
    const char* const* names = deviceNames();
    for (int i = 0; names[i]; ++i)
        if (std::strcmp(names[i], deviceName) == 0) return i + 1;
    return -1;
}

int getDriveMajorNum(int driveNo) { return driveNo < 2 ? 3 : 22; }

int getDriveMinorNum(int driveNo) { return (driveNo % 2) ? 64 : 0; }

void initDriveMDs()
{
    for (p_to_md& entry : pDrives) entry = p_to_md{-1, {-1, -1}, -1};
}

void setDriveMDs(int driveNo, int first, int second, int count)
{
    p_to_md* slot = nullptr;
    for (p_to_md& entry : pDrives)
        if (entry.driveNo == driveNo) {
            slot = &entry;
            break;
        }
    if (!slot)
        for (p_to_md& entry : pDrives)
            if (entry.driveNo == -1) {
                slot = &entry;
                break;
            }
    if (!slot) return;   // table full
    *slot = p_to_md{driveNo, {first, second}, count};
}

const p_to_md* getDriveMDs() { return pDrives; }
