#include "block_server.h"
#include <gtest/gtest.h>
TEST(BlockServerLoad, Placeholder) {}
