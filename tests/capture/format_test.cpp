// Which output format a capture file has.
#include "capture/format.h"

#include "ascii/ascii_flags.h"
#include "capture/ebmf.h"
#include "driver/base/logrec.h"
#include "tests/support/core_state.h"
#include "tests/support/tempdir.h"

#include <cstring>

TEST(Format, AnyAsciiFlagChoosesText)
{
    EXPECT_EQ(&message_format, find_format(0));
    for (uint32_t flags = 1; flags <= (ASCII_ON | ASCII_REVERSE | ASCII_DIRTY | ASCII_BWFMT);
         flags++)
        EXPECT_EQ(&text_format, find_format(flags)) << flags;
}

TEST(Format, OnlyMessageFilesHaveALimit)
{
    EXPECT_TRUE(message_format.limited);
    EXPECT_FALSE(text_format.limited);
    EXPECT_EQ(message_format.longest, TMF_MAX_DATA);
    EXPECT_EQ(text_format.longest, 0);
}

TEST(Format, NamesOfAMarkFindTheirRow)
{
    for (const cap_format *format : {&text_format, &message_format}) {
        EXPECT_EQ(format, find_format_name(format->name));
        EXPECT_LE(strlen(format->name), 7U) << "what the mark is read into";
    }
    EXPECT_STREQ("text", text_format.name);
    EXPECT_STREQ("message", message_format.name);
    EXPECT_EQ(nullptr, find_format_name("texts"));
    EXPECT_EQ(nullptr, find_format_name(""));
}

class FormatOf : public core_state {};

TEST_F(FormatOf, AFileAndItsHandleHaveTheSame)
{
    const tempdir dir;
    log_record record = {};
    for (const uint32_t flags : {0U, ASCII_ON}) {
        capfil *cf = add_file(dir.file(std::to_string(flags)), text_options(flags));
        EXPECT_EQ(find_format(flags), cf->format);
        (void)capture([&] { EXPECT_EQ(0, capture_write_insert(g_ci, &record)); });
        ASSERT_NE(nullptr, cf->fp);
        EXPECT_EQ(cf->format, cf->fp->format);
        EXPECT_EQ(static_cast<int32_t>(flags), cf->fp->is_text);
    }
}
