// The tavsim command line as a new user meets it: refusals by exit status and
// the first words of the message, state files read as outside input, the
// output of show, and the partition table at the layout's bounds.
#include <map>
#include <sstream>
#include <variant>

#include "sim_fixture.h"
#include "sim/clock.h"
#include "sim/family_layout.h"
#include "sim/json.h"
#include "sim/table.h"

using namespace simtest;

namespace {

struct Refusal {
    std::vector<std::string> args;
    int status;
    std::string message;  // the start of standard error
};

void expectRefusals(const std::vector<Refusal>& cases)
{
    for (const Refusal& c : cases) {
        std::string line;
        for (const std::string& a : c.args) line += " " + a;
        Captured r = tavsim(c.args);
        EXPECT_EQ(r.status, c.status) << line << "\n" << r.err;
        EXPECT_EQ(r.err.compare(0, c.message.size(), c.message), 0) << line << "\n" << r.err;
        EXPECT_EQ(r.out, "") << line;
    }
}

// A module of platform 3 (two bays) of `sectors` drives, made by tavsim.
std::string makeModule(TempModule& m, uint64_t sectors)
{
    Captured r = tavsim({"create", m.dir(), "--platform", "3", "--sectors", std::to_string(sectors), "--any-size"});
    EXPECT_EQ(r.status, 0) << r.err;
    return m.dir();
}

// The lines of `text` that start with `word` (and a blank), split into fields.
std::vector<std::vector<std::string>> rows(const std::string& text, const std::string& word)
{
    std::vector<std::vector<std::string>> out;
    std::istringstream in(text);
    std::string line;
    while (std::getline(in, line)) {
        std::istringstream words(line);
        std::vector<std::string> fields;
        for (std::string w; words >> w;) fields.push_back(w);
        if (!fields.empty() && (word.empty() || fields[0] == word)) out.push_back(fields);
    }
    return out;
}

// A tiny JSON reader for the test: objects, arrays, strings without \u
// escapes beyond ASCII, integers, true, false, null.
struct Json {
    std::variant<std::nullptr_t, bool, long long, std::string, std::vector<Json>, std::map<std::string, Json>> v;
    const Json& operator[](const std::string& key) const { return std::get<std::map<std::string, Json>>(v).at(key); }
    const Json& operator[](size_t i) const { return std::get<std::vector<Json>>(v).at(i); }
    size_t size() const { return std::get<std::vector<Json>>(v).size(); }
    const std::string& str() const { return std::get<std::string>(v); }
    long long num() const { return std::get<long long>(v); }
    bool isNull() const { return std::holds_alternative<std::nullptr_t>(v); }
};

class JsonReader {
public:
    explicit JsonReader(const std::string& text) : s_(text) {}
    Json document()
    {
        Json j = value();
        skip();
        if (i_ != s_.size()) throw std::runtime_error("text after the document");
        return j;
    }

private:
    void skip()
    {
        while (i_ < s_.size() && std::isspace(static_cast<unsigned char>(s_[i_]))) ++i_;
    }
    void expect(char c)
    {
        skip();
        if (i_ >= s_.size() || s_[i_] != c) throw std::runtime_error(std::string("expected ") + c + " at " + std::to_string(i_));
        ++i_;
    }
    bool take(const std::string& word)
    {
        skip();
        if (s_.compare(i_, word.size(), word) != 0) return false;
        i_ += word.size();
        return true;
    }
    std::string string()
    {
        expect('"');
        std::string out;
        while (i_ < s_.size() && s_[i_] != '"') {
            char c = s_[i_++];
            if (static_cast<unsigned char>(c) < 0x20) throw std::runtime_error("control character in a string");
            if (c != '\\') {
                out += c;
                continue;
            }
            char e = s_.at(i_++);
            if (e == 'u') {
                out += static_cast<char>(std::stoi(s_.substr(i_, 4), nullptr, 16));
                i_ += 4;
            } else {
                out += e == 'n' ? '\n' : e == 't' ? '\t' : e == 'r' ? '\r' : e;
            }
        }
        expect('"');
        return out;
    }
    Json value()
    {
        skip();
        if (take("null")) return {nullptr};
        if (take("true")) return {true};
        if (take("false")) return {false};
        if (s_.at(i_) == '"') return {string()};
        if (take("[")) {
            std::vector<Json> items;
            if (!take("]")) {
                do items.push_back(value());
                while (take(","));
                expect(']');
            }
            return {items};
        }
        if (take("{")) {
            std::map<std::string, Json> members;
            if (!take("}")) {
                do {
                    std::string k = string();
                    expect(':');
                    members[k] = value();
                } while (take(","));
                expect('}');
            }
            return {members};
        }
        size_t used = 0;
        long long n = std::stoll(s_.substr(i_), &used);
        i_ += used;
        return {n};
    }

