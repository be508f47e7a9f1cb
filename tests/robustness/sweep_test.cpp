// The robustness sweep on Wine's own machine: no fakes beneath the library.
#include <gtest/gtest.h>

#include "support/sweep.h"

namespace {

TEST(RobustnessSweep, QueriesNeverWritePastTheBufferAndRefusalsTouchNothing) { torvex::test::SweepQueries(); }

TEST(RobustnessSweep, OtherExportsRefuseBadArgumentsWithoutFaulting) { torvex::test::SweepOtherExports(); }

}  // namespace
