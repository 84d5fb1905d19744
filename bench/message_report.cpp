// Every figure is a median over the rounds.  A ratio is taken within each round,
// between runs that follow each other, before its median.
#include "bench/message_report.h"

#include "bench/message_measure.h"

static double median(const std::vector<double> &values)
{
    return median(values.data(), static_cast<int>(values.size()));
}

// The library's rate over the other's.
static double ratio(const figure &library, const figure &other)
{
    std::vector<double> ratios;
    for (size_t round = 0; round < library.values.size(); round++)
        ratios.push_back(library.values[round] / other.values[round]);
    return median(ratios);
}

static bool is_latency(const measurement &m)
{
    return m.what == "latency";
}

static const char *title(const std::string &what)
{
    if (what == "append")
        return "append, records/s";
    if (what == "take")
        return "destructive read, records/s";
    if (what == "batch append")
        return "append in batches of 64, records/s";
    if (what == "batch take")
        return "destructive read in batches of 64, records/s";
    if (what == "both")
        return "writer and reader at once, records/s";
    if (what == "latency")
        return "hand-over to a waiting reader, microseconds: median / 99th percentile";
    return "destructive read with a buffer of 32,761 bytes, records/s";
}

static void print_rates(FILE *out, const measurement &m)
{
    fprintf(out, "  %5d bytes, %d records a round\n", m.size, m.count);
    for (const figure &f : m.figures) {
        fprintf(out, "    %-26s %10.0f", f.name.c_str(), median(f.values));
        if (&f != &m.figures.front())
            fprintf(out, "   library/this %5.2f", ratio(m.figures.front(), f));
        fputc('\n', out);
    }
}

static void print_latencies(FILE *out, const measurement &m)
{
    fprintf(out, "  %5d bytes, %d records a round\n", m.size, m.count);
    for (const figure &f : m.figures)
        fprintf(out, "    %-26s %8.1f / %.1f\n", f.name.c_str(), median(f.values), median(f.p99));
}

void report_table(FILE *out, const report &r)
{
    fprintf(out, "Files in %s, %d rounds; medians, ratios within a round.\n", r.file_system.c_str(),
            r.rounds);
    std::string last;
    for (const measurement &m : r.measurements) {
        if (m.what != last)
            fprintf(out, "\n%s\n", title(m.what));
        last = m.what;
        if (is_latency(m))
            print_latencies(out, m);
        else
            print_rates(out, m);
    }
}

static void print_json_figure(FILE *out, const measurement &m, const figure &f)
{
    fprintf(out, "      {\"name\": \"%s\", ", f.name.c_str());
    if (is_latency(m)) {
        fprintf(out, "\"median_us\": %.2f, \"p99_us\": %.2f}", median(f.values), median(f.p99));
        return;
    }
    fprintf(out, "\"records_per_second\": %.0f", median(f.values));
    if (&f != &m.figures.front())
        fprintf(out, ", \"library_ratio\": %.4f", ratio(m.figures.front(), f));
    fputc('}', out);
}

// Names hold no characters that JSON escapes.
void report_json(FILE *out, const report &r)
{
    fprintf(out, "{\n  \"file_system\": \"%s\",\n  \"rounds\": %d,\n  \"measurements\": [\n",
            r.file_system.c_str(), r.rounds);
    for (const measurement &m : r.measurements) {
        fprintf(out, "    {\"measure\": \"%s\", \"bytes\": %d, \"count\": %d, \"figures\": [\n",
                m.what.c_str(), m.size, m.count);
        for (const figure &f : m.figures) {
            print_json_figure(out, m, f);
            fputs(&f == &m.figures.back() ? "\n" : ",\n", out);
        }
        fputs(&m == &r.measurements.back() ? "    ]}\n" : "    ]},\n", out);
    }
    fputs("  ]\n}\n", out);
}
