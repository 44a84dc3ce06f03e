// What the tests of signed modules share: a simulated module installed as
// the platform, a maker and a vendor key pair of the simulation's signer,
// and the loader's log caught from standard error.
#pragma once

#include <cstdio>
#include <fstream>
#include <iterator>
#include <string>

#include <gtest/gtest.h>

#include "platform/platform.h"
#include "sim/module_signer.h"
#include "sim/sim_fixture.h"
#include "tavutils/tav_cryptokey.h"

// A file of the host, such as a built sample module.
inline std::string readHost(const char* path)
{
    std::ifstream in(path, std::ios::binary);
    return std::string((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}

class SignedModuleTest : public ::testing::Test {
protected:
    SignedModuleTest() : platform_(m_.dir()), scope_(platform_) {}

    // The module's keys file of maker_ and vendor_.
    void writeKeys() { m_.put("./configs/etc/marrowby/module_keys", sim::moduleKeysFile(maker_, vendor_)); }
    // writeKeys, then the file read into tavKey_ and vendorKey_ as a session reads it.
    void writeAndReadKeys()
    {
        writeKeys();
        FILE* keys = plat::fopen("./configs/etc/marrowby/module_keys", "r");
        ASSERT_NE(keys, nullptr);
        tavKey_.readBothKeys(keys);
        vendorKey_.readDecoderKey(keys);
        std::fclose(keys);
    }
    // The built object at `built` signed (or forged) into "./modules/NAME.module"; its path.
    std::string addSigned(const char* built, const std::string& name, sim::Forge forge = sim::Forge::kNone)
    {
        std::string error;
        const std::string bytes = sim::signModule(readHost(built), maker_, vendor_, forge, &error);
        EXPECT_EQ(error, "");
        const std::string path = "./modules/" + name + ".module";
        m_.put(path, bytes);
        return path;
    }
    bool logged(const std::string& text) const { return log_.find(text) != std::string::npos; }

    simtest::TempModule m_;
    sim::SimPlatform platform_;
    plat::ScopedPlatform scope_;
    sim::SignerKey maker_, vendor_;
    tav_cryptoKey tavKey_, vendorKey_;
    std::string log_;
};
