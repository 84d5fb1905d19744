// The message-file library as a queue of message_bench.
#include "bench/message_queue.h"
#include "bench/message_run.h"
#include "msgfile/tmf.h"

#include <vector>

[[noreturn]] static void fail_with_text(tmf_handle *h)
{
    char text[TMF_ERRMSG_SIZE];
    run_fail(tmf_geterrmsg(h, text));
}

static void *library_open(const char *path, bool reader)
{
    tmf_handle *h = tmf_fopen(path, reader ? TMF_MODE_READ : 0);
    if (h == nullptr)
        fail_with_text(nullptr);
    return h;
}

static void library_append(void *queue, const void *record, int size)
{
    auto *h = static_cast<tmf_handle *>(queue);
    if (tmf_fwrite(h, record, size) != 0)
        fail_with_text(h);
}

static int library_take(void *queue, void *buf, int size)
{
    auto *h = static_cast<tmf_handle *>(queue);
    const int taken = tmf_fread(h, buf, size, 0);
    if (taken < 0)
        fail_with_text(h);
    return taken;
}

static void library_append_batch(void *queue, const void *records, int size, int count)
{
    auto *h = static_cast<tmf_handle *>(queue);
    static std::vector<tmf_item> items;
    items.clear();
    for (int i = 0; i < count; i++)
        items.push_back({static_cast<const char *>(records) + i * size, size});
    if (tmf_fwrite_many(h, items.data(), count) != 0)
        fail_with_text(h);
}

static int library_take_batch(void *queue, void *buf, int size, int count)
{
    auto *h = static_cast<tmf_handle *>(queue);
    static std::vector<tmf_item> items;
    items.resize(static_cast<size_t>(count));
    const int taken = tmf_fread_many(h, items.data(), count, buf, size * count, 0);
    if (taken < 0)
        fail_with_text(h);
    return taken;
}

static void library_close(void *queue)
{
    if (tmf_fclose(static_cast<tmf_handle *>(queue)) != 0)
        run_fail("cannot close a message file");
}

const queue_kind library_queue = {.name = "library",
                                  .open = library_open,
                                  .append = library_append,
                                  .take = library_take,
                                  .close = library_close,
                                  .append_batch = library_append_batch,
                                  .take_batch = library_take_batch};
