#include "tw_api/tw_api_os_linux.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <memory>
#include <new>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include "platform/platform.h"
#include "tw_api/tw_api_cont_7000.h"
#include "tw_api/tw_api_cont_9000.h"

static int giDebug_tw_os = 0;
#define TAV_DEBUG_FLAG giDebug_tw_os
#include "driveutils/tavlog.h"

namespace {

// A character device with permissions 0600.
constexpr mode_t kNodeMode = 8576;
static_assert(kNodeMode == (S_IFCHR | 0600));

void set_os(int error) { tw_api_set_error(twp::kFlagOs, 0, uint32_t(error), 0, 0, nullptr); }

// The host number an entry name gives: its leading digits, from `skip` on.
// -1 when there are none or the number is too big to be a host.
int host_number(const char* name, size_t skip)
{
    if (std::strlen(name) < skip) return -1;
    const char* p = name + skip;
    if (*p < '0' || *p > '9') return -1;
    long value = 0;
    for (; *p >= '0' && *p <= '9'; ++p) {
        value = value * 10 + (*p - '0');
        if (value > 1000000) return 1000000;
    }
    return int(value);
}

} // namespace

linux_os::linux_os()
{
    std::memset(nodes_, 0, sizeof nodes_);
    found_controllers_ = 0;
    setup_nodes("twe", "3w-xxxx");
    setup_nodes("twa", "3w-9xxx");
    if (found_controllers_ == 0) twp::set_api(1);
}

const char* linux_os::node(int controller) const
{
    if (controller < 0 || controller >= kSlots) return "";
    return nodes_[controller];
}

bool linux_os::make_node(const char* path, unsigned major, unsigned minor)
{
    const dev_t dev = makedev(major, minor);
    struct stat st {};
    if (plat::stat(path, &st) == 0) {
        if (S_ISCHR(st.st_mode) && st.st_rdev == dev) return true;
        // Something else stands there: a stale file or another device.
        if (plat::unlink(path) != 0) {
            set_os(errno);
            return false;
        }
    }
    if (plat::mknod(path, kNodeMode, dev) != 0) {
        set_os(errno);
        return false;
    }
    return true;
}

int linux_os::setup_nodes(const char* prefix, const char* driver)
{
    // 1. The driver's major number, from the pairs of words of "/proc/devices".
    long major = -1;
    FILE* devices = plat::fopen("/proc/devices", "r");
    if (!devices) {
        set_os(errno);
    } else {
        // Each word is read into 64 bytes at most; a longer word goes on as
        // the next word, which shifts the pairs as an odd count does.
        char first[64];
        char second[64];
        const size_t prefixLength = std::strlen(prefix);
        while (std::fscanf(devices, "%63s %63s", first, second) == 2) {
            if (std::strncmp(second, prefix, prefixLength) != 0) continue;
            // A pair whose first word is no number names no major: go on.
            char* end = nullptr;
            errno = 0;
            long value = std::strtol(first, &end, 10);
            if (end == first || *end != '\0' || errno != 0 || value < 0 || value > 4095) continue;
            major = value;
            break;
        }
        std::fclose(devices);
    }
    // 2.
    if (major < 0) {
        twp::set_api(1);
        return -1;
    }

    // 3. The 16 nodes.
    char path[kSlotSize];
    for (int minor = 0; minor < kSlots; ++minor) {
        std::snprintf(path, sizeof path, "/dev/%s%d", prefix, minor);
        if (!make_node(path, unsigned(major), unsigned(minor))) return -1;
    }

    // 4. The hosts of the driver: "/proc/scsi/<driver>", else sysfs.
    char dirPath[64];
    std::snprintf(dirPath, sizeof dirPath, "/proc/scsi/%s", driver);
    bool sysfs = false;
    DIR* dir = plat::opendir(dirPath);
    if (!dir) {
        sysfs = true;
        dir = plat::opendir("/sys/class/scsi_host");
        if (!dir) {
            set_os(errno);
            return -1;
        }
    }

    // 5. Each host gets the highest node that opens. The walk starts again
    // at 15 for every host, so two controllers of one family both get the
    // same node: this is how it has always been, and it is kept.
    while (struct dirent* entry = readdir(dir)) {
        const char* name = entry->d_name;
        if (name[0] == '.') continue;
        if (sysfs) {
            char stats[sizeof entry->d_name + 48];
            std::snprintf(stats, sizeof stats, "%s/%s/stats", "/sys/class/scsi_host", name);
            struct stat st {};
            if (plat::stat(stats, &st) != 0) continue;
        }
        const int host = host_number(name, sysfs ? 4 : 0);
        if (host < 0) {
            TAV_LOG(TAV_LOG_L5, "setup_nodes: %s: no host number in \"%s\", skipped %s:%d\n", driver, name,
                    TAV_FILE, __LINE__);
            continue;
        }
        if (host >= kSlots) {
            TAV_LOG(TAV_LOG_L5, "setup_nodes: %s: host %d is beyond the %d slots, skipped %s:%d\n", driver, host,
                    kSlots, TAV_FILE, __LINE__);
            continue;
        }
        for (int minor = kSlots - 1; minor >= 0; --minor) {
            std::snprintf(path, sizeof path, "/dev/%s%d", prefix, minor);
            int fd = plat::open(path, O_RDWR);
            if (fd < 0) continue;
            plat::close(fd);
            std::snprintf(nodes_[host], kSlotSize, "%s", path);
            ++found_controllers_;
            break;
        }
    }
    closedir(dir);
    return 0;
}

