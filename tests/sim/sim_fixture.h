// A fresh simulated module in a temporary directory of the test's own.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <unistd.h>
#include <vector>

#include <gtest/gtest.h>

#include "sim/create.h"
#include "sim/sim_platform.h"
#include "sim/tavsim.h"

namespace simtest {

constexpr const char* kDisc1 = "/dev/ide/host0/bus0/target0/lun0/disc";
constexpr const char* kDir1 = "/dev/ide/host0/bus0/target0/lun0/";
constexpr const char* kDisc3 = "/dev/ide/host0/bus1/target1/lun0/disc";
constexpr uint64_t kSectors = 8 * 1024 * 1024;  // 4 GiB, sparse

class TempModule {
public:
    explicit TempModule(int platform = 1, bool create = true)
    {
        // A death test run anew by its own process makes its modules again,
        // and may die without a destructor: its directories carry the
        // parent's pid, and the parent's modules take them away.
        std::string templ = deathTestChild() ? childPrefix(::getppid()) + "XXXXXX" : "/tmp/tavsim-test.XXXXXX";
        const char* made = ::mkdtemp(templ.data());
        if (!made) std::abort();
        dir_ = std::string(made) + "/m";
        if (create) {
            sim::CreateOptions options;
            options.platform = platform;
            options.sectors = kSectors;
            std::string err = sim::createModule(dir_, options);
            EXPECT_EQ(err, "");
        }
    }
    ~TempModule()
    {
        std::error_code ignored;
        std::filesystem::remove_all(std::filesystem::path(dir_).parent_path(), ignored);
        if (deathTestChild()) return;
        const std::string prefix = childPrefix(::getpid());
        const std::filesystem::path tmp = std::filesystem::path(prefix).parent_path();
        const std::string stem = std::filesystem::path(prefix).filename().string();
        for (const auto& entry : std::filesystem::directory_iterator(tmp, ignored))
            if (entry.path().filename().string().rfind(stem, 0) == 0) std::filesystem::remove_all(entry.path(), ignored);
    }
    const std::string& dir() const { return dir_; }
    std::string host(const std::string& rel) const { return dir_ + "/" + rel; }

    // Files of the module by the system's path ("/etc/...", "./configs/...").
    std::string map(const std::string& path) const
    {
        return dir_ + (path.compare(0, 2, "./") == 0 ? path.substr(1) : path);
    }
    void put(const std::string& path, const std::string& text) const
    {
        std::filesystem::path file = map(path);
        std::filesystem::create_directories(file.parent_path());
        std::ofstream(file, std::ios::binary) << text;
    }
    bool exists(const std::string& path) const { return std::filesystem::exists(map(path)); }
    std::string get(const std::string& path) const
    {
        std::ifstream in(map(path), std::ios::binary);
        std::stringstream text;
        text << in.rdbuf();
        return text.str();
    }

private:
    static bool deathTestChild() { return !GTEST_FLAG_GET(internal_run_death_test).empty(); }
    static std::string childPrefix(pid_t parent) { return "/tmp/tavsim-test.child-" + std::to_string(parent) + "."; }

    std::string dir_;
};

// Gives the empty module directory of `m` the identity files of `platform`
// and no bays; "" or why not.
inline std::string createIdentityOnly(const TempModule& m, int platform)
{
    sim::CreateOptions options;
    options.platform = platform;
    options.identityOnly = true;
    return sim::createModule(m.dir(), options);
}

// A primary table and an extended chain of `logicals` sizes, as the drive
// code lays them out; returns (sector, 512 bytes) to write.
struct TableSector {
    uint64_t sector;
    std::vector<unsigned char> bytes;
};

inline void putEntry(std::vector<unsigned char>& s, int slot, unsigned type, uint32_t start, uint32_t count)
{
    unsigned char* e = s.data() + 446 + 16 * slot;
    e[4] = static_cast<unsigned char>(type);
    for (int i = 0; i < 4; ++i) {
        e[8 + i] = static_cast<unsigned char>(start >> (8 * i));
        e[12 + i] = static_cast<unsigned char>(count >> (8 * i));
    }
}

inline std::vector<unsigned char> emptyTable()
{
    std::vector<unsigned char> s(512, 0);
    s[510] = 0x55;
    s[511] = 0xAA;
    return s;
}

// Signature 2048 at 1, boot 20480 at 2049, data at 22529, then three logicals.
inline std::vector<TableSector> standardLayout(uint32_t data, uint32_t os, uint32_t upgrade, uint32_t log)
{
    const uint32_t e = 22529 + data;
    std::vector<TableSector> out;
    auto p = emptyTable();
    putEntry(p, 0, 0x83, 1, 2048);
    putEntry(p, 1, 0x83, 22529, data);
    putEntry(p, 2, 0x83, 2049, 20480);
    putEntry(p, 3, 0x05, e, 6 + os + upgrade + log);
    out.push_back({0, p});
    auto l1 = emptyTable();
    putEntry(l1, 0, 0x83, 1, os);
    putEntry(l1, 1, 0x05, os + 2, 4 + upgrade + log);
    out.push_back({e, l1});
    auto l2 = emptyTable();
    putEntry(l2, 0, 0x83, 1, upgrade);
    putEntry(l2, 1, 0x05, os + upgrade + 4, log + 2);
    out.push_back({e + os + 2, l2});
    auto l3 = emptyTable();
    putEntry(l3, 0, 0x83, 1, log);
    out.push_back({e + os + upgrade + 4, l3});
    return out;
}

// Runs the tavsim command line in-process.
inline int callTavsim(std::vector<std::string> args)
{
    args.insert(args.begin(), "tavsim");
    std::vector<char*> argv;
    for (std::string& a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    return sim::tavsimMain(static_cast<int>(args.size()), argv.data());
}

// tavsim in-process with its exit status and both streams.
struct Captured {
    int status;
    std::string out, err;
};

inline Captured tavsim(const std::vector<std::string>& args)
{
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    int status = callTavsim(args);
    std::string out = testing::internal::GetCapturedStdout();
    return {status, out, testing::internal::GetCapturedStderr()};
}

} // namespace simtest
