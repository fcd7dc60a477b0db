#include <gtest/gtest.h>

#include "DDImage/Host.h"

TEST(Host, Builds) { SUCCEED(); }