int linux_os::os_get_controller_id_list(tw_id_list_type* list)
{
    std::memset(list->list, 0xFF, sizeof list->list);
    int n = 0;
    for (int slot = 0; slot < kSlots; ++slot)
        if (nodes_[slot][0] != '\0') tw_create_controller_id(slot, &list->list[n++]);
    list->length = n;
    return 0;
}

int linux_os::slot_of(tw_id_type id)
{
    const int slot = id.id[1];
    if (slot >= kSlots || nodes_[slot][0] == '\0') {
        tw_api_clear_error();
        twp::set_api(8);
        return -1;
    }
    return slot;
}

int linux_os::open_controller(tw_id_type id, int* fd)
{
    const int slot = slot_of(id);
    if (slot < 0) return -1;
    *fd = plat::open(nodes_[slot], O_RDWR);
    if (*fd < 0) {
        const int error = errno;
        tw_api_clear_error();
        set_os(error);
        return -1;
    }
    return 0;
}

int linux_os::controllers_architecture(tw_id_type id)
{
    const int slot = slot_of(id);
    if (slot < 0) return -1;
    // "/dev/twe" or "/dev/twa": the letter at index 7 names the family.
    int family;
    switch (nodes_[slot][7]) {
    case 'e': family = 3; break;
    case 'a': family = 4; break;
    default: return -1;
    }

    const twp::FamilyTable& table = family == 3 ? twp::kTable7000 : twp::kTable9000;
    const twp::Param& compat = table[twp::Item::Compatibility];
    uint8_t bytes[4] = {};
    static_assert(sizeof bytes >= 2);
    const int read = family == 3
        ? c7000.ioctl_get_param(id, compat.table, compat.parameter, compat.size, bytes, 0)
        : c9000.get_parameter(id, bytes, sizeof bytes, compat.table, compat.parameter, compat.size);
    if (read != 0) {
        twp::set_api(71);
        return -1;
    }
    const int number = bytes[0] | (bytes[1] << 8);
    const int low = family == 3 ? twp::kCompat7000Low : twp::kCompat9000Low;
    const int high = family == 3 ? twp::kCompat7000High : twp::kCompat9000High;
    if (number <= low) {
        twp::set_api(66);
        return -1;
    }
    if (number >= high) {
        twp::set_api(67);
        return -1;
    }
    return family;
}

int linux_os::send_7000_ioctl_to_controller(int fd, TAG_GP_Command* command, void* data, uint32_t length,
                                            unsigned long code)
{
    const size_t total = size_t(length) + twp::k7000DataOffset;
    std::unique_ptr<uint8_t[]> buffer(new (std::nothrow) uint8_t[total]());
    if (!buffer) {
        twp::set_api(7);
        return -1;
    }
    TAG_TW_New_Ioctl head {};
    head.data_buffer_length = length;
    head.firmware_command = *command;
    std::memcpy(buffer.get(), &head, sizeof head);
    if (data && length) std::memcpy(buffer.get() + twp::k7000DataOffset, data, length);

    errno = 0;
    const int result = plat::ioctl(fd, code, buffer.get());
    const int error = errno;
    std::memcpy(command, buffer.get() + offsetof(TAG_TW_New_Ioctl, firmware_command), sizeof *command);
    if (result < 0 && command->status == 0) {
        tw_api_clear_error();
        set_os(error);
        return -1;
    }
    if (command->status != 0) {
        // The controller code is the logical "or" of the status and flags
        // bytes, so 1, never the status itself; kept as it always was. The
        // caller reads the status from the command.
        const uint32_t controllerCode = command->status || command->flags;
        tw_api_set_error(twp::kFlag7000 | twp::kFlagController, 0, 0, 0, controllerCode, nullptr);
        return -1;
    }
    if (data && length) std::memcpy(data, buffer.get() + twp::k7000DataOffset, length);
    return 0;
}

