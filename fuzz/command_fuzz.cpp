// Command texts from clients and grant replies of modules. The first line is
// the command; the second is what every listener answers, and the access
// reply of a user. A command goes through the syntax check, the dispatch of
// a session with listeners of every action, the local path into a small
// buffer, and the user registration.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "corvaneutils/tavsession.h"
#include "tavutils/tavmodparam.h"

namespace {

int answer(TavModParam* param, int keyId, int, void* session)
{
    auto* reply = static_cast<const std::string*>(session);
    if (keyId % 2)
        param->appendData(reply->data(), static_cast<int>(reply->size()));
    else
        param->appendMessage(reply->c_str());
    return keyId % 3 == 0 ? -1 : 0;
}

} // namespace

int commandFuzzOne(const uint8_t* data, size_t size)
{
    if (size < 1) return 0;
    const size_t bufferSize = data[0] % 24 + 1;
    std::string rest(reinterpret_cast<const char*>(data + 1), size - 1);
    size_t split = rest.find('\n');
    std::string text = rest.substr(0, split == std::string::npos ? rest.size() : split);
    std::string reply = split == std::string::npos ? std::string() : rest.substr(split + 1);

    TAVSession session;
    const char* keys[] = {"/tav/public/", "/tav/public/a/", "/tav/public/security/admin/user/access-int/", "/global/x",
                          "/tav/private/"};
    int id = 1;
    for (const char* key : keys) {
        session.RegisterListener(key, id++, answer, LISTEN_GET, &reply);
        session.RegisterListener(key, id++, answer, LISTEN_SET | LISTEN_ADD | LISTEN_DEL | LISTEN_COMMIT, &reply);
    }
    session.getKeyRegistry().AddUserSecurityKey("/tav/public/security/", TavCmd::GET);
    session.RegisterUser(text.c_str(), false);
    session.RegisterUser("local", true);

    TAVCommand command(text.c_str());
    int syntax = command.CheckSyntax();
    if (syntax > 0 || syntax < -9) std::abort();
    if (syntax == 0) {
        session.HandleMessage(&command);
        for (int i = 0; i < command.GetReturnCount(); ++i)
            if (command.GetReturnValueSize(i) < 1) std::abort();
    }
    char buffer[32];
    std::memset(buffer, 'z', sizeof buffer);
    session.processLocalCorvaneKey(text.c_str(), buffer, static_cast<int>(bufferSize));
    if (strnlen(buffer, bufferSize) >= bufferSize) std::abort();
    for (size_t i = bufferSize; i < sizeof buffer; ++i)
        if (buffer[i] != 'z') std::abort();
    return 0;
}

#ifndef TAV_FUZZ_REPLAY
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) { return commandFuzzOne(data, size); }
#endif
