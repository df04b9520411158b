#include "platform/rapi_util.h"

#include "platform/debug_out.h"
#include "platform/modules.h"

namespace host {
namespace {

DWORD controlViaCmdLine(DWORD a, DWORD b, DWORD c, DWORD d, DWORD e) {
    NKDbgPrintfW(
        L"RapiUtil!ControlViaCmdLine(%u, %u, %u, %u, %u): no command-line control on this host\n",
        a, b, c, d, e);
    return 0;
}

}  // namespace

void installRapiUtilStandIn() {
    registerModule(L"RapiUtil.dll",
                   {{"ControlViaCmdLine", reinterpret_cast<FARPROC>(&controlViaCmdLine)}});
}

}  // namespace host