    const std::string& s_;
    size_t i_ = 0;
};

} // namespace

TEST(TavsimCli, CommandLineRefusalsNameTheArgumentAndTheRange)
{
    TempModule m;
    TempModule fresh(1, false);
    const std::string d = m.dir(), f = fresh.dir();
    std::filesystem::create_directories(f);
    const std::string file = f + "/file";
    std::ofstream(file) << "x";
    std::filesystem::create_directories(f + "/other/x");
    std::filesystem::create_directories(f + "/empty");

    // Top level and conventions shared by every command.
    expectRefusals({
        {{}, 2, "tavsim: no command\nthe commands: create show partition sign raid pull insert swap corrupt fault log run"},
        {{"frobnicate", d}, 2, "tavsim: unknown command frobnicate\nthe commands: create show"},
        {{"show", d, "--colour"}, 2, "tavsim show: unknown option --colour; show takes --json, --partitions and --signature"},
        {{"show", d, "--json", "--partitions"}, 2, "tavsim show: --json, --partitions and --signature exclude each other"},
        {{"pull", d, "1", "2"}, 2, "tavsim pull: unexpected argument 2"},
        {{"pull"}, 2, "tavsim pull: no module directory given"},
    });
    for (const std::vector<std::string>& help : std::vector<std::vector<std::string>>{
             {"--help"}, {"--version"}, {"create", "--help"}, {"fault", d, "--help"}, {"show", "--version"}}) {
        Captured r = tavsim(help);
        EXPECT_EQ(r.status, 0) << help[0];
        EXPECT_NE(r.out, "") << help[0];
    }
    Captured help = tavsim({"fault", "--help"});
    EXPECT_NE(help.out.find("ioctl only: BLKRRPART BLKGETSIZE"), std::string::npos) << help.out;
    EXPECT_NE(help.out.find("Exit status: 0 done; 1 refused or failed"), std::string::npos) << help.out;

    // create: decimal numbers, one platform, clean serial numbers, a usable place.
    expectRefusals({
        {{"create", f + "/a", "--platform", "1", "--platform", "3"}, 2, "tavsim create: --platform given twice (1 and 3)"},
        {{"create", f + "/a", "--platform", "010"}, 2, "tavsim create: --platform 010: a decimal number is written without a leading zero"},
        {{"create", f + "/a", "--platform", "0x1"}, 2, "tavsim create: --platform 0x1: not a decimal number (0 to 999999)"},
        {{"create", f + "/a", "--platform", "-1"}, 2, "tavsim create: --platform -1: not a decimal number"},
        {{"create", f + "/a", "--platform", "1000000"}, 2, "tavsim create: --platform 1000000: out of range 0 to 999999"},
        {{"create", f + "/a"}, 2, "tavsim create: --platform ID is needed"},
        {{"create", f + "/a", "--platform"}, 2, "tavsim create: --platform needs a value: --platform ID"},
        {{"create", f + "/a", "--platform", "1", "--serial", "A B"}, 2, "tavsim create: --serial \"A B\": holds a blank at character 2"},
        {{"create", f + "/a", "--platform", "1", "--serial", "AB\tC"}, 2, "tavsim create: --serial \"AB\\x09C\": holds a control character at character 3"},
        {{"create", f + "/a", "--platform", "1", "--serial", std::string(32, 'S')}, 2, "tavsim create: --serial " + std::string(32, 'S') + ": 32 characters; at most 31"},
        {{"create", f + "/a", "--platform", "1", "--no-drives", "--sectors", "8388608"}, 2, "tavsim create: --sectors: a module made with --no-drives has no drives"},
        {{"create", f + "/a", "--platform", "5"}, 1, "tavsim create: platform 5 (LSI family) is not simulated yet"},
        {{"create", file + "/m", "--platform", "1"}, 1, "tavsim create: " + file + "/m: its parent " + file + " is a file, not a directory"},
        {{"create", file, "--platform", "1"}, 1, "tavsim create: " + file + ": a file is there"},
        {{"create", f + "/other", "--platform", "1"}, 1, "tavsim create: " + f + "/other: a directory that is not empty"},
        {{"create", d, "--platform", "1"}, 1, "tavsim create: " + d + ": holds a module already"},
    });
    EXPECT_FALSE(std::filesystem::exists(f + "/a")) << "nothing is made by a refused create";

    // show tells the four kinds of place without a module apart.
    expectRefusals({
        {{"show", f + "/none"}, 1, "tavsim show: " + f + "/none: no such directory"},
        {{"show", file}, 1, "tavsim show: " + file + ": a file, not a module"},
        {{"show", f + "/empty"}, 1, "tavsim show: " + f + "/empty: an empty directory, no module yet"},
        {{"show", f + "/other"}, 1, "tavsim show: " + f + "/other: a directory that is no module"},
    });

    // Bays and drives.
    ASSERT_EQ(tavsim({"pull", d, "2"}).status, 0);
    expectRefusals({
        {{"pull", d, "9"}, 1, "tavsim pull: bay 9: this module has bays 1 to 4"},
        {{"pull", d, "0"}, 1, "tavsim pull: bay 0: this module has bays 1 to 4"},
        {{"pull", d, "01"}, 2, "tavsim pull: bay 01: a decimal number is written without a leading zero"},
        {{"pull", d, "0x1"}, 2, "tavsim pull: bay 0x1: not a decimal number"},
        {{"pull", d, "2"}, 1, "tavsim pull: bay 2: empty, nothing to pull"},
        {{"insert", d, "1"}, 1, "tavsim insert: bay 1: holds drive SIM"},
        {{"insert", d, "2", "NOSUCH"}, 1, "tavsim insert: drive NOSUCH: not on the shelf; the shelf holds SIM"},
        {{"swap", d, "3", "3"}, 2, "tavsim swap: bay 3 twice: swap takes two different bays"},
        {{"corrupt", d, "2", "0", "00"}, 1, "tavsim corrupt: bay 2: empty, nothing to overwrite"},
        {{"corrupt", d, "disc", "0", "00"}, 2, "tavsim corrupt: BAY|DEVICE disc: give a bay number or a device path"},
        {{"corrupt", d, "1", "0x10", "00"}, 2, "tavsim corrupt: offset 0x10: not a decimal number"},
        {{"corrupt", d, "1", "0", "abc"}, 2, "tavsim corrupt: bytes abc: give an even number of hex digits"},
        {{"corrupt", d, "1", std::to_string(kSectors * 512 - 1), "0000"}, 1,
         "tavsim corrupt: offset " + std::to_string(kSectors * 512 - 1) + ": 2 bytes there run past the end of " +
             std::string(kDisc1) + ", which has " + std::to_string(kSectors * 512) + " bytes"},
        {{"pull", d, "99999999999"}, 2, "tavsim pull: bay 99999999999: out of range 0 to 2147483647"},
        {{"run", d, "--", "nonesuch"}, 1, "tavsim run: no program nonesuch; "},
    });

    // Fault words that could never fire.
    const std::string disc = kDisc1;
    expectRefusals({
        {{"fault", d, "write", disc, "times=0", "errno=EIO"}, 2, "tavsim fault: times=0: a fault hits 1 or more calls"},
        {{"fault", d, "read", disc, "request=BLKRRPART", "errno=EIO"}, 2, "tavsim fault: request=: only an ioctl has a request, not read"},
        {{"fault", d, "write", disc, "errno=EIO", "short=10"}, 2, "tavsim fault: short=10: a fault either fails with errno=, moves short= or cuts the power"},
        {{"fault", d, "ioctl", disc, "short=10"}, 2, "tavsim fault: short=: only a read or a write moves a count, not ioctl"},
        {{"fault", d, "read", disc, "powercut"}, 2, "tavsim fault: powercut: a power cut counts writes, not read"},
        {{"fault", d, "write", "dev/ide/*", "errno=EIO"}, 2, "tavsim fault: path dev/ide/*: give an absolute path"},
        {{"fault", d, "write", disc, "nth=2", "nth=3", "errno=EIO"}, 2, "tavsim fault: nth=3: nth= given twice"},
        {{"fault", d, "write", disc, "nth=010", "errno=EIO"}, 2, "tavsim fault: nth=010: N is a decimal number"},
        {{"fault", d, "write", disc, "errno=EWHAT"}, 2, "tavsim fault: errno=EWHAT: unknown; known: EIO EINTR ENOSPC"},
        {{"fault", d, "ioctl", disc, "request=BLKFOO", "errno=EIO"}, 2, "tavsim fault: request=BLKFOO: not a request; give a number (decimal, or 0x and hex) or one of BLKRRPART"},
        {{"fault", d, "write", disc}, 2, "tavsim fault: no errno=, short= or powercut"},
        {{"fault", d, "chmod", disc, "errno=EIO"}, 2, "tavsim fault: unknown operation chmod; the operations: open read"},
    });
    sim::Module mod(d);
    EXPECT_EQ(mod.readState("faults"), "") << "nothing refused was armed";

    // What is accepted: requests by name or number, an id without a layout row of its own.
    Captured armed = tavsim({"fault", d, "ioctl", disc, "request=HDIO_GET_IDENTITY", "errno=EIO"});
    EXPECT_EQ(armed.out, "armed fault ioctl " + disc + " nth=1 times=1 request=0x30d errno=EIO\n") << armed.err;
    EXPECT_EQ(tavsim({"fault", d, "ioctl", disc, "request=781", "times=-1", "errno=5"}).status, 0);
    std::vector<sim::Fault> faults = sim::parseFaults(mod.readState("faults"));
    ASSERT_EQ(faults.size(), 2u);
    EXPECT_EQ(faults[0].request, faults[1].request) << "781 is 0x30d";
    EXPECT_EQ(tavsim({"fault", d, "--clear"}).out, "cleared 2 faults\n");

    TempModule seven(1, false);
    ASSERT_EQ(tavsim({"create", seven.dir(), "--platform", "7", "--sectors", "8388608"}).status, 0);
    Captured shown = tavsim({"show", seven.dir()});
    EXPECT_NE(shown.out.find("\nplatform 7 layout of platform 1 (no row of its own)\n"), std::string::npos) << shown.out;
    EXPECT_EQ(rows(shown.out, "4").size(), 1u) << "four bays, as platform 1";
}

