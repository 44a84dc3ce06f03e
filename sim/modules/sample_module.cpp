// The sample management module of the simulation, built once per variant:
//   SAMPLE_VERSION       its version text (none when undefined)
//   SAMPLE_NO_CLOSE      no CloseSession
//   SAMPLE_REFUSE        OpenSession refuses
//   SAMPLE_MISMATCH      2: both structure fields changed, 1: only one
//   SAMPLE_ACCESS        answers "hello" and the question of a user's
//                        grants, giving every user get on the hello key
//   SAMPLE_BIG           carries a constant table of 1 MiB (for measuring checks)
// It registers "/tav/public/test/hello/" in the session that opens it. Only
// the responder calls into the program (TavModParam): the program that loads
// it exports its symbols.
#include "corvaneutils/tavmodule.h"
#include "tavutils/tavmodparam.h"

namespace {

char gName[] = "hello";
char gVendor[] = "vendorx";
#ifdef SAMPLE_VERSION
char gVersion[] = SAMPLE_VERSION;
#endif

#ifdef SAMPLE_ACCESS
int hello(TavModParam* param, int, int, void*) { return param->appendMessage("hello"); }
int access(TavModParam* param, int, int, void*) { return param->appendMessage("/tav/public/test/hello/:1:"); }
#else
int hello(TavModParam*, int, int, void*) { return 0; }
#endif

} // namespace

#ifdef SAMPLE_BIG
// Not all zeros, so that every byte lies in the file.
extern "C" __attribute__((visibility("default"), used)) const unsigned char sample_table[1 << 20] = {1, 2, 3};
#endif

extern "C" __attribute__((visibility("default"))) int OpenSession(module_funcs* funcs, system_funcs* sys)
{
    funcs->pModuleName = gName;
    funcs->pModuleVendor = gVendor;
#ifdef SAMPLE_VERSION
    funcs->pModuleVersion = gVersion;
#else
    funcs->pModuleVersion = nullptr;
#endif
#if defined(SAMPLE_MISMATCH)
    funcs->iStructVersion = 2;
#if SAMPLE_MISMATCH == 2
    funcs->iStructSize = 40;
#endif
#endif
#ifdef SAMPLE_ACCESS
    sys->session->RegisterListener("/tav/public/test/hello/", 1, hello, 4, nullptr);
    sys->session->RegisterListener("/tav/public/security/admin/user/access-int/", 2, access, 4, nullptr);
#else
    sys->session->RegisterListener("/tav/public/test/hello/", 1, hello, 1, nullptr);
#endif
#ifdef SAMPLE_REFUSE
    return 1;
#else
    return 0;
#endif
}

#ifndef SAMPLE_NO_CLOSE
extern "C" __attribute__((visibility("default"))) int CloseSession(module_funcs*) { return 0; }
#endif
