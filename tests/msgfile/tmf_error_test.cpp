// Codes and their texts, and the error state of handles and of the last open.
#include "msgfile/tmf_error.h"
#include "tests/msgfile/message_file.h"
#include "tests/msgfile/system_calls.h"

#include <cerrno>
#include <climits>

// clang-format off
static const struct {
    int code;
    const char *text;
} texts[] = {
    {-5282, "Signal received while reading message file."},
    {-5281, "MPE error TMF_ENOACCESS."},
    {-5280, "MPE error TMF_ENOTMPEMSG."},
    {-5279, "MPE error TMF_EWRITEEOF."},
    {-5278, "MPE error TMF_EFCONTROL_WAIT."},
    {-5277, "MPE error TMF_EFCONTROL_TO."},
    {-5276, "MPE error TMF_EFCONTROL_NDR."},
    {-5275, "MPE error TMF_EWRITEERR."},
    {-5274, "MPE error TMF_EFREADERR."},
    {-5273, "MPE error TMF_EFREADEOF."},
    {-5272, "MPE error TMF_EFFILEINFO."},
    {-5271, "MPE error TMF_EFCLOSE."},
    {-5270, "Internal interrupt on read."},
    {-5269, "No file name specified on file open."},
    {-5268, "Timeout on read of message file."},
    {-5267, "Tamberlin message files not supported on MPE."},
    {-5266, "Must specify exclusive read access to open in copy mode."},
    {-5265, "Error truncating file."},
    {-5264, "Error waiting: UDP port already in use."},
    {-5263, "Exclusively write access requested for file already open."},
    {-5262, "Exclusively read access requested for file already open."},
    {-5261, "File already opened exclusively for write access."},
    {-5260, "File already opened exclusively for read access."},
    {-5259, "Invalid info requested."},
    {-5258, "Error on file commit."},
    {-5257, "EOF reading writer area."},
    {-5256, "Error reading writer area."},
    {-5255, "EOF reading reader area."},
    {-5254, "Error reading reader area."},
    {-5253, "Bad write signal received."},
    {-5252, "Error ATTACHED setting non-blocking socket."},
    {-5251, "Error ATTACHED receiving udp data."},
    {-5250, "Error ATTACHED sending udp data."},
    {-5249, "Error stopping network."},
    {-5248, "Error starting network."},
    {-5247, "EOF writing writer data."},
    {-5246, "Error writing writer data."},
    {-5245, "EOF seeking writer area."},
    {-5244, "Writer area already locked."},
    {-5243, "EOF writing reader data."},
    {-5242, "Error writing reader data."},
    {-5241, "EOF seeking reader area."},
    {-5240, "Reader area already locked."},
    {-5239, "Error applying unlock."},
    {-5238, "Error applying test lock."},
    {-5237, "Error applying nowait lock."},
    {-5236, "Error applying wait lock."},
    {-5235, "Internal error: Bad handle."},
    {-5234, "Internal error."},
    {-5233, "Maximum number of readers exceeded."},
    {-5232, "Maximum number of writers exceeded."},
    {-5231, "Attempt to read from a file opened with write access."},
    {-5230, "Attempt to write to a file opened with read access."},
    {-5229, "EOF reading data."},
    {-5228, "Error reading data."},
    {-5227, "EOF writing data."},
    {-5226, "Error writing data."},
    {-5225, "EOF seeking data area."},
    {-5224, "Error seeking data area."},
    {-5223, "EOF writing common area."},
    {-5222, "Error writing common area."},
    {-5221, "EOF reading common area."},
    {-5220, "Error reading common area."},
    {-5219, "EOF seeking common area."},
    {-5218, "Error seeking common area."},
    {-5217, "Invalid buffer size."},
    {-5216, "Invalid record size."},
    {-5215, "Records are in an unsupported format."},
    {-5214, "EOF seeking lock area."},
    {-5213, "Error seeking lock area."},
    {-5212, "EOF writing lock area."},
    {-5211, "Error writing lock area."},
    {-5210, "Message file created on an incompatible system."},
    {-5209, "File is not a message file."},
    {-5208, "EOF initially writing common area."},
    {-5207, "Error initially writing common area."},
    {-5206, "EOF initially reading common area."},
    {-5205, "Error opening file: ATTACHED"},
    {-5204, "TMF_UNUSED_1"},
    {-5203, "Operation not permitted using write access mode."},
    {-5202, "Operation not permitted using write access mode."},
    {-5201, "Error deleting record from message file."},
    // Anything else has no text.
    {-5283, "Message file error #-5283"},
    {-5200, "Message file error #-5200"},
    {0, "Message file error #0"},
    {1, "Message file error #1"},
    {-1, "Message file error #-1"},
    {5250, "Message file error #5250"},
    {INT_MAX, "Message file error #2147483647"},
    {INT_MIN, "Message file error #-2147483648"},
};
// clang-format on

