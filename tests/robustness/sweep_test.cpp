// The robustness sweep on Wine's own machine: no fakes beneath the library.
#include <gtest/gtest.h>

#include "support/sweep.h"

namespace {

TEST(RobustnessSweep, QueriesNeverWritePastTheBufferAndRefusalsTouchNothing) { torvex::test::SweepQueries(); }

TEST(RobustnessSweep, OtherExportsRefuseBadArgumentsWithoutFaulting) { torvex::test::SweepOtherExports(); }

// Wine has no wireless interface, no audio endpoint, no firmware method and no
// display back end, so every set here is refused before it changes anything.
TEST(RobustnessSweep, SetsNeverFault) { torvex::test::SweepSets(); }

}  // namespace
