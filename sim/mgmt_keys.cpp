#include "mgmt_keys.h"

#include <cctype>
#include <sstream>

#include "corvaneutils/tavsession.h"
#include "identity.h"
#include "tavutils/tavmodparam.h"

namespace sim {

struct KeySource::Listener {
    KeySource* source;
    std::string key;  // as in the file
    bool second;      // the second listener of !twice
};

namespace {

const char kKeysFile[] = "keys";

// "/KEY/": the registry matches by characters, and a key without its slash
// would also answer every sibling it begins (".../config" and
// ".../config_description").
std::string registered(const std::string& key)
{
    std::string k = key;
    if (k.empty() || k[0] != '/') k = "/" + k;
    if (k.back() != '/') k += '/';
    return k;
}

} // namespace

std::string escapeKeyValue(const std::string& value)
{
    std::string out;
    for (size_t i = 0; i < value.size(); ++i) {
        char c = value[i];
        if (c == '\t')
            out += "\\t";
        else if (c == '\n')
            out += "\\n";
        else if (c == '\\')
            out += "\\\\";
        else if (c == ' ' && (i == 0 || i + 1 == value.size()))
            out += "\\s";   // blanks at the ends would be lost to a reader
        else if (c == '!' && i == 0)
            out += "\\!";
        else
            out += c;
    }
    return out;
}

std::string unescapeKeyValue(const std::string& text)
{
    std::string out;
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '\\' || i + 1 == text.size()) {
            out += text[i];
            continue;
        }
        char c = text[++i];
        out += c == 't' ? '\t' : c == 'n' ? '\n' : c == 's' ? ' ' : c;
    }
    return out;
}

const char* keyKindName(KeyLine::Kind kind)
{
    switch (kind) {
    case KeyLine::Fail: return "fail";
    case KeyLine::Twice: return "twice";
    case KeyLine::Raw: return "raw";
    default: return "value";
    }
}

std::vector<KeyLine> parseKeys(const std::string& text)
{
    std::vector<KeyLine> out;
    std::istringstream in(text);
    std::string line;
    while (std::getline(in, line)) {
        if (!line.empty() && line.back() == '\r') line.pop_back();
        size_t start = line.find_first_not_of(' ');
        if (start == std::string::npos || line[start] == '#') continue;
        size_t end = line.find(' ', start);
        KeyLine k;
        k.key = line.substr(start, end == std::string::npos ? std::string::npos : end - start);
        std::string rest = end == std::string::npos ? "" : line.substr(end + 1);
        auto word = [&](const char* marker) {
            size_t n = std::string(marker).size();
            return rest.compare(0, n, marker) == 0 && (rest.size() == n || rest[n] == ' ');
        };
        auto after = [&](size_t n) { return rest.size() > n ? rest.substr(n + 1) : std::string(); };
        if (word("!fail")) {
            k.kind = KeyLine::Fail;
            k.value = unescapeKeyValue(after(5));
        } else if (word("!raw")) {
            k.kind = KeyLine::Raw;
            k.value = unescapeKeyValue(after(4));
        } else if (word("!twice")) {
            k.kind = KeyLine::Twice;
            std::string both = after(6);
            size_t blank = both.find(' ');
            k.value = unescapeKeyValue(both.substr(0, blank));
            k.value2 = blank == std::string::npos ? "" : unescapeKeyValue(both.substr(blank + 1));
        } else {
            k.value = unescapeKeyValue(rest);
        }
        out.push_back(std::move(k));
    }
    return out;
}

std::string formatKeys(const std::vector<KeyLine>& lines)
{
    std::string out;
    for (const KeyLine& k : lines) {
        out += k.key;
        switch (k.kind) {
        case KeyLine::Fail: out += " !fail " + escapeKeyValue(k.value); break;
        case KeyLine::Raw: out += " !raw " + escapeKeyValue(k.value); break;
        case KeyLine::Twice: {
            // The first value ends at a blank: every blank of it is escaped.
            std::string first;
            for (char c : escapeKeyValue(k.value)) first += c == ' ' ? std::string("\\s") : std::string(1, c);
            out += " !twice " + first + " " + escapeKeyValue(k.value2);
            break;
        }
        default: out += " " + escapeKeyValue(k.value); break;
        }
        out += "\n";
    }
    return out;
}

