// Plays capture files of the order-entry database back into empty tables and compares
// these with the database's contents: a consumer of captured changes in its simplest form.
//
// usage: orders_replay CONFIG CONTENTS.csv text FILE | messages FILE
#include "examples/orders/replay.h"
#include "msgfile/tmf.h"

#include <cstdio>
#include <cstring>

// Takes all records of a message file without removing them.
static bool replay_messages(replay &state, const char *path)
{
    char text[TMF_ERRMSG_SIZE];
    tmf_handle *reader = tmf_fopen(path, TMF_MODE_READ | TMF_MODE_EXCLUSIVE | TMF_MODE_COPY);
    if (reader == nullptr) {
        fprintf(stderr, "%s: %s\n", path, tmf_geterrmsg(nullptr, text));
        return false;
    }
    std::string buffer(TMF_MAX_DATA, '\0');
    int n = 0;
    while ((n = tmf_fread(reader, buffer.data(), TMF_MAX_DATA, 0)) > 0)
        replay_message(state, buffer.substr(0, static_cast<size_t>(n)));
    if (n < 0)
        fprintf(stderr, "%s: %s\n", path, tmf_geterrmsg(reader, text));
    return tmf_fclose(reader) == 0 && n == 0;
}

static void print_tables(const replay &state)
{
    int changes = 0;
    size_t rows = 0;
    printf("%-20s %8s %8s\n", "table", "changes", "rows");
    for (const auto &[name, table] : state.tables) {
        printf("%-20s %8d %8zu\n", name.c_str(), table.changes, table.rows.size());
        changes += table.changes;
        rows += table.rows.size();
    }
    printf("%-20s %8d %8zu\n", "total", changes, rows);
}

int main(int argc, char **argv)
{
    if (argc != 5 || (strcmp(argv[3], "text") != 0 && strcmp(argv[3], "messages") != 0)) {
        fprintf(stderr, "usage: orders_replay CONFIG CONTENTS.csv text FILE | messages FILE\n");
        return 2;
    }
    replay state = replay_open(argv[1]);
    if (strcmp(argv[3], "text") == 0)
        replay_file(state, argv[4]);
    else if (!replay_messages(state, argv[4]))
        return 1;
    replay_compare(state, argv[2]);
    print_tables(state);
    for (size_t i = 0; i < state.errors.size() && i < 5; i++)
        printf("%s\n", state.errors[i].c_str());
    if (state.errors.empty())
        printf("%s replayed equals the database's tables.\n", argv[4]);
    else
        printf("%s replayed differs from the database's tables in %zu places.\n", argv[4],
               state.errors.size());
    return state.errors.empty() ? 0 : 1;
}
