// The key source: the modules that answer the management plane's keys stand
// outside the system, so the simulation plays them from sim/keys.
//
// sim/keys, one key a line, "KEY VALUE"; in a value "\t", "\n", "\s" (a
// blank), "\!" and "\\" stand for themselves. Markers after the key inject
// faults:
//   KEY !fail TEXT    the listener answers "FAILED:" with TEXT
//   KEY !twice V1 V2  two listeners answer V1 and V2: "Extended Response"
//   KEY !raw VALUE    the answer comes without its terminator (appendData)
// A key is registered as "/KEY/", so that a get of it reaches no sibling; the
// second listener of !twice is "/KEY", since the registry takes one get
// listener per key text (it also answers the siblings that KEY begins).
#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "module.h"

class TAVSession;
class TavModParam;

namespace sim {

struct KeyLine {
    enum Kind { Value, Fail, Twice, Raw };
    std::string key;
    Kind kind = Value;
    std::string value;
    std::string value2;  // !twice only
};

// Never fails: empty lines and lines of no key are skipped.
std::vector<KeyLine> parseKeys(const std::string& text);
std::string formatKeys(const std::vector<KeyLine>& lines);
std::string escapeKeyValue(const std::string& value);
std::string unescapeKeyValue(const std::string& text);
const char* keyKindName(KeyLine::Kind kind);

// The nine keys of the unit's description, as a new module has them: the
// model name of the platform's row, a software version, "NOMINAL" and so on.
std::string defaultKeys(int platform);

// The host name of a new module (sim/hostname): its serial number in lower case.
std::string hostnameOf(const std::string& serial);

// Changes one line of sim/keys under the module's lock (a new key goes at the
// end); unset removes it. "" or why not.
std::string setKeyLine(Module& module, const KeyLine& line);
std::string unsetKeyLine(Module& module, const std::string& key);

// Answers the listeners it registered from the module's sim/keys, reading the
// file again when it changed. It must outlive the sessions it is attached to.
class KeySource {
public:
    explicit KeySource(Module& module);
    ~KeySource();
    KeySource(const KeySource&) = delete;
    KeySource& operator=(const KeySource&) = delete;

    // One LISTEN_GET | LISTEN_SET listener per line (two for !twice), through
    // RegisterListener. The number registered.
    int attach(TAVSession& session);

    struct Listener;

private:
    friend int keySourceAnswer(TavModParam*, int, int, void*);
    int answer(const Listener& listener, TavModParam* param, int action);
    const KeyLine* find(const std::string& key);

    Module& module_;
    std::mutex mutex_;
    Module::Stamp stamp_;
    std::vector<KeyLine> lines_;
    std::vector<std::unique_ptr<Listener>> listeners_;
};

} // namespace sim
