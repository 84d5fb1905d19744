// The record buffer: it only grows, and stays what it was when memory is short.
#include "msgfile/tmf_buffer.h"
#include "tests/msgfile/system_calls.h"

#include <cerrno>
#include <cstdlib>
#include <gtest/gtest.h>

TEST(TmfBuffer, GrowsToTheNeedAndNeverShrinks)
{
    const system_calls_guard guard;
    tmf_handle h = {};
    EXPECT_EQ(tmf_grow_record_buffer(&h, TMF_FIRST_BUFFER), 0);
    EXPECT_EQ(h.record_buffer_size, TMF_FIRST_BUFFER);
    const unsigned char *const first = h.record_buffer;
    ASSERT_NE(first, nullptr);
    fail_call(CALL_MALLOC, ENOMEM); // and is not asked for memory
    EXPECT_EQ(tmf_grow_record_buffer(&h, TMF_FIRST_BUFFER), 0);
    EXPECT_EQ(tmf_grow_record_buffer(&h, 1), 0);
    EXPECT_EQ(h.record_buffer, first);
    EXPECT_EQ(h.record_buffer_size, TMF_FIRST_BUFFER);
    free(h.record_buffer);
}

TEST(TmfBuffer, ShortMemoryLeavesTheBufferThatWasThere)
{
    const system_calls_guard guard;
    tmf_handle h = {};
    ASSERT_EQ(tmf_grow_record_buffer(&h, 10), 0);
    unsigned char *const first = h.record_buffer;
    fail_call(CALL_MALLOC, ENOMEM);
    EXPECT_EQ(tmf_grow_record_buffer(&h, 11), TMF_EINTERNAL);
    EXPECT_EQ(h.record_buffer, first);
    EXPECT_EQ(h.record_buffer_size, 10);
    EXPECT_EQ(tmf_grow_record_buffer(&h, 11), 0);
    EXPECT_EQ(h.record_buffer_size, 11);
    free(h.record_buffer);
}
