// Heap blocks that cannot be had.
#include "driver/base/mem.h"

#include <cstdint>
#include <cstdlib>
#include <gtest/gtest.h>

#ifndef KESTRO_SANITIZED
TEST(Mem, AnAllocationThatFailsEndsTheProgramWithAMessage)
{
    // Memory that nobody looks at need not be asked for.
    [[maybe_unused]] static void *volatile taken;
    EXPECT_EXIT(taken = mem_calloc(1, SIZE_MAX / 2), testing::ExitedWithCode(1),
                "^Out of memory: 9223372036854775807 bytes are not to be had\\.\n$");
    EXPECT_EXIT(taken = mem_realloc(nullptr, SIZE_MAX / 2), testing::ExitedWithCode(1),
                "^Out of memory: 9223372036854775807 bytes are not to be had\\.\n$");
}
#endif

TEST(Mem, ANullTextStaysNull)
{
    EXPECT_EQ(mem_strdup(nullptr), nullptr);
}
