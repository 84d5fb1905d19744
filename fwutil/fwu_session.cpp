// The five session entries by their keys.
#include "fwutil/fwu_session.h"

const std::optional<std::string> *fwu_session_entry(const fwu_session &session,
                                                    std::string_view key)
{
    if (key == "pname")
        return &session.pname;
    if (key == "user")
        return &session.user;
    if (key == "login")
        return &session.login;
    if (key == "pid")
        return &session.pid;
    if (key == "info")
        return &session.info;
    return nullptr;
}

std::optional<std::string> *fwu_session_entry(fwu_session &session, std::string_view key)
{
    return const_cast<std::optional<std::string> *>(
        fwu_session_entry(static_cast<const fwu_session &>(session), key));
}
