// Which capture file has the name of another one's copy.
#include "capture/copyname.h"

#include "capture/capinfo.h"
#include "capture/format.h"
#include "capture/settings.h"
#include "driver/base/log.h"

#include <filesystem>
#include <system_error>

constexpr int LINKS_MAX = 40; // as many as the system follows

std::filesystem::path resolved_name(const std::string &name)
{
    std::error_code error;
    const std::filesystem::path path = std::filesystem::absolute(name, error);
    std::filesystem::path result = std::filesystem::weakly_canonical(path, error);
    // A link that leads to nothing yet is left by that.
    for (int i = 0; i < LINKS_MAX && !error; i++) {
        std::error_code none;
        const std::filesystem::path next = std::filesystem::read_symlink(result, none);
        if (none)
            break;
        result = std::filesystem::weakly_canonical(result.parent_path() / next, error);
    }
    return error ? path.lexically_normal() : result;
}

int check_copy_names(const std::vector<std::string> &cut, const std::vector<std::string> &others)
{
    for (const std::string &file : cut) {
        const auto kept = resolved_name(file + ".cut");
        const auto part = resolved_name(file + ".cut.part");
        for (const std::string &other : others) {
            const auto path = resolved_name(other);
            if (path == kept || path == part)
                return set_error_f("Capture file %s has the name of the copy that is kept of what "
                                   "is cut off capture file %s: move it away and name another file",
                                   other.c_str(), file.c_str());
        }
    }
    return 0;
}

int capture_check_names(const capinfo *ci)
{
    std::vector<std::string> cut;
    std::vector<std::string> others;
    if (g_capture_settings.text != TEXT_APPEND)
        return 0;
    for (int i = 0; i < ci_get_ncf(ci); i++) {
        const capfil *cf = ci->capfiles[i];
        others.emplace_back(cf->name);
        const auto is_cut = cf->format->cut_when_taken_up;
        if (is_cut != nullptr && is_cut(cf->ascii_flags))
            cut.emplace_back(cf->name);
    }
    return check_copy_names(cut, others);
}
