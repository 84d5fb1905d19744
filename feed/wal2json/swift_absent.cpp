// In a build without simdjson no line is taken here.
#include "feed/wal2json/swift.h"

struct w2j_swift {};

void w2j_swift_free::operator()(w2j_swift *swift) const
{
    delete swift;
}

bool w2j_swift_tell(w2j_swift_memory & /*swift*/, w2j_pieces & /*pieces*/,
                    std::string_view /*text*/)
{
    return false;
}
