// File systems, boot records and the old IDE device table of the drive code.
#pragma once

// The md devices a drive belongs to.
struct p_to_md {
    int driveNo;
    int mdDrives[2];
    int numMDdrives;
};

// Runs "echo y | mkreiserfs <driveID><partitionLetter>".
void mkfs(const char* driveID, const char* partitionLetter);
// mountDir, the last component of driveID from its last "/", and partitionLetter.
void buildDir(char* buffer, const char* driveID, const char* partitionLetter, const char* mountDir);
// Runs "./fscopy <srcFS> <buildDir(...)>".
void copyFS(const char* srcFS, const char* driveID, const char* partitionLetter, const char* mountDir);
// Points the boot loader's configuration under mountDir at driveID and runs it.
void runLilo(const char* mountDir, const char* driveID);
// Zeroes the last 64 KiB of a device, where an md superblock lives.
void zeroSuperblock(const char* dev);

// The old IDE device names by 1-based drive number.
const char* tavGetDeviceName(int driveNo);
int tavGetDriveNumber(const char* deviceName);
int getDriveMajorNum(int driveNo);
int getDriveMinorNum(int driveNo);

// The table of md devices per drive.
void initDriveMDs();
void setDriveMDs(int driveNo, int first, int second, int count);
const p_to_md* getDriveMDs();   // the four entries of the table