TEST(TavsimCli, StateFilesThatCannotBeReadAreReportedWithFileAndLine)
{
    TempModule m;
    sim::Module mod(m.dir());
    std::string manifest = mod.readState("manifest");
    const int first = static_cast<int>(std::count(manifest.begin(), manifest.end(), '\n')) + 1;
    manifest += "bay 5 /dev/ide/host2/bus0/target0/lun0/disc 56 0 63\n"
                "drive serial=TWIN bay=1 kind=ata sectors=8388608\n"
                "drive serial=LOST bay=7 kind=ata sectors=010\n"
                "platform 0x1\n"
                "what is this\n";
    mod.writeState("manifest", manifest);
    std::filesystem::resize_file(m.host("dev/ide/host0/bus0/target1/lun0/disc"), 4096 * 512);
    mod.writeState("clock", "soon\n");
    mod.writeState("faults", "read * times=0 errno=EIO\n");

    Captured r = tavsim({"show", m.dir()});
    EXPECT_EQ(r.status, 0);
    const std::string at = "tavsim: warning: " + mod.dir() + "/sim/";
    for (const std::string& expected : {
             at + "manifest:9: drive SIM",  // bay 2's drive, whose image was cut
             at + "manifest:" + std::to_string(first) + ": bay 5 is beyond the layout of platform 1 (bays 1 to 4)",
             at + "manifest:" + std::to_string(first + 1) + ": drive TWIN: bay 1 already holds drive SIM",
             at + "manifest:" + std::to_string(first + 2) + ": drive LOST: sectors=010: not a decimal number",
             at + "manifest:" + std::to_string(first + 2) + ": drive LOST is in bay 7, which the module does not have",
             at + "manifest:" + std::to_string(first + 3) + ": platform 0x1: not a platform id",
             at + "manifest:" + std::to_string(first + 4) + ": unknown line",
             at + "clock:1: soon is not SECONDS MICROSECONDS; the clock reads 2006-01-01T00:00:00Z",
             std::string("tavsim: sim/faults:1: times=0: a fault hits 1 or more calls"),
         })
        EXPECT_NE(r.err.find(expected + ""), std::string::npos) << expected << "\n" << r.err;
    EXPECT_NE(r.err.find("the manifest says 8388608 sectors, its image holds 4096 sectors"), std::string::npos) << r.err;
    // What could be read is shown.
    EXPECT_EQ(rows(r.out, "5").size(), 1u) << r.out;
    EXPECT_EQ(rows(r.out, "shelf").size(), 1u) << "the second drive of bay 1 is taken as on the shelf\n" << r.out;
    EXPECT_NE(r.out.find("\nclock 1136073600 2006-01-01T00:00:00Z\n"), std::string::npos) << r.out;

    // A well-made module has nothing to report.
    TempModule clean;
    Captured quiet = tavsim({"show", clean.dir()});
    EXPECT_EQ(quiet.err, "");
}

