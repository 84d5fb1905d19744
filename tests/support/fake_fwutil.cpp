// The scripted forward-log library.
#include "tests/support/fake_fwutil.h"

#include "fwutil/fwutil.h"

#include <cstdio>
#include <cstring>
#include <memory>

static void note(const std::string &call)
{
    g_fwu.calls.push_back(call);
    if (g_fwu.on_call != nullptr)
        g_fwu.on_call(call);
}

static std::string shown(const char *text)
{
    return text == nullptr ? "(null)" : text;
}

// A heap block of exactly the image's length, so that a sanitizer sees a read
// past it.
static std::unique_ptr<char[]> exact_copy(const std::optional<std::string> &image)
{
    if (!image)
        return nullptr;
    auto block = std::make_unique<char[]>(image->size());
    if (!image->empty())
        memcpy(block.get(), image->data(), image->size());
    return block;
}

static int32_t image_length(const fake_record &record)
{
    if (record.reclen)
        return *record.reclen;
    const auto &image = record.after ? record.after : record.before;
    return image ? static_cast<int32_t>(image->size()) : 0;
}

int Fwu_process(fwu_callback callback, const char *cfg, const char *status, const char *start)
{
    note("process cfg=" + shown(cfg) + " stat=" + shown(status) + " start=" + shown(start));
    for (const fake_record &record : g_fwu.records) {
        if (record.first)
            record.first();
        if (record.items)
            g_fwu.items = *record.items;
        const auto before = exact_copy(record.before);
        const auto after = exact_copy(record.after);
        g_fwu.results.push_back(callback(0, record.dbname.c_str(), record.dsetname.c_str(),
                                         record.logtime, record.opcode, record.recnum,
                                         image_length(record), before.get(), after.get()));
    }
    return g_fwu.process_result;
}

void Fwu_verbose(int on)
{
    note("verbose " + std::to_string(on));
}

void Fwu_synconly(int on)
{
    note("synconly " + std::to_string(on));
}

int Fwu_status(const char *status, int verbose)
{
    note("status " + shown(status) + " " + std::to_string(verbose));
    return 1; // nobody may look at it
}

void Fwu_version(void)
{
    note("version");
    printf("scripted library\n");
}

int Fwu_get_item(const char **name, int32_t *type, int32_t *size, int32_t *count, int32_t *item_aux)
{
    if (g_fwu.next_item >= g_fwu.items.size()) {
        g_fwu.next_item = 0;
        // The last call may leave anything in the words.
        *type = *size = *count = *item_aux = -1;
        return 0;
    }
    const fake_item &item = g_fwu.items[g_fwu.next_item++];
    *name = item.name.c_str();
    *type = item.type;
    *size = item.size;
    *count = item.count;
    *item_aux = item.item_aux;
    return 5;
}

int Fwu_CurrentLogGeneration(void)
{
    note("generation");
    return g_fwu.generation;
}

int Fwu_CurrentLogSequence(void)
{
    note("sequence");
    return g_fwu.sequence;
}

int Fwu_CurrentTagSequence(void)
{
    note("tag");
    return g_fwu.tag;
}

const char *Fwu_get_session_entry(const char *key)
{
    const auto found = g_fwu.session.find(key);
    return found == g_fwu.session.end() ? nullptr : found->second.c_str();
}

int Fwu_get_session_elements(void)
{
    return static_cast<int>(g_fwu.session_data.size());
}

const char *Fwu_get_session_data(int index)
{
    return g_fwu.session_data.at(static_cast<size_t>(index)).c_str();
}