int linux_os::send_9000_ioctl_to_controller(int fd, TAG_GP_Command_Driver* driver, TAG_GP_Command_Full* firmware,
                                            void* data, uint32_t length)
{
    const size_t total = size_t(length) + twp::k9000DataOffset;
    std::unique_ptr<uint8_t[]> buffer(new (std::nothrow) uint8_t[total]());
    if (!buffer) {
        twp::set_api(7);
        return -1;
    }
    TAG_TW_Ioctl_Apache head {};
    head.driver_command = *driver;
    head.driver_command.buffer_length = length;
    head.firmware_command = *firmware;
    head.firmware_command.header.header_desc[0] = twp::kHeaderDescSize;
    std::memcpy(buffer.get(), &head, sizeof head);
    if (data && length) std::memcpy(buffer.get() + twp::k9000DataOffset, data, length);

    // A busy driver is asked again 1 ms later, 1000 tries in all; after the
    // last the driver's status in the buffer decides.
    int result = -1;
    for (int tries = 1;; ++tries) {
        errno = 0;
        result = plat::ioctl(fd, driver->control_code, buffer.get());
        if (result >= 0 || errno != EBUSY || tries == twp::kBusyTries) break;
        plat::usleep(twp::kBusyWaitUsec);
    }
    if (result < 0 && errno != EBUSY) {
        set_os(errno);
        return -1;
    }

    std::memcpy(driver, buffer.get(), sizeof *driver);
    if (driver->status == twp::kDriverStatusNoEvent || driver->status == twp::kDriverStatusEventOutOfRange) return 0;
    if (driver->status != 0) {
        tw_api_set_error(twp::kFlag9000 | twp::kFlagDriver, 0, 0, driver->status, 0, nullptr);
        return -1;
    }
    std::memcpy(firmware, buffer.get() + offsetof(TAG_TW_Ioctl_Apache, firmware_command), sizeof *firmware);
    if (firmware->command.status == 0) {
        if (data && length) std::memcpy(data, buffer.get() + twp::k9000DataOffset, length);
        return 0;
    }
    char text[sizeof firmware->header.err_specific_desc + 1];
    std::memcpy(text, firmware->header.err_specific_desc, sizeof firmware->header.err_specific_desc);
    text[sizeof text - 1] = '\0';
    tw_api_set_error(twp::kFlag9000 | twp::kFlagController, 0, 0, 0, firmware->header.status_block.error, text);
    return -1;
}

int linux_os::wasOSNotified(int host, int id, bool* present)
{
    *present = false;
    FILE* in = plat::fopen("/proc/scsi/scsi", "r");
    if (!in) {
        twp::set_api(21);
        return -1;
    }
    char line[200];
    int result = 0;
    while (std::fgets(line, sizeof line, in)) {
        const char* at = std::strstr(line, "Host: scsi");
        if (!at) continue;
        int h = 0, channel = 0, target = 0;
        if (std::sscanf(at, "Host: scsi%d Channel: %d Id: %d Lun:", &h, &channel, &target) != 3) {
            twp::set_api(21);
            result = -1;
            break;
        }
        if (h == host && target == id) *present = true;
    }
    std::fclose(in);
    return result;
}

int linux_os::scan_bus_for_units(int controller, int unit, int add)
{
    if (add != 0 && add != 1) {
        twp::set_api(21);
        return -1;
    }
    bool present = false;
    if (wasOSNotified(controller, unit, &present) != 0) return -1;
    if (bool(add) == present) return 0;  // the kernel already agrees

    char line[80];
    std::snprintf(line, sizeof line, add ? "scsi add-single-device %d 0 %d 0" : "scsi remove-single-device %d 0 %d 0",
                  controller, unit);
    const uint32_t failure = add ? 70 : 69;
    int fd = plat::open("/proc/scsi/scsi", O_WRONLY);
    if (fd < 0) {
        tw_api_set_error(twp::kFlagApi | twp::kFlagOs, failure, uint32_t(errno), 0, 0, nullptr);
        return -1;
    }
    const size_t length = std::strlen(line);
    ssize_t written;
    do {
        written = plat::write(fd, line, length);
    } while (written < 0 && errno == EINTR);
    const int error = errno;
    plat::close(fd);
    if (written != ssize_t(length)) {
        tw_api_set_error(twp::kFlagApi | (written < 0 ? twp::kFlagOs : 0), failure, written < 0 ? uint32_t(error) : 0,
                         0, 0, nullptr);
        return -1;
    }
    return 0;
}

int linux_os::close(int fd) { return plat::close(fd); }