TEST(TavsimCli, JsonAgreesWithShow)
{
    TempModule m;
    const std::string d = m.dir();
    ASSERT_EQ(tavsim({"partition", d}).status, 0);
    ASSERT_EQ(tavsim({"pull", d, "4"}).status, 0);
    ASSERT_EQ(tavsim({"fault", d, "ioctl", "/dev/ide/*", "request=BLKRRPART", "errno=EBUSY"}).status, 0);
    sim::Module mod(d);
    mod.advance(90061000001ULL);  // a day, an hour, a minute, a second and a microsecond
    // A model name with a quote, a blank and a control character.
    ASSERT_TRUE(mod.updateManifest([](sim::Manifest& mm) {
        mm.driveInBay(2)->model = "Odd \"Disk\"\x01";
        return true;
    }));

    Captured text = tavsim({"show", d});
    Captured json = tavsim({"show", d, "--json"});
    ASSERT_EQ(json.status, 0) << json.err;
    Json doc;
    ASSERT_NO_THROW(doc = JsonReader(json.out).document()) << json.out;

    EXPECT_EQ(doc["module"].str(), mod.dir());
    EXPECT_EQ(doc["platform"].num(), 1);
    EXPECT_EQ(doc["model"]["config"].str(), "obx1u");
    EXPECT_NE(text.out.find("\nserial " + doc["serial"].str() + "\n"), std::string::npos);
    const long long seconds = doc["clock"]["seconds"].num();
    EXPECT_EQ(seconds, 1136073600 + 90061);
    EXPECT_EQ(doc["clock"]["microseconds"].num(), 1);
    EXPECT_EQ(doc["clock"]["utc"].str(), "2006-01-02T01:01:01Z");
    EXPECT_NE(text.out.find("\nclock " + std::to_string(seconds) + " 2006-01-02T01:01:01Z\n"), std::string::npos);

    // Every bay row of the text, field by field.
    auto bayRows = rows(text.out, "");
    std::erase_if(bayRows, [](const auto& r) { return r[0].find_first_not_of("0123456789") != std::string::npos; });
    ASSERT_EQ(doc["bays"].size(), 4u);
    ASSERT_EQ(bayRows.size(), 4u);
    for (size_t i = 0; i < 4; ++i) {
        const Json& bay = doc["bays"][i];
        const auto& row = bayRows[i];
        SCOPED_TRACE(row[0]);
        EXPECT_EQ(std::to_string(bay["bay"].num()), row[0]);
        EXPECT_EQ(bay["device"].str(), row[1]);
        EXPECT_EQ(std::to_string(bay["major"].num()) + ":" + std::to_string(bay["minor"].num()), row[2]);
        if (bay["serial"].isNull()) {
            EXPECT_EQ(row[3], "-");
            EXPECT_EQ(bay["partitions"].size(), 0u);
            continue;
        }
        EXPECT_EQ(bay["serial"].str(), row[3]);
        EXPECT_EQ(std::to_string(bay["sectors"].num()), row[4]);
        EXPECT_EQ(row[5], "4G");
        std::string parts;
        for (size_t p = 0; p < bay["partitions"].size(); ++p)
            parts += (p ? "," : "") + std::to_string(bay["partitions"][p]["number"].num());
        EXPECT_EQ(parts, row[6]);
        EXPECT_EQ(bay["partitions"][0]["role"].str(), "signature");
        EXPECT_EQ(bay["partitions"][1]["sectors"].num(), static_cast<long long>(kSectors - sim::kFamilyMinSectors + 1));
        EXPECT_EQ(bay["firmware"].str(), row[7]);
    }
    EXPECT_EQ(doc["bays"][1]["model"].str(), "Odd \"Disk\"\x01");
    EXPECT_NE(text.out.find("  Odd \"Disk\"\\x01\n"), std::string::npos) << "the free-text column, escaped" << text.out;
    ASSERT_EQ(doc["shelf"].size(), 1u);
    EXPECT_EQ(rows(text.out, "shelf")[0][1], doc["shelf"][0]["serial"].str());
    ASSERT_EQ(doc["faults"].size(), 1u);
    EXPECT_EQ(doc["faults"][0]["request"].str(), "BLKRRPART");
    EXPECT_EQ(rows(text.out, "fault")[0][5], "BLKRRPART");
    EXPECT_EQ(doc["warnings"].size(), 0u);
}

