// The argument vector of a daemon and the files it is built from.
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "ondra_fixture.h"
#include "hwlib/tavhwid.h"
#include "sim/faults.h"

using ondratest::capture;
using ondratest::OndraModule;

namespace {

const char* kStoreDaemonCfg = "/etc/marrowby/store/ondraStoreDaemon.cfg";

std::vector<std::string> vectorOf(const TavOndraProcess& p)
{
    std::vector<std::string> out;
    for (int i = 0; i < p.argCount(); ++i) out.push_back(p.arg(i) ? p.arg(i) : "(null)");
    return out;
}

void freeAll(char* (&args)[65])
{
    for (char*& a : args) {
        std::free(a);
        a = nullptr;
    }
}

class OndraArgs : public OndraModule {
protected:
    OndraArgs() { store_.type(ONDRA_PROC_STORE); }
    TavOndraProcess store_;
};

TEST_F(OndraArgs, ANewProcessHasItsDefaultsAndRefusesOtherTypes)
{
    TavOndraProcess p;
    EXPECT_EQ(p.type(), ONDRA_PROC_NONE);
    EXPECT_EQ(p.state(), ONDRA_RUN_IDLE);
    EXPECT_EQ(p.pId(), -1);
    EXPECT_EQ(p.initMd5(), "NO_MD5");
    EXPECT_EQ(p.ipAddressString(), "127.0.0.1");
    EXPECT_EQ(p.raidLevelString(), "unknown");
    EXPECT_EQ(p.mgrName(), "NO_PROCESS_NAME");
    EXPECT_EQ(p.storeName(), "NO_PROCESS_NAME");
    EXPECT_FALSE(p.first());
    p.type(ONDRA_PROC_NONE);
    p.type(-1);
    EXPECT_EQ(p.type(), ONDRA_PROC_NONE);
    p.type(ONDRA_PROC_MANAGER);
    EXPECT_EQ(p.type(), ONDRA_PROC_MANAGER);
    // Idle selects no file; with no type nothing is read either.
    TavOndraProcess none;
    TavString buffer;
    EXPECT_EQ(none.setArgs(buffer), -1);
    EXPECT_EQ(buffer, "Invalid state");
    EXPECT_EQ(none.killLeftOverProcess(), -1);
    EXPECT_EQ(none.state(), ONDRA_RUN_DAEMON);
    EXPECT_EQ(none.setArgs(buffer), -1);
    EXPECT_EQ(buffer, "Invalid type");
    EXPECT_EQ(none.path(), -1);
    EXPECT_STREQ(none.dataPathText(), "");
    // A type whose configuration was never read has an empty path.
    char*& entry = _don_t_use_this_data_directly::newdataPaths[ONDRA_PROC_MANAGER];
    char* kept = std::exchange(entry, nullptr);
    TavOndraProcess fresh;
    fresh.type(ONDRA_PROC_MANAGER);
    EXPECT_EQ(fresh.path(), 0);
    EXPECT_STREQ(fresh.dataPathText(), "");
    entry = kept;
}

TEST_F(OndraArgs, SectionsLoadToTheirEndOrToTheEndOfTheFile)
{
    temp_.put("/etc/a.cfg", "MANAGER\n/bin/x\nEND\nSTORAGE\n/bin/store\n--dir\n/var/d1/d2/d3\n--trans_dir\n/var/t1/t2\n");
    char* args[65] = {};
    ASSERT_EQ(loadArgs(args, 64, "/etc/a.cfg", "STORAGE", 0), 5);  // no END: to the end, and found
    EXPECT_STREQ(args[0], "/bin/store");
    EXPECT_STREQ(args[4], "/var/t1/t2");
    freeAll(args);
    EXPECT_STREQ(getDataPath(0), "/var/d1/d2/d3");
    // Only the directories before the last slash are made.
    EXPECT_TRUE(temp_.exists("/var/d1/d2"));
    EXPECT_FALSE(temp_.exists("/var/d1/d2/d3"));
    EXPECT_TRUE(temp_.exists("/var/t1"));
    EXPECT_FALSE(temp_.exists("/var/t1/t2"));

    EXPECT_EQ(loadArgs(args, 64, "/etc/a.cfg", "VIRTUALMANAGER", 1), -1);
    EXPECT_EQ(loadArgs(args, 64, "/etc/none.cfg", "STORAGE", 0), -1);
    // The count stops at maxArgs.
    ASSERT_EQ(loadArgs(args, 2, "/etc/a.cfg", "STORAGE", 0), 2);
    freeAll(args);

    // A null vector stores nothing, but learns the data path.
    setDataPath("/elsewhere", 2);
    EXPECT_EQ(loadArgs(nullptr, 64, "/etc/marrowby/manager/ondraMgrDaemon.cfg", "MANAGER", 2), 0);
    EXPECT_STREQ(getDataPath(2), "/var/ondra/mgr");
    EXPECT_EQ(getDataPath(3), nullptr);
}

TEST_F(OndraArgs, OddFilesGetADefinedVector)
{
    // Lines longer than 1023 characters come in pieces; a NUL ends a line's text.
    std::string longLine(1500, 'a');
    std::string text = std::string("STORAGE\n") + longLine + "\nab" + std::string(1, '\0') + "cd\nlast";
    temp_.put("/etc/odd.cfg", text);
    char* args[65] = {};
    ASSERT_EQ(loadArgs(args, 64, "/etc/odd.cfg", "STORAGE", 0), 4);
    EXPECT_EQ(std::strlen(args[0]), 1023u);
    EXPECT_EQ(std::strlen(args[1]), 477u);
    EXPECT_STREQ(args[2], "ab");
    EXPECT_STREQ(args[3], "last");
    freeAll(args);

    // A data path too long for the directory maker is logged, not made.
    std::string deep = "/var/" + std::string(300, 'd') + "/x/y";
    temp_.put("/etc/deep.cfg", "STORAGE\n--dir\n" + deep + "\nEND\n");
    auto c = capture([&] { EXPECT_EQ(loadArgs(args, 64, "/etc/deep.cfg", "STORAGE", 0), 2); });
    freeAll(args);
    EXPECT_NE(c.err.find("mkdir failed: File name too long"), std::string::npos) << c.err;
    EXPECT_STREQ(getDataPath(0), deep.c_str());
    store_.type(ONDRA_PROC_STORE);
    EXPECT_EQ(store_.path(), 0);
    EXPECT_EQ(store_.dataPathText(), deep);
}

TEST_F(OndraArgs, RunTimeTextsSplitAtQuotesAndBlanks)
{
    TavString buffer = "--name \"two words\" --first";
    ASSERT_EQ(store_.addArgs(buffer), 0);
    EXPECT_EQ(vectorOf(store_), (std::vector<std::string>{"--name", "two words", "--first"}));

    // A leading quotation mark changes nothing: the first piece counts as unquoted.
    store_.clearArgv();
    buffer = "\"a b\" c";
    ASSERT_EQ(store_.addArgs(buffer), 0);
    EXPECT_EQ(vectorOf(store_), (std::vector<std::string>{"a", "b", " c"}));

    store_.clearArgv();
    buffer = "";
    EXPECT_EQ(store_.addArgs(buffer), 0);
    EXPECT_EQ(store_.argCount(), 0);

    // A text longer than the work area.
    buffer = std::string(1025, 'x').c_str();
    EXPECT_EQ(store_.addArgs(buffer), -1);
    EXPECT_EQ(buffer, "snprintf failed");
}

TEST_F(OndraArgs, TheSixtyFifthArgumentIsRefused)
{
    std::string text;
    for (int i = 0; i < 65; ++i) text += " a" + std::to_string(i);
    TavString buffer = text.c_str();
    auto c = capture([&] { EXPECT_EQ(store_.addArgs(buffer), 0); });
    EXPECT_EQ(store_.argCount(), 64);
    EXPECT_STREQ(store_.arg(63), "a63");
    EXPECT_EQ(store_.arg(64), nullptr);
    EXPECT_EQ(buffer, "Unable to add arg; limit exceeded");
    EXPECT_NE(c.out.find("Ondra module: unable to add arg; limit exceeded; ondraProcess.cpp "), std::string::npos);

    // At the limit nothing goes in: -1; a quoted piece is dropped without a word.
    buffer = "more";
    EXPECT_EQ(store_.addArgs(buffer), -1);
    buffer = "x \"quoted\"";
    EXPECT_EQ(store_.addArgs(buffer), -1);
    EXPECT_EQ(buffer, "Unable to add arg; limit exceeded");
    EXPECT_EQ(store_.argCount(), 64);
}

TEST_F(OndraArgs, TheDaemonVectorIsFileThenRunTimeThenModelThenUdp)
{
    char location[255];
    ASSERT_EQ(hwid_getConfigsLocation(location, sizeof location), 0);
    temp_.put(std::string(location) + "ondraStoreDaemon.cfg", "STORAGE\n--model\nEND\n");
    TavString udp = "--udp\n1\n";
    ASSERT_EQ(TavOndraProcess::writeUdpArgs(udp), 0);

    // killLeftOverProcess leaves the state at Daemon; the vector is built in it.
    TavOndraProcess p;
    p.type(ONDRA_PROC_STORE);
    p.killLeftOverProcess();
    ASSERT_EQ(p.state(), ONDRA_RUN_DAEMON);
    TavString buffer = " --serial_number AB --ip_address 1.2.3.4";
    ASSERT_EQ(p.setArgs(buffer), 0);
    EXPECT_EQ(vectorOf(p), (std::vector<std::string>{script(0), "--mode", "daemon", "--dir", "/var/ondra/store",
                                                     "--serial_number", "AB", "--ip_address", "1.2.3.4", "--model",
                                                     "--udp", "1"}));
    ASSERT_EQ(p.getArgs(buffer), 0);
    EXPECT_EQ(buffer, script(0) + " --mode daemon --dir /var/ondra/store --serial_number AB --ip_address 1.2.3.4 "
                                  "--model --udp 1 ");

    // A configuration without its section fails with the text unchanged.
    temp_.put(kStoreDaemonCfg, "MANAGER\nx\nEND\n");
    buffer = "--keep";
    EXPECT_EQ(p.setArgs(buffer), -1);
    EXPECT_EQ(buffer, "--keep");
    EXPECT_EQ(p.getArgs(buffer), 0);  // the model and udp files still load
    EXPECT_EQ(buffer, "--model --udp 1 ");
    p.clearArgv();
    EXPECT_EQ(p.getArgs(buffer), -1);
    EXPECT_EQ(buffer, "Process arguments have not been set");
}

TEST_F(OndraArgs, AddArgAndDeleteArgRewriteTheDaemonFile)
{
    TavString daemonArgs;
    TavString buffer = "/--x/1/";
    ASSERT_EQ(store_.addArg(buffer, daemonArgs), 0);
    const std::string head = "STORAGE\n" + script(0) + "\n--mode\ndaemon\n--dir\n/var/ondra/store\n";
    EXPECT_EQ(temp_.get(kStoreDaemonCfg), head + "--x\n1\n\nEND\n");  // the trailing slash: an empty argument

    buffer = "/--x/1";
    ASSERT_EQ(store_.deleteArg(buffer, daemonArgs), 0);
    EXPECT_EQ(temp_.get(kStoreDaemonCfg), head + "\nEND\n");

    // Without its second slash, or naming nothing there: -1 and no change.
    for (const char* bad : {"/--mode", "/--none/1", "", "/"}) {
        buffer = bad;
        EXPECT_EQ(store_.deleteArg(buffer, daemonArgs), -1) << bad;
    }
    EXPECT_EQ(temp_.get(kStoreDaemonCfg), head + "\nEND\n");

    // A count past the end takes what exists; a negative one the name alone.
    buffer = "/--dir/-4";
    ASSERT_EQ(store_.deleteArg(buffer, daemonArgs), 0);
    buffer = "/daemon/0x100";
    ASSERT_EQ(store_.deleteArg(buffer, daemonArgs), 0);
    EXPECT_EQ(temp_.get(kStoreDaemonCfg), "STORAGE\n" + script(0) + "\n--mode\nEND\n");

    // A full vector takes no more, and the file stays.
    std::string many;
    for (int i = 0; i < 62; ++i) many += "/a";
    buffer = many.c_str();
    ASSERT_EQ(store_.addArg(buffer, daemonArgs), 0);
    const std::string full = temp_.get(kStoreDaemonCfg);
    buffer = "/b";
    EXPECT_EQ(store_.addArg(buffer, daemonArgs), -1);
    EXPECT_EQ(temp_.get(kStoreDaemonCfg), full);
}

TEST_F(OndraArgs, WhatIsWrittenLoadsBackTheSame)
{
    const char* written[] = {"/bin/x", "", "two words", "--dir", "/var/rt/a"};
    store_.writeArgsToFile(const_cast<char**>(written), 5);
    char* loaded[65] = {};
    ASSERT_EQ(loadArgs(loaded, 64, kStoreDaemonCfg, "STORAGE", 0), 5);
    for (int i = 0; i < 5; ++i) EXPECT_STREQ(loaded[i], written[i]);
    freeAll(loaded);
}

TEST_F(OndraArgs, UdpArgumentsAreThreeEqualSectionsOrNoFile)
{
    const char* udp = "/etc/marrowby/comm/udpargs.cfg";
    TavString buffer = "--port\n7\n";
    ASSERT_EQ(TavOndraProcess::writeUdpArgs(buffer), 0);
    EXPECT_EQ(temp_.get(udp), "STORAGE\n--port\n7\nEND\nVIRTUALMANAGER\n--port\n7\nEND\nMANAGER\n--port\n7\nEND\n");
    TavString read;
    ASSERT_EQ(TavOndraProcess::readUdpArgs(read), 0);
    EXPECT_EQ(read, "--port\n7\n");

    buffer = "";
    ASSERT_EQ(TavOndraProcess::writeUdpArgs(buffer), 0);
    EXPECT_FALSE(temp_.exists(udp));
    read = "stale";
    EXPECT_EQ(TavOndraProcess::readUdpArgs(read), 0);
    EXPECT_EQ(read, "");

    // A failed write leaves neither the file nor a temporary one.
    platform_.arm(sim::Fault::failing(sim::Op::Write, "/etc/marrowby/comm/*", 1, ENOSPC, -1));
    buffer = std::string(9000, 'z').c_str();
    EXPECT_EQ(TavOndraProcess::writeUdpArgs(buffer), -1);
    EXPECT_FALSE(temp_.exists(udp));
}

} // namespace
