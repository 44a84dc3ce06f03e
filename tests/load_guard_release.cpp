// Every test executable carries the load guard (sim/load_guard.h): it keeps
// the load-time work of static objects away from the host, and steps aside
// here, when the tests begin.
#include <gtest/gtest.h>

#include "sim/load_guard.h"

namespace {

class ReleaseLoadGuard : public ::testing::Environment {
public:
    void SetUp() override { sim::releaseLoadGuard(); }
};

const auto* const registered = ::testing::AddGlobalTestEnvironment(new ReleaseLoadGuard);

} // namespace