TEST(TavsimCli, ShowPartitionsAndTheOneLineReports)
{
    TempModule m;
    const std::string d = m.dir();
    Captured partitioned = tavsim({"partition", d});
    EXPECT_EQ(partitioned.out, "partitioned bays 1, 2, 3 and 4: signature, data, boot, extended, os, os2 and log\n");
    ASSERT_EQ(tavsim({"pull", d, "2"}).status, 0);
    Captured r = tavsim({"show", d, "--partitions"});
    ASSERT_EQ(r.status, 0);
    const std::vector<std::vector<std::string>> expected = {
        {"1", "signature", "1", "2048", "1M"},
        {"2", "data", "22529", std::to_string(kSectors - 4317184), "1.9G"},
        {"3", "boot", "2049", "20480", "10M"},
        {"4", "extended", std::to_string(kSectors - 4294655), "2", "1K"},
        {"5", "os", std::to_string(kSectors - 4294654), "2097152", "1G"},
        {"6", "os2", std::to_string(kSectors - 2197500), "2097152", "1G"},
        {"7", "log", std::to_string(kSectors - 100346), "98304", "48M"},
    };
    auto table = rows(r.out, "");
    std::erase_if(table, [](const auto& row) { return row.size() != 5 || row[0] == "NUMBER"; });
    ASSERT_EQ(table.size(), 3 * expected.size()) << r.out;
    for (size_t i = 0; i < table.size(); ++i) EXPECT_EQ(table[i], expected[i % expected.size()]) << i;
    EXPECT_NE(r.out.find("\nbay 2: /dev/ide/host0/bus0/target1/lun0/disc, empty\n"), std::string::npos) << r.out;
    EXPECT_EQ(rows(r.out, "NUMBER")[0], (std::vector<std::string>{"NUMBER", "ROLE", "START", "SECTORS", "SIZE"}));

    sim::Module mod(d);
    const std::string pulled = mod.manifest().drives[1].serial;
    EXPECT_EQ(tavsim({"insert", d, "2", pulled}).out, "inserted drive " + pulled + " from the shelf into bay 2\n");
    EXPECT_EQ(tavsim({"swap", d, "1", "2"}).out.compare(0, 44, "swapped bays 1 and 2: bay 1 holds drive " + pulled.substr(0, 4)), 0);
    EXPECT_EQ(tavsim({"corrupt", d, "3", "512", "dead"}).out, "wrote 2 bytes at byte 512 of " + std::string(kDisc3) + " (bay 3)\n");
    ASSERT_EQ(tavsim({"pull", d, "4"}).status, 0);
    Captured fresh = tavsim({"insert", d, "4"});
    EXPECT_EQ(fresh.out.compare(0, 29, "inserted a new blank drive SI"), 0) << fresh.out;
    EXPECT_NE(fresh.out.find(" of 8388608 sectors (4G) into bay 4\n"), std::string::npos) << fresh.out;
}