std::string defaultKeys(int platform)
{
    const ModelRow* row = modelRow(platform);
    std::vector<KeyLine> keys = {
        {"tav/public/storage/raid/status", KeyLine::Value, "NOMINAL", ""},
        {"tav/public/storage/raid/config", KeyLine::Value, "RAID5", ""},
        {"tav/public/storage/raid/config_description", KeyLine::Value, "RAID 5 over all data drives", ""},
        {"tav/public/system/info/software/version", KeyLine::Value, "3.2.1", ""},
        {"tav/public/system/ondra/system_id", KeyLine::Value, "NO_SYSTEM_ID", ""},
        {"tav/public/system/ondra/gui2mgrPort", KeyLine::Value, "13841", ""},
        {"tav/public/system/info/model", KeyLine::Value, row ? row->name : "UNKNOWN", ""},
        {"tav/public/system/ondra/virtualmgrConfigured", KeyLine::Value, "0", ""},
        {"tav/public/system/info/partner/sn", KeyLine::Value, "NONE", ""},
    };
    return formatKeys(keys);
}

std::string hostnameOf(const std::string& serial)
{
    std::string name;
    for (char c : serial)
        if (std::isalnum(static_cast<unsigned char>(c)) || c == '-') name += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return name.empty() ? "obx" : name;
}

std::string setKeyLine(Module& module, const KeyLine& line)
{
    if (line.key.empty() || line.key.find_first_of(" \t\n") != std::string::npos)
        return "a key is one word";
    if (line.key[0] == '#') return "a key does not begin with #";
    module.updateState(kKeysFile, [&](std::string& text) {
        std::vector<KeyLine> lines = parseKeys(text);
        bool found = false;
        for (KeyLine& k : lines)
            if (k.key == line.key) {
                k = line;
                found = true;
            }
        if (!found) lines.push_back(line);
        text = formatKeys(lines);
        return true;
    });
    return "";
}

std::string unsetKeyLine(Module& module, const std::string& key)
{
    bool found = false;
    module.updateState(kKeysFile, [&](std::string& text) {
        std::vector<KeyLine> lines = parseKeys(text);
        std::vector<KeyLine> kept;
        for (KeyLine& k : lines) {
            if (k.key == key)
                found = true;
            else
                kept.push_back(std::move(k));
        }
        if (!found) return false;
        text = formatKeys(kept);
        return true;
    });
    return found ? "" : "no key " + key;
}

int keySourceAnswer(TavModParam* param, int, int action, void* session)
{
    auto* listener = static_cast<KeySource::Listener*>(session);
    return listener->source->answer(*listener, param, action);
}

KeySource::KeySource(Module& module) : module_(module) {}

KeySource::~KeySource() = default;

const KeyLine* KeySource::find(const std::string& key)
{
    if (module_.stateChanged(kKeysFile, stamp_)) lines_ = parseKeys(module_.readState(kKeysFile));
    for (const KeyLine& k : lines_)
        if (k.key == key) return &k;
    return nullptr;
}

int KeySource::attach(TAVSession& session)
{
    std::lock_guard<std::mutex> hold(mutex_);
    find("");
    int count = 0;
    int id = static_cast<int>(listeners_.size());
    for (const KeyLine& k : lines_) {
        for (int second = 0; second < (k.kind == KeyLine::Twice ? 2 : 1); ++second) {
            listeners_.push_back(std::make_unique<Listener>(Listener{this, k.key, second == 1}));
            std::string key = registered(k.key);
            if (second) key.pop_back();
            if (session.RegisterListener(key.c_str(), ++id, keySourceAnswer, LISTEN_GET | LISTEN_SET,
                                         listeners_.back().get()) == 0)
                ++count;
        }
    }
    return count;
}

int KeySource::answer(const Listener& listener, TavModParam* param, int action)
{
    std::lock_guard<std::mutex> hold(mutex_);
    if (action == LISTEN_SET) {
        // The registry hands over the rest of the command's key: "VALUE",
        // or "/VALUE" to the second listener of !twice.
        std::string value = param->getValue(0) ? param->getValue(0) : "";
        if (!value.empty() && value[0] == '/') value.erase(0, 1);
        KeyLine line{listener.key, KeyLine::Value, value, ""};
        setKeyLine(module_, line);
        return 0;
    }
    const KeyLine* k = find(listener.key);
    if (!k) {
        param->appendMessage("no such key");
        return -1;
    }
    switch (k->kind) {
    case KeyLine::Fail:
        param->appendMessage(k->value.c_str());
        return -1;
    case KeyLine::Raw:
        param->appendData(k->value.data(), static_cast<int>(k->value.size()));
        return 0;
    case KeyLine::Twice:
        param->appendMessage((listener.second ? k->value2 : k->value).c_str());
        return 0;
    default:
        param->appendMessage(k->value.c_str());
        return 0;
    }
}

} // namespace sim
