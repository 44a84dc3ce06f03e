// A module with the simulated NVRAM card, installed as this process's
// platform, and a logger that keeps the library's lines.
#pragma once

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "nvram/nvram_api.h"
#include "sim/create.h"
#include "sim/module.h"
#include "sim/nvram.h"
#include "sim/sim_fixture.h"
#include "sim/sim_platform.h"

namespace nvtest {

inline std::vector<std::string>& lines()
{
    static std::vector<std::string> kept;
    return kept;
}

inline void capture(const char* text) { lines().push_back(text); }

inline bool logged(const std::string& line)
{
    return std::find(lines().begin(), lines().end(), line) != lines().end();
}

inline size_t loggedStarting(const std::string& prefix)
{
    return static_cast<size_t>(std::count_if(lines().begin(), lines().end(),
                                             [&](const std::string& l) { return l.rfind(prefix, 0) == 0; }));
}

class NvramCard : public testing::Test {
protected:
    explicit NvramCard(const sim::NvramGeometry& geometry = {}) : temp_(1, false)
    {
        GTEST_FLAG_SET(death_test_style, "threadsafe");
        sim::CreateOptions options;
        options.platform = 1;
        options.identityOnly = true;
        EXPECT_EQ(sim::createModule(temp_.dir(), options), "");
        platform_ = std::make_unique<sim::SimPlatform>(temp_.dir());
        scope_ = std::make_unique<plat::ScopedPlatform>(*platform_);
        EXPECT_EQ(sim::nvramAdd(module(), geometry), "");
        lines().clear();
    }
    ~NvramCard() override
    {
        scope_.reset();
        platform_.reset();
    }

    sim::Module& module() { return platform_->module(); }
    sim::NvramCard card() { return sim::nvramState(module()); }
    void change(const std::function<void(sim::NvramCard&)>& f) { sim::nvramUpdate(module(), f); }
    uint32_t eeprom(uint32_t address) { return sim::nvramEeprom(module(), address) & ~NVRAM_EEPROM_PARITY; }
    uint32_t setupBits() { return card().setup(); }

    // Opens read-write (a result of `expected`) with the capturing logger.
    nvram_t open(nvram_mode_t mode = NVRAM_MODE_READ_WRITE, nvram_error_t expected = NVRAM_SUCCESS)
    {
        nvram_t handle = nullptr;
        EXPECT_EQ(nvram_open(NVRAM_DEVICE, mode, &handle, capture), expected);
        return handle;
    }
    nvram_t openWritable()
    {
        nvram_t handle = open();
        EXPECT_NE(handle, nullptr);
        if (handle) {
            EXPECT_EQ(nvram_set_nvram_writable(handle, 1), NVRAM_SUCCESS);
        }
        return handle;
    }

    // The running system's data saved to flash by a host power failure.
    void fillAndFail(uint32_t seed)
    {
        sim::nvramFill(module(), seed);
        EXPECT_EQ(sim::nvramPowerFail(module()), 0u);
    }

    // Every byte of the first `pages` SDRAM pages as nvramFill wrote them.
    void expectRestored(uint32_t seed, uint32_t pages)
    {
        for (uint32_t p = 0; p < pages; ++p) {
            std::vector<uint8_t> page = sim::nvramSdramPage(module(), p);
            uint32_t wrong = 0;
            for (uint32_t o = 0; o < page.size(); ++o) wrong += page[o] != sim::nvramPatternByte(seed, p, o);
            ASSERT_EQ(wrong, 0u) << "sdram page " << p;
        }
    }

    simtest::TempModule temp_;
    std::unique_ptr<sim::SimPlatform> platform_;
    std::unique_ptr<plat::ScopedPlatform> scope_;
};

} // namespace nvtest
