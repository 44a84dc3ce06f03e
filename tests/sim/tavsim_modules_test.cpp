// tavsim modules and mgmt --load: keys made, sample modules signed and
// forged, versions required, and the loader's verdicts as the listing and a
// session show them.
#include <string>

#include <gtest/gtest.h>

#include "sim_fixture.h"

namespace {

using simtest::Captured;
using simtest::TempModule;
using simtest::tavsim;

// The JSON object of `file` in a listing, "" when it is not there.
std::string entry(const std::string& json, const std::string& file)
{
    const size_t at = json.find("\"file\": \"./modules/" + file + ".module\"");
    if (at == std::string::npos) return "";
    return json.substr(at, json.find("\"log\"", at) - at);
}

bool has(const std::string& text, const std::string& part) { return text.find(part) != std::string::npos; }

TEST(TavsimModules, SignedModulesLoadAndEachForgeryIsRefusedWithItsReason)
{
    TempModule m;
    const std::string& d = m.dir();
    EXPECT_EQ(tavsim({"modules", d, "add", "good"}).status, 1);  // no keys yet
    EXPECT_EQ(tavsim({"modules", d, "keys"}).status, 0);
    EXPECT_EQ(tavsim({"modules", d, "keys"}).status, 1);
    EXPECT_EQ(tavsim({"modules", d, "keys", "--force"}).status, 0);

    EXPECT_EQ(tavsim({"modules", d, "add", "good"}).status, 0);
    EXPECT_EQ(tavsim({"modules", d, "add", "noclose"}).status, 0);
    const char* forges[] = {"data", "datasig", "keysig", "vendor", "maker", "truncate", "no-cover", "exact-digest",
                            "no-trailer"};
    for (const char* f : forges) EXPECT_EQ(tavsim({"modules", d, "add", "good", "--forge", f}).status, 0) << f;

    Captured listing = tavsim({"modules", d, "--json"});
    ASSERT_EQ(listing.status, 0);
    const std::string& j = listing.out;
    const std::string good = entry(j, "good");
    EXPECT_TRUE(has(good, "\"open\": 0")) << good;
    EXPECT_TRUE(has(good, "\"version\": \"6.5.1\""));
    EXPECT_TRUE(has(good, "\"dataSignature\": true") && has(good, "\"keySignature\": true") &&
                has(good, "\"vendorKnown\": true"));
    EXPECT_TRUE(has(entry(j, "noclose"), "\"open\": -2"));
    for (const char* f : forges) EXPECT_TRUE(has(entry(j, std::string("good-") + f), "\"open\": -4")) << f;
    // The simulation's own reading agrees with the loader's reason.
    EXPECT_TRUE(has(entry(j, "good-data"), "\"dataSignature\": false"));
    EXPECT_TRUE(has(entry(j, "good-data"), "data signature isn't valid"));
    EXPECT_TRUE(has(entry(j, "good-keysig"), "\"keySignature\": false"));
    EXPECT_TRUE(has(entry(j, "good-maker"), "key signature isn't valid"));
    EXPECT_TRUE(has(entry(j, "good-vendor"), "\"vendorKnown\": false"));
    EXPECT_TRUE(has(entry(j, "good-vendor"), "is unknown"));
    EXPECT_TRUE(has(entry(j, "good-truncate"), "fread of signature failed"));
    EXPECT_TRUE(has(entry(j, "good-no-trailer"), "can't be signed"));
    EXPECT_TRUE(has(entry(j, "good-no-trailer"), "\"trailer\": false"));

    // 6.4.2 is turned away by its version until the versions file asks no more.
    ASSERT_EQ(tavsim({"modules", d, "add", "old"}).status, 0);
    Captured table = tavsim({"modules", d});
    EXPECT_EQ(table.status, 0) << table.err;
    EXPECT_EQ(table.out.rfind("FILE ", 0), 0u);
    EXPECT_TRUE(has(table.out, "Could not load dynamic module. WARNING: bad version, module vendorx hello:-1"))
        << table.out;
    EXPECT_EQ(tavsim({"modules", d, "require", "vendorx.hello", "6.5"}).status, 0);
    EXPECT_EQ(tavsim({"modules", d, "require", "vendorx.hello", "6.4.1"}).status, 0);
    EXPECT_EQ(m.get("./configs/etc/sysconfig/module_versions"), "vendorx.hello:6.4.1\n");
    EXPECT_TRUE(has(entry(tavsim({"modules", d, "--json"}).out, "old"), "\"open\": 0"));
}

TEST(TavsimModules, CommandLineRefusals)
{
    TempModule m;
    const std::string& d = m.dir();
    struct Case {
        std::vector<std::string> args;
        int status;
        const char* text;
    } const cases[] = {
        {{"modules", d, "add", "nosuch"}, 2, "NAME nosuch: no such sample module"},
        {{"modules", d, "add", "good", "--forge", "bits"}, 2, "--forge bits: give one of data, datasig"},
        {{"modules", d, "add", "good", "--as", "../x"}, 2, "--as ../x: give a file name"},
        {{"modules", d, "require", "hello", "6.5"}, 2, "VENDOR.NAME hello: give a vendor and a name"},
        {{"modules", d, "require", "vendorx.hello", "6.x"}, 2, "VERSION 6.x: give two or three numbers"},
        {{"modules", d, "keys", "--forge", "data"}, 2, "keys takes only --force"},
        {{"modules", d, "sign"}, 2, "unexpected argument sign; give keys, add or require"},
        {{"mgmt", d, "--verify", "1", "get:/a/"}, 2, "--verify goes with --load"},
        {{"mgmt", d, "--load", "--verify", "2", "get:/a/"}, 2, "--verify 2: give 0 or 1"},
    };
    for (const Case& c : cases) {
        Captured r = tavsim(c.args);
        EXPECT_EQ(r.status, c.status) << c.text;
        EXPECT_TRUE(has(r.err, c.text)) << r.err;
    }
    Captured none = tavsim({"modules", d});
    EXPECT_EQ(none.status, 0);
    EXPECT_TRUE(has(none.out, "no .module file in"));
}

TEST(TavsimModules, MgmtLoadsTheModulesThatPassAndAnswersTheirKeys)
{
    TempModule m;
    const std::string& d = m.dir();
    ASSERT_EQ(tavsim({"modules", d, "keys"}).status, 0);
    ASSERT_EQ(tavsim({"modules", d, "add", "access"}).status, 0);
    ASSERT_EQ(tavsim({"modules", d, "add", "good", "--forge", "data"}).status, 0);

    Captured loaded = tavsim({"mgmt", d, "--load", "--user", "ann", "get:/tav/public/test/hello/"});
    EXPECT_EQ(loaded.status, 0);
    EXPECT_EQ(loaded.out, "get:/tav/public/test/hello/\n  OK: No Errors\n  OK:hello\n");
    EXPECT_TRUE(has(loaded.err, "Load Session....Modules\n"));
    EXPECT_TRUE(has(loaded.err, "Module: ./modules/access.module\r\n"));
    EXPECT_TRUE(has(loaded.err, "WARNING: Failed to load module ./modules/good-data.module:-4\n"));

    // Unverified, a module loads only if this process certified it before:
    // the one loaded above does, a fresh copy of it does not.
    ASSERT_EQ(tavsim({"modules", d, "add", "access", "--as", "fresh"}).status, 0);
    Captured unverified = tavsim({"mgmt", d, "--load", "--verify", "0", "get:/tav/public/test/hello/"});
    EXPECT_EQ(unverified.out, "get:/tav/public/test/hello/\n  OK: No Errors\n  OK:hello\n");
    EXPECT_TRUE(has(unverified.err, "WARNING: Failed to load module ./modules/fresh.module:-4\n")) << unverified.err;
}

} // namespace
