#include "sim/tw_api_state.h"

#include "tw_api/tw_api.h"
#include "tw_api/tw_api_osil.h"

namespace sim {

void resetTwApi()
{
    tw_api_clear_error();
    os = linux_os();
}

} // namespace sim
