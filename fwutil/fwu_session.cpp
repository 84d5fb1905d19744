// The five session entries by their keys.
#include "fwutil/fwu_session.h"

// As FWU_SESSION_KEYS.
static constexpr std::optional<std::string> fwu_session::*ENTRIES[FWU_SESSION_ENTRIES] = {
    &fwu_session::pname, &fwu_session::user, &fwu_session::login, &fwu_session::pid,
    &fwu_session::info};

template <typename Session> static auto find(Session &session, std::string_view key)
{
    for (int i = 0; i < FWU_SESSION_ENTRIES; i++)
        if (key == FWU_SESSION_KEYS[i])
            return &(session.*ENTRIES[i]);
    return static_cast<decltype(&(session.*ENTRIES[0]))>(nullptr);
}

const std::optional<std::string> *fwu_session_entry(const fwu_session &session,
                                                    std::string_view key)
{
    return find(session, key);
}

std::optional<std::string> *fwu_session_entry(fwu_session &session, std::string_view key)
{
    return find(session, key);
}
