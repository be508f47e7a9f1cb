#include <gtest/gtest.h>
#include "support/torvex_test.h"
TEST(Smoke, Loads) { EXPECT_NE(torvex::test::TorvexModule(), nullptr); }
