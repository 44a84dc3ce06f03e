// The flat functions of the controller API: identifiers, the error record
// and its texts, and (below the marker) the controller functions.
#include "tw_api/tw_api.h"

// The controller functions and the globals follow.
