// The end of a service layer's "Ondra module: " line: where it was said.
// Include after driveutils/tavlog.h, which gives TAV_FILE.
#pragma once

#include <ostream>

#include "driveutils/tavsysutils.h"

#define ONDRA_END TAV_FILE << " " << __LINE__ << std::endl
