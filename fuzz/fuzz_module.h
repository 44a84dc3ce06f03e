// A simulated module for the fuzz targets that run the system's code on
// fuzzed disk bytes: made once in a temporary directory and installed as the
// platform for the whole run.
#pragma once

#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <system_error>
#include <vector>
#include <string>

#include "platform/platform.h"
#include "sim/create.h"
#include "sim/sim_platform.h"

namespace fuzzmodule {

// A new directory "/tmp/PREFIX.XXXXXX", removed with all it holds when the
// process exits (a replay test or a fuzz run leaves nothing behind; a crash
// leaves it for the inquiry).
inline std::string tempDir(const std::string& prefix)
{
    std::string templ = "/tmp/" + prefix + ".XXXXXX";
    if (!mkdtemp(templ.data())) std::abort();
    static std::vector<std::string> made;
    if (made.empty())
        std::atexit([] {
            for (const std::string& dir : made) {
                std::error_code ignored;
                std::filesystem::remove_all(dir, ignored);
            }
        });
    made.push_back(templ);
    return templ;
}

// `prefix` names the temporary directory ("/tmp/PREFIX.XXXXXX").
inline sim::SimPlatform& install(const std::string& prefix, uint64_t sectors)
{
    const std::string templ = tempDir(prefix);
    sim::CreateOptions options;
    options.sectors = sectors;
    if (!sim::createModule(templ + "/m", options).empty()) std::abort();
    static sim::SimPlatform platform(templ + "/m");
    static plat::ScopedPlatform scope(platform);
    return platform;
}

inline void writeAt(const char* path, off_t offset, const void* data, size_t size)
{
    int fd = plat::open(path, O_WRONLY);
    if (fd < 0) std::abort();
    plat::pwrite(fd, data, size, offset);
    plat::close(fd);
}

} // namespace fuzzmodule