TEST(TavsimCli, PartitionChecksTheDriveSizeAgainstTheLayoutBounds)
{
    // The smallest drive leaves the data partition one sector; the largest
    // size is the largest 32 bits hold.
    EXPECT_EQ(sim::kFamilyMinSectors, 4317185u);
    EXPECT_EQ(sim::kFamilyMaxSectors, 4294967295u);
    struct Case {
        uint64_t sectors;
        int status;
        uint64_t data;  // sectors of partition 2 when it worked
    };
    for (const Case& c : {Case{4317184, 1, 0}, Case{4317185, 0, 1}, Case{4294967295, 0, 4290650111}, Case{4294967296, 1, 0}}) {
        SCOPED_TRACE(c.sectors);
        TempModule m(1, false);
        Captured created = tavsim({"create", m.dir(), "--platform", "3", "--sectors", std::to_string(c.sectors)});
        if (c.status == 0) {
            EXPECT_EQ(created.status, 0) << created.err;
        } else {
            EXPECT_EQ(created.status, 2);
            EXPECT_EQ(created.err.find("tavsim create: --sectors " + std::to_string(c.sectors) +
                                       ": the families' partition table fits drives of 4317185 to 4294967295 "
                                       "sectors (2.1G to 2T); --any-size allows"),
                      0u)
                << created.err;
            makeModule(m, c.sectors);
        }
        Captured r = tavsim({"partition", m.dir()});
        EXPECT_EQ(r.status, c.status) << r.err;
        sim::Module mod(m.dir());
        if (c.status == 0) {
            ASSERT_EQ(mod.windows(2).size(), 7u);
            EXPECT_EQ(mod.windows(2)[1].size, c.data);
            EXPECT_EQ(mod.windows(2)[6].start + mod.windows(2)[6].size, c.sectors - 2042) << "the log ends inside the disk";
            continue;
        }
        const std::string serial = mod.manifest().driveInBay(1)->serial;
        const std::string words = c.sectors < sim::kFamilyMinSectors ? "too small" : "too large";
        EXPECT_EQ(r.err.find("tavsim partition: bay 1 (drive " + serial + "): the drive has " + std::to_string(c.sectors) +
                             " sectors"),
                  0u)
            << r.err;
        EXPECT_NE(r.err.find(words + " for the families' table, which fits 4317185 to 4294967295 sectors"), std::string::npos);
        EXPECT_NE(r.err.find("tavsim partition: nothing written\n"), std::string::npos) << r.err;
        EXPECT_TRUE(mod.windows(1).empty() && mod.windows(2).empty()) << "no table was written";
    }
}

