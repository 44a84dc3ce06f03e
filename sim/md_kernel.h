// The md driver of the simulated module: the requests of <linux/raid/md_u.h>
// answered from the kernel's state (md_state.h) with the errors of the older
// kernels the system was written for, and the members' superblocks
// (md_superblock.h) written and read on their partitions.
//
// A new array (SET_ARRAY_INFO with info) takes its members' slots, roles and
// states as ADD_NEW_DISK gives them and writes fresh superblocks when it
// runs. An array to be assembled (SET_ARRAY_INFO with null) takes them from
// each member's superblock; RUN_ARRAY kicks the members whose event count is
// older than the freshest. Every change bumps the event count and writes the
// superblocks of the members that are not faulty, so that faulty and removed
// members keep an older count.
//
// Each visit first brings the state to the virtual clock: members whose
// drive left its bay (pulled, or another drive in its place) are failed, as
// the kernel fails a member after I/O errors, and recovery moves on at
// speed_limit_max.
#pragma once

#include <cstdint>
#include <functional>
#include <linux/major.h>
#include <linux/raid/md_u.h>
#include <string>
#include <sys/types.h>

#include "md_state.h"
#include "module.h"

namespace sim {

class MdKernel {
public:
    // The caller holds the module's lock for the life of the object.
    MdKernel(Module& module, MdState& state);

    // Members whose drive left their bay failed, recovery brought to now.
    void catchUp();

    // Each gives 0 or the errno of the request.
    int setArrayInfo(int minor, const mdu_array_info_t* info);
    int getArrayInfo(int minor, mdu_array_info_t& info);
    int addNewDisk(int minor, const mdu_disk_info_t& disk);
    int runArray(int minor);
    int stopArray(int minor);
    int hotAddDisk(int minor, dev_t device);
    int hotRemoveDisk(int minor, dev_t device);
    int setDiskFaulty(int minor, dev_t device);
    int getDiskInfo(int minor, mdu_disk_info_t& disk);
    // Bytes of the running array; 0 for one that does not run.
    uint64_t bytes(int minor);

    void setSpeedLimit(bool max, int kibPerSecond);
    void setStalled(int minor, bool stalled);
    // The kernel forgets every array, as at a reboot; the superblocks stay.
    void forgetAll();

    const MdState& state() const { return state_; }
    uint64_t nowUs() const { return nowUs_; }

private:
    struct Partition;
    bool findPartition(unsigned major, unsigned minor, Partition& out);
    bool memberOfAny(unsigned major, unsigned minor) const;
    bool driveStillThere(const MdMember& m);
    bool mounted(int minor);

    // Faulty, unless it is the last in-sync member of a mirror. True when it changed.
    bool failMember(MdArray& a, MdMember& m);
    // The event count goes up and the superblocks are written.
    void commit(MdArray& a);
    void writeSuperblocks(const MdArray& a);
    // After a change: the event count, then recovery onto a spare if one can start.
    void changed(MdArray& a);
    void takeFreshest(MdArray& a);
    int placeMembers(MdArray& a);

    Module& module_;
    MdState& state_;
    Manifest manifest_;
    uint64_t nowUs_ = 0;
};

// Runs `visit` on the kernel's state under the module's lock, brought up to
// the virtual clock first; the state is saved when it changed. A state file
// that cannot be read is logged and taken as a kernel without arrays.
void visitMd(Module& module, const std::function<void(MdKernel&)>& visit);

// The state as it stands at the virtual clock.
MdState mdState(Module& module);

// The text of a state file with the default speed limits and no arrays.
std::string freshMdState();

} // namespace sim
