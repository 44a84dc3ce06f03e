// The texts of the service commands from the management plane, on a module
// where no daemon is prepared: the Daemon files are there, the Init files and
// every "ok" file are not, so nothing is ever forked. Byte 0 picks the command
// (and the type for the argument commands), the rest is its text.
#include <cstdlib>
#include <string>

#include "driveutils/ondraComm.h"
#include "driveutils/ondraInterface.h"
#include "driveutils/ondraProcess.h"
#include "fuzz_module.h"

namespace {

void putFile(const char* path, const std::string& text)
{
    FILE* f = plat::fopen(path, "w");
    if (!f) std::abort();
    std::fwrite(text.data(), 1, text.size(), f);
    std::fclose(f);
}

void resetDaemonFiles()
{
    const char* dirs[3] = {"/var/ondra/store", "/var/ondra/vmgr", "/var/ondra/mgr"};
    for (int type = 0; type < 3; ++type)
        putFile(ondraCfgFiles[ONDRA_RUN_DAEMON][type], std::string(ondraSections[type]) +
                                                           "\n/nonexistent/daemon\n--dir\n" + dirs[type] + "\nEND\n");
}

TavOndraInterface& facade()
{
    static TavOndraInterface* made = [] {
        fuzzmodule::install("ondra-service-fuzz", 1 << 16);
        for (const char* dir : {"/etc/marrowby", "/etc/marrowby/store", "/etc/marrowby/virtualmanager",
                                "/etc/marrowby/manager", "/etc/marrowby/comm", "/var/ondra"})
            plat::mkdir(dir, 0755);
        auto* f = new TavOndraInterface;
        f->tavOndraProcs = new TavOndraProcess[3];
        for (int type = 0; type < 3; ++type) f->tavOndraProcs[type].type(type);
        TavOndraComm::initialized = true;
        return f;
    }();
    return *made;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    TavOndraInterface& f = facade();
    if (size < 1) return 0;
    resetDaemonFiles();
    TavString none = "NO_SYSTEM_ID";
    f.setSystemId(none);
    TavString buffer(std::string(reinterpret_cast<const char*>(data) + 1, size - 1).c_str());
    const int type = data[0] % 3;
    switch ((data[0] / 3) % 7) {
    case 0: f.join(buffer); break;
    case 1: f.managerStart(buffer); break;
    case 2: f.virtualmanagerStart(buffer); break;
    case 3: f.setSystemId(buffer); break;
    case 4: f.addArgs(buffer, type); break;
    case 5: f.deleteArgs(buffer, type); break;
    default: {
        TavString first = "sys1";
        f.setSystemId(first);
        f.setSystemId(buffer);
        f.getMd5(buffer);
    }
    }
    for (int t = 0; t < 3; ++t)
        if (f.tavOndraProcs[t].pId() > 0) std::abort();  // nothing may have been started
    return 0;
}
