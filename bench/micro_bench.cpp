// Pieces of the per-record path by themselves: header fill, conversion to text,
// pattern match.
#include "ascii/put_ascii.h"
#include "capture/capinfo.h"
#include "capture/dsetpat.h"
#include "capture/header.h"
#include "driver/base/globals.h"
#include "driver/base/logrec.h"
#include "driver/base/mem.h"

#include <benchmark/benchmark.h>
#include <cstring>

static log_record sample_record(const void *image, int32_t length)
{
    return {0, "SALES", "ORDER-LINES", 1763676518, OP_INSERT, 4711, length, nullptr, image};
}

static void header_fill(benchmark::State &state)
{
    init_globals();
    capcfg cfg;
    init_capcfg(&cfg);
    cfg.hdropts = static_cast<uint32_t>(state.range(0));
    capinfo *ci = new_capinfo();
    add_capfile(ci, "bench", &cfg);
    log_record record = sample_record(nullptr, 0);
    int n = 0;
    for (auto _ : state) {
        record.logtime += ++n % 50 == 0 ? 1 : 0; // some records to a second
        cap_header_put(ci->capfiles[0], &record);
        benchmark::DoNotOptimize(ci->capfiles[0]->recbuf);
    }
    free(ci->capfiles[0]->recbuf);
    free_ci(ci);
}
BENCHMARK(header_fill)->Arg(0)->Arg(HDR_EXTHDR | HDR_YYYY | HDR_RECNUM);

static void add_item(dsetinfo *dsets, char type, int32_t size)
{
    dsets->items = mem_grow(dsets->items, dsets->nalloc + 1);
    auto *item = mem_new<dsetitem>();
    item->type = type;
    item->size = size;
    item->count = 1;
    dsets->items[dsets->nalloc++] = item;
    dsets->nitems++;
}

static void ascii_row(benchmark::State &state, char type, int32_t size)
{
    constexpr int ITEMS = 10;
    dsetinfo *dsets = new_dsetinfo();
    for (int i = 0; i < ITEMS; i++)
        add_item(dsets, type, size);
    char image[ITEMS * 32];
    const double number = 0.0141075199898;
    for (int i = 0; i < ITEMS; i++) {
        char *element = image + i * size;
        memset(element, type == 'P' ? 0x12 : '1', static_cast<size_t>(size));
        if (type == 'P')
            element[size - 1] = 0x1C;
        if (type == 'E')
            memcpy(element, &number, sizeof number);
    }
    int32_t bufsize = 1024;
    auto *buffer = static_cast<char *>(mem_calloc(static_cast<size_t>(bufsize) + RECBUF_SPARE, 1));
    for (auto _ : state) {
        int32_t length = 0;
        benchmark::DoNotOptimize(
            put_ascii(ASCII_ON, &buffer, &length, &bufsize, image, ITEMS * size, dsets));
    }
    state.SetItemsProcessed(state.iterations() * ITEMS);
    free(buffer);
    free_dsetinfo(dsets);
}
BENCHMARK_CAPTURE(ascii_row, integer_32, 'I', 4);
BENCHMARK_CAPTURE(ascii_row, float_64, 'E', 8);
BENCHMARK_CAPTURE(ascii_row, packed_6, 'P', 6);
BENCHMARK_CAPTURE(ascii_row, zoned_9, 'Z', 9);
BENCHMARK_CAPTURE(ascii_row, text_32, 'X', 32);

static void pattern_match(benchmark::State &state, const char *pattern)
{
    for (auto _ : state)
        benchmark::DoNotOptimize(patmatches(pattern, "SALES:ORDER-LINES"));
}
BENCHMARK_CAPTURE(pattern_match, plain, "SALES:ORDER-LINES");
BENCHMARK_CAPTURE(pattern_match, wildcards, "@:@DER-@ES");

BENCHMARK_MAIN();
