#include "device_model.h"

#include <sys/mman.h>

#include <algorithm>

#include <unistd.h>

#include "ata_disk.h"
#include "charon.h"
#include "dsp.h"
#include "md.h"
#include "net_interfaces.h"
#include "nvram_device.h"
#include "scsi_disk.h"
#include "sysfs.h"
#include "tw_driver.h"
#include "tw_kernel.h"

namespace sim {

void DeviceModel::close(DeviceContext&, OpenNode&) {}

ssize_t DeviceModel::read(DeviceContext&, OpenNode& n, void* buf, size_t count, uint64_t at, bool advance)
{
    ssize_t got = ::pread(n.hostFd, buf, count, static_cast<off_t>(at));
    if (got > 0 && advance) n.pos = at + static_cast<uint64_t>(got);
    return got;
}

ssize_t DeviceModel::write(DeviceContext& ctx, OpenNode& n, const void* buf, size_t count, uint64_t at, bool advance)
{
    ssize_t put = ctx.powerCut ? static_cast<ssize_t>(count) : ::pwrite(n.hostFd, buf, count, static_cast<off_t>(at));
    if (put > 0 && advance) n.pos = at + static_cast<uint64_t>(put);
    return put;
}

off_t DeviceModel::seek(DeviceContext&, OpenNode& n, off_t offset, int whence)
{
    off_t at = ::lseek(n.hostFd, whence == SEEK_CUR ? static_cast<off_t>(n.pos) + offset : offset,
                       whence == SEEK_CUR ? SEEK_SET : whence);
    if (at >= 0) n.pos = static_cast<uint64_t>(at);
    return at;
}

int DeviceModel::fsync(DeviceContext&, OpenNode&) { return 0; }

int DeviceModel::ioctl(DeviceContext&, OpenNode&, unsigned long, void*) { return fail(ENOTTY); }

int DeviceModel::fstat(DeviceContext&, OpenNode& n, struct ::stat* st) { return ::fstat(n.hostFd, st); }

int DeviceModel::stat(DeviceContext& ctx, const std::string& vpath, const DeviceNode&, struct ::stat* st)
{
    return ctx.module.host().stat(vpath, st);
}

bool DeviceModel::readReady(DeviceContext&, OpenNode&) { return true; }

std::optional<uint64_t> DeviceModel::nextEvent(DeviceContext&) { return std::nullopt; }

void* DeviceModel::mapRegion(DeviceContext&, OpenNode&, size_t, int, off_t)
{
    errno = ENODEV;
    return MAP_FAILED;
}

int DeviceModel::unmapRegion(DeviceContext&, void* addr, size_t length) { return ::munmap(addr, length); }

void DeviceModel::storeRegister(DeviceContext&, void* base, size_t offset, uint32_t value)
{
    *reinterpret_cast<volatile uint32_t*>(static_cast<char*>(base) + offset) = value;
}

int DeviceModel::promDownload(DeviceContext&, OpenNode&, const char*) { return 1; }

std::vector<DeviceModel*> DeviceRegistry::all() const
{
    std::vector<DeviceModel*> out;
    auto add = [&out](DeviceModel* m) {
        if (m && std::find(out.begin(), out.end(), m) == out.end()) out.push_back(m);
    };
    for (const auto& entry : prefixes_) add(entry.second.get());
    for (const auto& entry : majors_) add(entry.second.get());
    add(sockets_.get());
    return out;
}

void DeviceRegistry::byPrefix(const std::string& prefix, std::shared_ptr<DeviceModel> model)
{
    prefixes_.emplace_back(prefix, std::move(model));
}

void DeviceRegistry::byMajor(bool character, unsigned major, std::shared_ptr<DeviceModel> model)
{
    majors_[{character, major}] = std::move(model);
}

DeviceModel* DeviceRegistry::prefixModel(const std::string& vpath) const
{
    for (const auto& [prefix, model] : prefixes_)
        if (vpath.compare(0, prefix.size(), prefix) == 0) return model.get();
    return nullptr;
}

DeviceModel* DeviceRegistry::majorModel(bool character, unsigned major) const
{
    auto it = majors_.find({character, major});
    return it == majors_.end() ? nullptr : it->second.get();
}

DeviceRegistry DeviceRegistry::standard()
{
    DeviceRegistry r;
    auto ata = std::make_shared<AtaDisk>();
    for (unsigned major : {3u, 22u, 33u, 34u, 56u, 57u, 88u, 89u, 90u, 91u}) r.byMajor(false, major, ata);
    auto scsi = std::make_shared<ScsiDisk>();
    r.byMajor(false, 8, scsi);
    for (unsigned major = 65; major <= 71; ++major) r.byMajor(false, major, scsi);
    for (unsigned major = 128; major <= 135; ++major) r.byMajor(false, major, scsi);
    r.byMajor(true, 21, scsi);  // the generic node
    r.byPrefix("/sys/", std::make_shared<SysfsModel>());
    addMdModels(r);
    addDspModel(r);
    addCharonModel(r);
    addNvramModel(r);
    tw::addTwModels(r);
    r.byPrefix("/proc/devices", std::make_shared<tw::ProcDevicesFile>());
    r.byPrefix("/proc/scsi/scsi", std::make_shared<tw::ProcScsiFile>());
    r.forSockets(std::make_shared<NetModel>());
    return r;
}

} // namespace sim