static_assert(sizeof(texts) / sizeof(texts[0]) == 82 + 8);

class TmfError : public MessageFile {
  protected:
    system_calls_guard guard;
    tmf_handle h = {};
};

TEST_F(TmfError, EveryCodeHasItsTextAndOthersTheirNumber)
{
    char buf[TMF_ERRMSG_SIZE];
    for (const auto &row : texts) {
        tmf_code_text(row.code, "ATTACHED", buf);
        EXPECT_STREQ(buf, row.text);
    }
}

TEST_F(TmfError, TextsOfHandleAndOpenErrorAreThose)
{
    for (const auto &row : texts) {
        std::string without = row.text;
        if (const size_t at = without.find("ATTACHED"); at != std::string::npos)
            without.erase(at, 8);
        tmf_set_error(&h, row.code);
        EXPECT_EQ(tmf_geterrno(&h), row.code);
        EXPECT_EQ(message_of(&h), without);
        tmf_set_error(nullptr, row.code);
        EXPECT_EQ(tmf_geterrno(nullptr), row.code);
        EXPECT_EQ(message_of(nullptr), without);
    }
}

TEST_F(TmfError, FixedTextIsTheMessageWithoutTheSystemsPart)
{
    for (const auto &row : texts) {
        std::string expected = row.text;
        if (const size_t at = expected.find("ATTACHED"); at != std::string::npos)
            expected.replace(at, 8, "(system error)");
        if (expected.starts_with("Message file error #") && row.code != 1)
            expected = "Message file error";
        const char *const text = tmf_strerror(row.code);
        EXPECT_EQ(text, expected) << row.code;
        EXPECT_EQ(tmf_strerror(row.code), text) << "the same bytes each time";
    }
    EXPECT_TRUE(calls_made().empty());
    EXPECT_EQ(tmf_geterrno(&h), 0);
}

TEST_F(TmfError, NetworkTextIsGivenOnce)
{
    EXPECT_EQ(tmf_network_error(&h, TMF_ESEND, "sendto()", 111), TMF_ESEND);
    EXPECT_EQ(tmf_geterrno(&h), 0); // the caller stores the code
    tmf_set_error(&h, TMF_ESEND);
    EXPECT_EQ(message_of(&h), "Error #111 on sendto() sending udp data.");
    EXPECT_EQ(message_of(&h), "Error  sending udp data.");
    EXPECT_EQ(tmf_geterrno(&h), TMF_ESEND);
}

TEST_F(TmfError, SystemTextIsGivenOnce)
{
    const std::string text = "Error opening file: " + std::string(strerror(EACCES));
    EXPECT_EQ(tmf_os_error(&h, TMF_EOPEN, EACCES), TMF_EOPEN);
    EXPECT_EQ(message_of(&h), text);
    EXPECT_EQ(message_of(&h), "Error opening file: ");
    EXPECT_EQ(tmf_os_error(nullptr, TMF_EOPEN, EACCES), TMF_EOPEN);
    EXPECT_EQ(message_of(nullptr), text);
    EXPECT_EQ(message_of(nullptr), "Error opening file: ");
    EXPECT_EQ(tmf_geterrno(nullptr), TMF_EOPEN);
}

TEST_F(TmfError, SystemTextIsConsumedByATextWithoutAPlaceForIt)
{
    tmf_os_error(&h, TMF_EREAD_DATA, ENOENT);
    EXPECT_EQ(message_of(&h), "Error reading data.");
    tmf_set_error(&h, TMF_EOPEN);
    EXPECT_EQ(message_of(&h), "Error opening file: ");
}

TEST_F(TmfError, NetworkTextGoesBeforeTheSystemTextAndKeepsIt)
{
    tmf_os_error(&h, TMF_ERECEIVE, ENOENT);
    tmf_network_error(&h, TMF_ERECEIVE, "bind()", 98);
    EXPECT_EQ(message_of(&h), "Error #98 on bind() receiving udp data.");
    EXPECT_EQ(message_of(&h), "Error " + std::string(strerror(ENOENT)) + " receiving udp data.");
    EXPECT_EQ(message_of(&h), "Error  receiving udp data.");
}

TEST_F(TmfError, AttachedTextIsNoFormatAndIsCutAt128Bytes)
{
    tmf_network_error(&h, TMF_ENONBLOCK, "%s%n%d()", 22);
    tmf_set_error(&h, TMF_ENONBLOCK);
    EXPECT_EQ(message_of(&h), "Error #22 on %s%n%d() setting non-blocking socket.");

    // The longest text with the longest attached text fits.
    char buf[TMF_ERRMSG_SIZE];
    const std::string longest(1000, 'x');
    tmf_code_text(TMF_ENONBLOCK, longest.c_str(), buf);
    EXPECT_EQ(std::string(buf), "Error " + std::string(128, 'x') + " setting non-blocking socket.");
    tmf_network_error(&h, TMF_ENONBLOCK, longest.c_str(), 22);
    EXPECT_EQ(message_of(&h).size(), strlen("Error  setting non-blocking socket.") + 127);
}

