// The examples of docs/tmf-tool.md that show a stream, a damage and its salvage, carried out.
#include "tests/support/markdown.h"
#include "tests/tools/tmf/damaged_file.h"

class TmfPage : public DamagedFile {
  protected:
    const std::string page = md_page("docs/tmf-tool.md");
    const std::string out = dir.file("saved");

    // What the page shows, with this file's name in it.
    std::string shown(std::string text) const
    {
        replace(text, "/var/spool/orders.saved", out);
        replace(text, "/var/spool/orders", path);
        return text;
    }
    static void replace(std::string &text, const std::string &what, const std::string &with)
    {
        for (size_t at = 0; (at = text.find(what, at)) != std::string::npos; at += with.size())
            text.replace(at, what.size(), with);
    }
    // Runs a command of the page on the file with tmf on its path.
    run_result sh(std::string text) const
    {
        replace(text, "FILE", path);
        replace(text, "OTHER", out);
        replace(text, "ssh host ", "");
        return run_program({"sh", "-c", "PATH=" KESTRO_BUILD_DIR "/bin:$PATH\n" + text});
    }
    static std::string stream(const std::string &hex)
    {
        std::istringstream in(hex);
        std::string bytes;
        for (std::string byte; in >> byte;)
            bytes += static_cast<char>(std::stoi(byte, nullptr, 16));
        return bytes;
    }
};

TEST_F(TmfPage, DamagedFileIsShownAsItIsVerifiedAndSalvaged)
{
    write_file(path, with(4392, be16(27)));
    EXPECT_EQ(tmf({"verify", path}).out,
              shown(md_find_block(md_section(page, "verify"), "/var/spool/orders")));
    const std::string block = md_find_block(md_section(page, "salvage"), "$ tmf salvage");
    const size_t command_end = block.find('\n');
    const run_result salvaged = sh(shown(block.substr(2, command_end - 2)));
    EXPECT_EQ(salvaged.status, 0);
    EXPECT_EQ(salvaged.out, shown(block.substr(command_end + 1)));
    EXPECT_EQ(tmf({"verify", out}).status, 0);
}

TEST_F(TmfPage, FramedStreamIsTheOneShownAndGoesThroughThePipes)
{
    const std::string section = md_section(page, "Framed streams");
    const std::string shown_stream = stream(md_find_block(section, "00 00 00 03"));
    EXPECT_EQ(tmf({"write", "--framed", path}, shown_stream).status, 0);
    EXPECT_EQ(tmf({"read", "--keep", "--hex", path}).out, "6f6e65\n74776f0a\n");
    const std::string commands = md_find_block(section, "tmf read --wait 0");
    const size_t second = commands.find("tmf read --keep");
    EXPECT_EQ(sh(commands.substr(second)).out, "3\n4\n");
    const run_result piped = sh(commands.substr(0, second));
    EXPECT_EQ(piped.err, "");
    EXPECT_EQ(record_count(), 0);
    EXPECT_EQ(tmf({"read", "--framed", out}).out, shown_stream);
}
