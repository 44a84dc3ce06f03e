// tavsim nvram DIR recover | status: the system's own NVRAM library and card
// class run against the module's card, so that a person can watch a power
// failure and its recovery from the shell.
#include <cerrno>
#include <cstdio>
#include <iostream>
#include <string>
#include <sys/wait.h>
#include <unistd.h>

#include "driveutils/tav_nvram.h"
#include "driveutils/tav_rqdc_nvram.h"
#include "driveutils/tavdrivemgr.h"
#include "nvram.h"
#include "nvram/nvram_api.h"
#include "platform/platform.h"
#include "sim_platform.h"
#include "json.h"
#include "table.h"
#include "tavsim_cli.h"

namespace sim::cli {
namespace {

void printLine(const char* text)
{
    std::printf("%s\n", text);
    std::fflush(stdout);
}

// The library's recovery, as the storage server runs it at start-up: open
// read-write, allow writing, restore, close. 0 when the data came back.
int recoverChild(const std::string& dir)
{
    SimPlatform platform(dir);
    plat::ScopedPlatform scope(platform);
    nvram_t handle = nullptr;
    nvram_error_t e = nvram_open(NVRAM_DEVICE, NVRAM_MODE_READ_WRITE, &handle, printLine);
    if (e != NVRAM_SUCCESS) {
        std::printf("open: %s\n", nvram_error_str(e));
        if (handle) nvram_close(handle);
        return 1;
    }
    e = nvram_set_nvram_writable(handle, 1);
    if (e == NVRAM_SUCCESS) e = nvram_recover_flash_to_sdram(handle);
    std::printf("recovery: %s\n", nvram_error_str(e));
    nvram_close(handle);
    return e == NVRAM_SUCCESS ? 0 : 1;
}

} // namespace

// The library may stop the process on purpose (lost SDRAM, a failed
// transfer): it runs in a child, and tavsim reports how the child ended.
int nvramRecover(const Call& call, Module& module)
{
    std::fflush(stdout);
    std::cout.flush();
    pid_t pid = fork();
    if (pid < 0) return refused(call, "recover: cannot start the recovery");
    if (pid == 0) {
        int status = recoverChild(module.dir());
        std::fflush(stdout);
        _exit(status);
    }
    int status = 0;
    while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
    }
    const NvramCard c = nvramState(module);
    const std::string validity = std::string("validity ") + nvramValidityText(c.validity());
    if (WIFSIGNALED(status))
        return refused(call, "recover: the library stopped the process (signal " + std::to_string(WTERMSIG(status)) +
                                 "); " + validity);
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) return refused(call, "recover: failed; " + validity);
    report("recovered; " + validity);
    return kDone;
}

// The card as the monitoring sees it, through the card class.
int nvramStatus(const Call& call, Module& module, bool json)
{
    SimPlatform platform(module.dir());
    plat::ScopedPlatform scope(platform);
    delete TavDriveMgr::requiredNVRamCards;
    TavDriveMgr::requiredNVRamCards = TavDriveMgr::initRequiredNVRamCards();
    RaidDeviceMgmt::TavRqdcNVRam card(0);
    struct Row {
        const char* name;
        std::string value;
        int rc = 0;
    };
    std::vector<Row> rows;
    for (const char* name : {"model", "serial", "driver", "hardware", "firmware", "memory_kib", "battery", "validity", "state"})
        rows.push_back(Row{name, "", 0});
    rows[0].rc = card.getModel(rows[0].value);
    rows[1].rc = card.getSerialNoString(rows[1].value);
    rows[2].rc = card.getDriverVersion(rows[2].value);
    rows[3].rc = card.getHWVersion(rows[3].value);
    rows[4].rc = card.getFWVersion(rows[4].value);
    rows[5].rc = card.getMemorySize(rows[5].value);
    std::string error;
    card.getBatteryVoltage(rows[6].value, error);
    rows[7].rc = card.getValidity(rows[7].value);
    card.getStateString(rows[8].value);
    delete TavDriveMgr::requiredNVRamCards;
    TavDriveMgr::requiredNVRamCards = nullptr;
    if (rows[0].rc == 0 && rows[1].rc != 0) return refused(call, "status: " + rows[1].value);
    if (json) {
        JsonWriter out(std::cout);
        out.beginObject();
        for (const Row& r : rows) out.key(r.name).string(r.value);
        out.endObject();
        return kDone;
    }
    Table t({"FIELD", "VALUE"});
    for (const Row& r : rows) t.add({r.name, r.value});
    t.print(std::cout);
    return kDone;
}

} // namespace sim::cli