TEST(TavsimCli, AFailedBuildNamesItsStepErrnoAndResult)
{
    struct Case {
        std::vector<std::string> fault;
        std::string message;
    };
    const std::string disc = kDisc1;
    const std::vector<Case> cases = {
        {{"open", disc, "errno=ENODEV"},
         "the open of " + disc + " failed: No such device (ENODEV); the table builder gave 1 (the disk did not open)"},
        {{"ioctl", disc, "request=BLKGETSIZE", "errno=EIO"},
         "the size request (BLKGETSIZE) failed: Input/output error (EIO); then the seek to the table at sector"},
        {{"write", disc, "short=100"},
         "the table write at sector 0 moved 100 of 512 bytes; the table builder gave 2 (a table write failed)"},
        {{"write", disc, "nth=2", "errno=ENOSPC"},
         "the table write at sector " + std::to_string(kSectors - 4294655) +
             " failed: No space left on device (ENOSPC); the table builder gave 2 (a table write failed)"},
        {{"ioctl", disc, "request=BLKRRPART", "times=2", "errno=EBUSY"},
         "the re-read (BLKRRPART) failed: Device or resource busy (EBUSY) (twice); the table builder gave 3 (the "
         "kernel did not re-read the table)"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.fault[0]);
        TempModule m(3);
        std::vector<std::string> arm = {"fault", m.dir()};
        arm.insert(arm.end(), c.fault.begin(), c.fault.end());
        ASSERT_EQ(tavsim(arm).status, 0);
        Captured r = tavsim({"partition", m.dir()});
        EXPECT_EQ(r.status, 1);
        EXPECT_NE(r.err.find("tavsim partition: bay 1: " + c.message), std::string::npos) << r.err;
        EXPECT_EQ(r.out, "partitioned bay 2: signature, data, boot, extended, os, os2 and log\n") << "the other bay is done";
    }
}

TEST(TavsimCli, NumbersSizesQuotingAndJsonStrings)
{
    uint64_t n = 0;
    EXPECT_TRUE(sim::parseNumber("18446744073709551615", n));
    EXPECT_EQ(n, UINT64_MAX);
    for (const char* bad : {"18446744073709551616", "010", "0x1", "+1", "-1", " 1", "1 ", "", "1e3"})
        EXPECT_FALSE(sim::parseNumber(bad, n)) << bad;
    EXPECT_TRUE(sim::parseNumber("0", n));
    EXPECT_TRUE(sim::parseHexNumber("0x203f", n));
    EXPECT_EQ(n, 0x203fu);
    EXPECT_FALSE(sim::parseHexNumber("203f", n));

    timeval tv{7, 7};
    for (const char* bad : {"", "abc", "1", "1 2 3", "1 1000000", "-1 0", "1.5 0", "0x10 0"}) {
        EXPECT_FALSE(sim::parseClock(bad, tv)) << bad;
        EXPECT_EQ(tv.tv_sec, 7) << "left as it was";
    }
    EXPECT_TRUE(sim::parseClock("1136073600 999999\n", tv));
    EXPECT_EQ(tv.tv_usec, 999999);

    EXPECT_EQ(sim::humanSize(156301488ULL * 512), "74.5G");
    EXPECT_EQ(sim::humanSize(512), "512B");
    EXPECT_EQ(sim::humanSize(1024), "1K");
    EXPECT_EQ(sim::humanSize(1023 * 1024 + 500), "1023.5K");
    EXPECT_EQ(sim::humanSize(1024 * 1024 - 1), "1M") << "rounds up into the next unit";
    EXPECT_EQ(sim::humanSize(4294967295ULL * 512), "2T");

    EXPECT_EQ(sim::cell(""), "-");
    EXPECT_EQ(sim::cell("a b"), "\"a b\"");
    EXPECT_EQ(sim::cell("a\"b\\"), "\"a\\\"b\\\\\"");
    EXPECT_EQ(sim::cell("x\ny"), "\"x\\x0ay\"");
    EXPECT_EQ(sim::lastCell("OBX 1U\r"), "OBX 1U\\x0d");

    EXPECT_EQ(sim::jsonQuote("a\"\\\n\x01\x7f"), "\"a\\\"\\\\\\n\\u0001\\u007f\"");
    EXPECT_EQ(sim::jsonQuote("caf\xc3\xa9"), "\"caf\xc3\xa9\"") << "UTF-8 passes";
    EXPECT_EQ(sim::jsonQuote("\xff\xc3"), "\"\\u00ff\\u00c3\"") << "stray bytes become code points";
    EXPECT_EQ(sim::jsonQuote("\xed\xa0\x80"), "\"\\u00ed\\u00a0\\u0080\"") << "no surrogates";
}

