// Per-model I/O scheduler settings applied to a block device through sysfs,
// from the feature settings "IOSCHED" and "IOSCHED.<scheduler>".
#pragma once

// The sysfs directory of a device path ("/dev/sda1", ".../scsi/host0/bus0/
// target1/lun0/...", ".../ide/host0/bus1/target0/lun0/..."), with a
// closing "/". 0, or -1 for a path of no known form.
int getSysFSDeviceRoot(const char* device, char* systemName, unsigned int length);

// Writes value into directory + file. 0 when all of it went out, else -1.
int writeOnce(const char* directory, const char* file, const char* value);

// 0 when applied; 1 when sysfs doesn't list the device; -1 on failure.
int configureIoScheduler(const char* device);
