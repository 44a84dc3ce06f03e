// The sample management module of the simulation, built once per variant:
//   SAMPLE_VERSION       its version text (none when undefined)
//   SAMPLE_NO_CLOSE      no CloseSession
//   SAMPLE_REFUSE        OpenSession refuses
//   SAMPLE_MISMATCH      2: both structure fields changed, 1: only one
// It registers "/tav/public/test/hello/" in the session that opens it, and
// calls nothing of the program but the session's own virtual functions.
#include "corvaneutils/tavmodule.h"

namespace {

char gName[] = "hello";
char gVendor[] = "vendorx";
#ifdef SAMPLE_VERSION
char gVersion[] = SAMPLE_VERSION;
#endif

int hello(TavModParam*, int, int, void*) { return 0; }

} // namespace

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
    sys->session->RegisterListener("/tav/public/test/hello/", 1, hello, 1, nullptr);
#ifdef SAMPLE_REFUSE
    return 1;
#else
    return 0;
#endif
}

#ifndef SAMPLE_NO_CLOSE
extern "C" __attribute__((visibility("default"))) void CloseSession(module_funcs*) {}
#endif
