// tavsim keys: the module's key source as a table, or one key changed.
// tavsim mgmt: commands run through a session with the key source attached.
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include "corvaneutils/tavsession.h"
#include "json.h"
#include "mgmt_keys.h"
#include "platform/platform.h"
#include "sim_platform.h"
#include "table.h"
#include "tavsim_cli.h"

namespace sim::cli {

const char kKeysHelp[] =
    "Without more arguments, prints the key source of the module (sim/keys), the\n"
    "keys that the simulation answers in place of the modules outside the\n"
    "system: a table KEY KIND VALUE, the kind value, fail, twice or raw. With\n"
    "--json, the same as one JSON array.\n"
    "\n"
    "set KEY VALUE      KEY answers VALUE; a new key goes at the end\n"
    "unset KEY          KEY is answered no more\n"
    "fail KEY TEXT      KEY answers \"FAILED:\" and TEXT\n"
    "twice KEY V1 V2    two listeners answer V1 and V2: \"Extended Response\"\n"
    "raw KEY VALUE      the answer comes without its terminator\n"
    "\n"
    "A key is a path such as tav/public/storage/raid/status. A running session\n"
    "sees a new value at once; a new key only when it attaches the source.\n";

const char kMgmtHelp[] =
    "Runs each COMMAND (get:/KEY/, set:/KEY/VALUE, commit:/, ...) through a\n"
    "management session that has the module's key source attached and a user\n"
    "registered, and prints, for each, the command, the syntax check's text and\n"
    "every reply, indented. --local (the default) registers the local user, who\n"
    "may get public keys and set none; --user NAME asks\n"
    "tav/public/security/admin/user/access-int/NAME of the key source for the\n"
    "grants (\"/KEY/:MODE:...\"). With --json, one JSON array of the commands.\n"
    "Status 1 when a command failed its syntax check.\n"
    "\n"
    "--load             first load the signed modules of ./modules into the\n"
    "                   session, as the host process does (the loader's log on\n"
    "                   standard error); see tavsim modules\n"
    "--verify 0|1       with --load: 1 (the default) checks each module's\n"
    "                   signatures and version; 0 opens only modules certified\n"
    "                   before in this process: from the command line, none\n";

namespace {

int listKeys(Module& module, bool json)
{
    std::vector<KeyLine> lines = parseKeys(module.readState("keys"));
    if (json) {
        JsonWriter j(std::cout);
        j.beginArray();
        for (const KeyLine& k : lines) {
            j.beginObject().key("key").string(k.key).key("kind").string(keyKindName(k.kind));
            j.key("value").string(k.value);
            if (k.kind == KeyLine::Twice) j.key("value2").string(k.value2);
            j.endObject();
        }
        j.endArray();
        return kDone;
    }
    Table t({"KEY", "KIND", "VALUE"});
    for (const KeyLine& k : lines)
        t.add({k.key, keyKindName(k.kind), k.kind == KeyLine::Twice ? k.value + " | " + k.value2 : k.value});
    t.print(std::cout);
    return kDone;
}

} // namespace

int runKeys(const Call& call)
{
    Words w;
    int status = 0;
    auto module = openModuleCall(call, {{"--json", nullptr}}, 1, 5, w, status);
    if (!module) return status;
    const std::vector<std::string>& p = w.positional;
    if (p.size() == 1) return listKeys(*module, w.has("--json"));
    const std::string& verb = p[1];
    struct Verb {
        const char* name;
        size_t words;
        KeyLine::Kind kind;
    };
    static const Verb verbs[] = {{"set", 4, KeyLine::Value},
                                 {"fail", 4, KeyLine::Fail},
                                 {"raw", 4, KeyLine::Raw},
                                 {"twice", 5, KeyLine::Twice}};
    if (verb == "unset") {
        if (p.size() != 3) return badUsage(call, "unset: give KEY");
        if (std::string why = unsetKeyLine(*module, p[2]); !why.empty()) return refused(call, why);
        report("key " + p[2] + " is answered no more");
        return kDone;
    }
    for (const Verb& v : verbs) {
        if (verb != v.name) continue;
        if (p.size() != v.words)
            return badUsage(call, std::string(v.name) + (v.words == 5 ? ": give KEY V1 V2" : ": give KEY VALUE"));
        KeyLine line{p[2], v.kind, p[3], v.words == 5 ? p[4] : ""};
        if (std::string why = setKeyLine(*module, line); !why.empty()) return refused(call, cell(p[2]) + ": " + why);
        report("key " + p[2] + " answers " + (v.kind == KeyLine::Value ? "" : std::string(keyKindName(v.kind)) + " ") +
               lastCell(p[3]) + (v.words == 5 ? " and " + lastCell(p[4]) : ""));
        return kDone;
    }
    return badUsage(call, "unexpected argument " + cell(verb) + "; give set, unset, fail, twice or raw");
}

int runMgmt(const Call& call)
{
    Words w;
    int status = 0;
    auto module = openModuleCall(call, {{"--local", nullptr}, {"--user", "NAME"}, {"--json", nullptr},
                                                {"--load", nullptr}, {"--verify", "0|1"}},
                                 2, SIZE_MAX, w, status);
    if (!module) return status;
    if (w.has("--local") && w.has("--user")) return badUsage(call, "give --local or --user, not both");
    std::string user;
    for (const auto& [name, value] : w.options)
        if (name == "--user") user = value;

    int verify = 1;
    for (const auto& [name, value] : w.options)
        if (name == "--verify") {
            if (value != "0" && value != "1") return badUsage(call, "--verify " + cell(value) + ": give 0 or 1");
            if (!w.has("--load")) return badUsage(call, "--verify goes with --load");
            verify = value == "1";
        }

    // The loader reads the keys, the listing of ./modules and the module
    // files through the platform: the module's, for the whole run.
    SimPlatform platform(module->dir());
    plat::ScopedPlatform scope(platform);
    KeySource source(*module);
    std::unique_ptr<TAVSession> owned = w.has("--load") ? std::make_unique<TAVSession>(nullptr, verify)
                                                        : std::make_unique<TAVSession>();
    TAVSession& session = *owned;
    source.attach(session);
    if (w.has("--user")) {
        // As after loading modules: the question of the grants is open to anybody.
        session.getKeyRegistry().AddUserSecurityKey("/tav/public/security/admin/user/access-int/", TavCmd::GET);
        session.getKeyRegistry().MergeKeys();
        session.RegisterUser(user.c_str(), false);
    } else {
        session.RegisterUser("local", true);
    }

    struct Ran {
        std::string text;
        int syntax;
        std::vector<std::string> replies;
    };
    std::vector<Ran> ran;
    int result = kDone;
    for (size_t i = 1; i < w.positional.size(); ++i) {
        Ran r{w.positional[i], 0, {}};
        TAVCommand command(r.text.c_str());
        r.syntax = command.CheckSyntax();
        if (r.syntax == 0) {
            session.HandleMessage(&command);
            for (int n = 0; n < command.GetReturnCount(); ++n) {
                // A reply need not end in a terminator; its size bounds it.
                std::string reply(command.GetReturnValue(n), static_cast<size_t>(command.GetReturnValueSize(n)));
                if (!reply.empty() && reply.back() == '\0') reply.pop_back();
                r.replies.push_back(reply);
            }
        } else {
            result = kRefused;
        }
        ran.push_back(std::move(r));
    }
    if (w.has("--json")) {
        JsonWriter j(std::cout);
        j.beginArray();
        for (const Ran& r : ran) {
            j.beginObject().key("command").string(r.text).key("syntax").number(r.syntax);
            j.key("syntaxText").string(TAVCommand::GetSyntaxError(r.syntax)).key("replies").beginArray();
            for (const std::string& reply : r.replies) j.string(reply);
            j.endArray().endObject();
        }
        j.endArray();
    } else {
        for (const Ran& r : ran) {
            std::cout << lastCell(r.text) << "\n  " << TAVCommand::GetSyntaxError(r.syntax) << "\n";
            for (const std::string& reply : r.replies) std::cout << "  " << lastCell(reply) << "\n";
        }
    }
    return result;
}

} // namespace sim::cli