TEST(TavsimCli, RaidConfiguresTheArrayAndShowSignatureListsTheTree)
{
    TempModule m;
    const std::string d = m.dir();
    EXPECT_EQ(tavsim({"raid", d, "--level", "1"}).status, 1) << "not partitioned and signed";
    ASSERT_EQ(tavsim({"partition", d}).status, 0);
    ASSERT_EQ(tavsim({"sign", d, "--time", "500"}).status, 0);
    expectRefusals({
        {{"raid", d}, 2, "tavsim raid: --level is needed"},
        {{"raid", d, "--level", "6"}, 2, "tavsim raid: --level 6: 0, 1 or 5"},
        {{"raid", d, "--level", "1", "--drives", "1,x"}, 2, "tavsim raid: --drives 1,x: bay"},
        {{"raid", d, "--level", "1", "--md", "200"}, 2, "tavsim raid: --md"},
        {{"raid", d, "--level", "1", "--drives", "1,9"}, 1, "tavsim raid: bay 9: the module has positions 1 to 4"},
        {{"raid", d, "--level", "1", "--drives", "1,1"}, 1, "tavsim raid: bay 1 is named twice"},
        {{"raid", d, "--level", "5", "--drives", "1,2,3", "--spares", "1"}, 1,
         "tavsim raid: a RAID 5 needs at least 3 members, not 2"},
        {{"raid", d, "--level", "0", "--spares", "1"}, 1, "tavsim raid: a RAID 0 takes no spares"},
    });
    Captured made = tavsim({"raid", d, "--level", "1", "--drives", "3,4", "--md", "7", "--mount", "/data"});
    ASSERT_EQ(made.status, 0) << made.err;
    EXPECT_EQ(made.out, "/dev/md7 RAID 1 of bays 3 and 4, mounted at /data; OS mirrors /dev/md200 and /dev/md201; "
                        "the tree written into every drive's signature\n");

    Captured tables = tavsim({"show", d, "--signature"});
    ASSERT_EQ(tables.status, 0) << tables.err;
    auto drives = rows(tables.out, "3");
    ASSERT_EQ(drives.size(), 1u) << tables.out;
    EXPECT_EQ(drives[0][1], "500");
    EXPECT_EQ(drives[0].back(), "1") << "a member is active";
    EXPECT_EQ(rows(tables.out, "1")[0].back(), "0") << "bay 1 is in no array";
    auto top = rows(tables.out, "/dev/md7");
    ASSERT_EQ(top.size(), 1u) << tables.out;
    EXPECT_EQ(top[0], (std::vector<std::string>{"/dev/md7", "7", "Array", "NULL", "1", "2", "1", "0", "0"}));
    EXPECT_EQ(rows(tables.out, "/dev/ide/host0/bus1/target0/lun0/part2")[0][3], "/dev/md7");
    EXPECT_EQ(tavsim({"show", d, "--signature", "--json"}).status, 2);
    EXPECT_EQ(tavsim({"raid", d, "--level", "1", "--drives", "3,4", "--md", "7"}).status, 1) << "it stands already";
}
