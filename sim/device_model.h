// Device models of the simulated module. The simulated platform resolves a
// path, applies the seal and the faults, and hands every call on a device
// node to the node's model: one class per kind of device, each in its own
// files, registered by the node's path prefix or by its major number.
//
//   BlockDevice   whole disks and partition windows of drive images (block.h)
//   AtaDisk       an IDE disk: BlockDevice plus the ATA requests (ata_disk.h)
//   ScsiDisk      a SCSI disk: BlockDevice plus SG_IO; ScsiGeneric its sg node (scsi_disk.h)
//   SysfsModel    attribute files under /sys (sysfs.h)
//   MdDevice      the md arrays "/dev/mdN"; MdStatFile "/proc/mdstat";
//                 RaidSpeedFile the rebuild speed limits (md.h, md_kernel.h)
//   DspDevice     the chassis controller's driver "/dev/tav_dsp_1" and its
//                 firmware (dsp.h, dsp_driver.h, dsp_firmware.h)
//   NetModel      interface queries on sockets (net_interfaces.h)
#pragma once

#include <cerrno>
#include <cstdint>
#include <map>
#include <optional>
#include <memory>
#include <string>
#include <sys/stat.h>
#include <sys/types.h>
#include <utility>
#include <vector>

#include "module.h"

namespace sim {

class DeviceModel;

// One descriptor the system holds on a node of a model.
struct OpenNode {
    std::string vpath;        // the system's path of the node
    DeviceModel* model = nullptr;
    DeviceNode node;          // bay nodes; empty for nodes of their own
    int hostFd = -1;          // the image or state file behind it
    int lockFd = -1;          // held while open (partition nodes), see BlockDevice
    uint64_t pos = 0;
    ino_t ino = 0;
    int accmode = 0;
    uint64_t imageChecked = ~uint64_t{0};  // the manifest's generation when the image was last found in place
};

// What a model may use of the platform around it.
struct DeviceContext {
    Module& module;
    bool powerCut;            // writes are lost: report success, change nothing
    bool bench = false;       // drives reached on the bench: the kernel's view and bay power are not asked
};

class DeviceModel {
public:
    virtual ~DeviceModel() = default;

    // Opens `n` (vpath, node and accmode filled in); gives the host
    // descriptor, or -1 with errno.
    virtual int open(DeviceContext& ctx, OpenNode& n, int flags) = 0;
    virtual void close(DeviceContext& ctx, OpenNode& n);
    virtual ssize_t read(DeviceContext& ctx, OpenNode& n, void* buf, size_t count, uint64_t at, bool advance);
    virtual ssize_t write(DeviceContext& ctx, OpenNode& n, const void* buf, size_t count, uint64_t at, bool advance);
    virtual off_t seek(DeviceContext& ctx, OpenNode& n, off_t offset, int whence);
    virtual int fsync(DeviceContext& ctx, OpenNode& n);
    virtual int ioctl(DeviceContext& ctx, OpenNode& n, unsigned long request, void* arg);
    virtual int fstat(DeviceContext& ctx, OpenNode& n, struct ::stat* st);
    // stat of a node by path; `present` as Module::device tells.
    virtual int stat(DeviceContext& ctx, const std::string& vpath, const DeviceNode& node, struct ::stat* st);

    // A read with nothing to give yet returns -1 with errno EWOULDBLOCK; on a
    // blocking descriptor the platform then waits (a simulated wait that holds
    // no lock of the platform) until readReady is true, and reads again. The
    // platform asks readReady while its thread holds the turn (scheduler.h), so a
    // model sees the calls of all threads one at a time. Default: true.
    virtual bool readReady(DeviceContext& ctx, OpenNode& n);
    // The virtual time (microseconds since the epoch) of the model's next
    // event of its own, if any: when every thread waits, the clock moves to
    // the earliest of these and of the waits' ends. Default: none.
    virtual std::optional<uint64_t> nextEvent(DeviceContext& ctx);

    // mmap of `length` bytes of the node at `offset`: memory of the model's
    // choosing (a state file mapped shared, a fresh area), or MAP_FAILED with
    // errno. The platform records the mapping: unmapRegion gets it back, and a
    // storeRegister into it goes to storeRegister. Default: ENODEV.
    virtual void* mapRegion(DeviceContext& ctx, OpenNode& n, size_t length, int prot, off_t offset);
    // Releases a mapping that mapRegion gave; 0 or -1 with errno.
    virtual int unmapRegion(DeviceContext& ctx, void* addr, size_t length);
    // A 32-bit store by the system at `offset` into the mapping at `base` that
    // this model gave. Default: the plain store.
    virtual void storeRegister(DeviceContext& ctx, void* base, size_t offset, uint32_t value);
    // The PROM player on a descriptor of the node (plat::nvramPromDownload).
    // Default: 1, a file it cannot use.
    virtual int promDownload(DeviceContext& ctx, OpenNode& n, const char* filename);
};

// The models of a platform, found by path prefix or by (block, major).
class DeviceRegistry {
public:
    void byPrefix(const std::string& prefix, std::shared_ptr<DeviceModel> model);
    void byMajor(bool character, unsigned major, std::shared_ptr<DeviceModel> model);
    void forSockets(std::shared_ptr<DeviceModel> model) { sockets_ = std::move(model); }

    DeviceModel* prefixModel(const std::string& vpath) const;
    DeviceModel* majorModel(bool character, unsigned major) const;
    DeviceModel* socketModel() const { return sockets_.get(); }
    // Every model registered, each once.
    std::vector<DeviceModel*> all() const;

    // The models of the families simulated so far.
    static DeviceRegistry standard();

private:
    std::vector<std::pair<std::string, std::shared_ptr<DeviceModel>>> prefixes_;
    std::map<std::pair<bool, unsigned>, std::shared_ptr<DeviceModel>> majors_;
    std::shared_ptr<DeviceModel> sockets_;
};

// -1 with errno set.
inline int fail(int error)
{
    errno = error;
    return -1;
}

} // namespace sim