TEST_F(TmfError, TextBufferIsGivenBackAndMayBeMissing)
{
    char buf[TMF_ERRMSG_SIZE];
    EXPECT_EQ(tmf_geterrmsg(&h, buf), buf);
    EXPECT_EQ(tmf_geterrmsg(&h, nullptr), nullptr);
    EXPECT_EQ(tmf_geterrmsg(nullptr, nullptr), nullptr);
}

TEST_F(TmfError, ClearingTakesTheCodeAndNotTheOpenError)
{
    tmf_set_error(&h, TMF_EREAD_DATA);
    tmf_set_error(nullptr, TMF_ENOTMSG);
    h.aux_buffer = malloc(10);
    tmf_clearerr(&h);
    EXPECT_EQ(tmf_geterrno(&h), 0);
    EXPECT_EQ(h.aux_buffer, nullptr);
    tmf_clearerr(nullptr);
    EXPECT_EQ(tmf_geterrno(nullptr), TMF_ENOTMSG);
}

TEST_F(TmfError, OpenWithoutANameHasItsCode)
{
    EXPECT_EQ(tmf_fopen(nullptr, 0), nullptr);
    EXPECT_EQ(tmf_geterrno(nullptr), TMF_ENONAME);
    EXPECT_EQ(message_of(nullptr), "No file name specified on file open.");
    tmf_set_error(nullptr, 0);
    EXPECT_EQ(tmf_fopen("", 7), nullptr);
    EXPECT_EQ(message_of(nullptr), "No file name specified on file open.");
    EXPECT_TRUE(calls_made().empty());
}

TEST_F(TmfError, OpenInAMissingDirectoryGivesTheSystemsText)
{
    EXPECT_EQ(tmf_fopen(dir.file("missing/queue").c_str(), 0), nullptr);
    EXPECT_EQ(tmf_geterrno(nullptr), TMF_EOPEN);
    EXPECT_EQ(message_of(nullptr), "Error opening file: " + std::string(strerror(ENOENT)));
    EXPECT_EQ(message_of(nullptr), "Error opening file: ");
}

TEST_F(TmfError, LaterOpenOverwritesTheOpenErrorOnlyWhenItFails)
{
    EXPECT_EQ(tmf_fopen("", 0), nullptr);
    tmf_handle *writer = open(0);
    ASSERT_NE(writer, nullptr);
    EXPECT_EQ(tmf_geterrno(nullptr), TMF_ENONAME);
    EXPECT_EQ(tmf_geterrno(writer), 0);
    EXPECT_EQ(message_of(writer), "Message file error #0");
    EXPECT_EQ(tmf_fclose(writer), 0);
    EXPECT_EQ(tmf_geterrno(nullptr), TMF_ENONAME);
    EXPECT_EQ(open(4), nullptr);
    EXPECT_EQ(tmf_geterrno(nullptr), TMF_ECOPYMODE);
}

TEST_F(TmfError, SuccessDoesNotClearTheHandlesCode)
{
    tmf_handle *writer = open(0);
    ASSERT_NE(writer, nullptr);
    EXPECT_EQ(tmf_fwrite(writer, "x", 0), TMF_ERECORD_SIZE);
    EXPECT_EQ(tmf_fwrite(writer, "x", 1), 0);
    EXPECT_EQ(tmf_geterrno(writer), TMF_ERECORD_SIZE);
    EXPECT_EQ(message_of(writer), "Invalid record size.");
    tmf_clearerr(writer);
    EXPECT_EQ(tmf_geterrno(writer), 0);
    EXPECT_EQ(tmf_fclose(writer), 0);
}

TEST_F(TmfError, FailedWakeUpNamesTheSystemsErrorOnce)
{
    tmf_handle *writer = open(0);
    ASSERT_NE(writer, nullptr);
    ASSERT_EQ(pwrite(writer->fd, "\1", 1, 124), 1); // a reader is said to wait
    fail_call(CALL_SENDTO, 111);
    EXPECT_EQ(tmf_fwrite(writer, "x", 1), TMF_ESEND);
    EXPECT_EQ(tmf_geterrno(writer), TMF_ESEND);
    EXPECT_EQ(message_of(writer), "Error #111 on sendto() sending udp data.");
    EXPECT_EQ(message_of(writer), "Error  sending udp data.");
    answer_call(CALL_SENDTO, 12, 0, -1);
    EXPECT_EQ(tmf_fclose(writer), 0);
}
