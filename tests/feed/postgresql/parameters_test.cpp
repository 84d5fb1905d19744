// What is told of a connection that cannot be made holds no password.
#include "feed/postgresql/parameters.h"

#include <cstdlib>
#include <gtest/gtest.h>

static const std::string not_read = "--conninfo is not read as it is meant: ";

TEST(BridgeSecrets, AreNotInWhatIsTold)
{
    const struct {
        const char *conninfo;
        const char *said; // by libpq
        std::string told; // or how it begins, of not_read
    } rows[] = {
        {"host=db", "connection to server at \"db\" failed",
         "connection to server at \"db\" failed"},
        {"host=db password=S3cr3t", "no S3cr3t, no S3cr3tS3cr3t", "no ..., no ......"},
        {"host=db sslpassword=S3cr3t", "bad key S3cr3t", "bad key ..."},
        {"host=db password=''", "refused", "refused"},
        // Not quoted: libpq names the piece behind the blank.
        {"password=my S3cr3t host=db", "missing \"=\" after \"S3cr3t\" in connection info string",
         not_read},
        {"password='my S3cr3t", "unterminated quoted string in connection info string", not_read},
        {"hast=db", "invalid connection option \"hast\"", "invalid connection option \"hast\""},
        {"postgresql://anna:S3cr3t@db/shop", "no S3cr3t", "no ..."},
        {"postgresql://anna:S3/cr3t@db/shop",
         "invalid integer value \"S3\" for connection option \"port\"", not_read},
        {"password='my S3cr3t' host=db", "refused", "refused"}, // as it says
        {"postgresql://anna:S3%2Fcr3t@db/shop", "refused", "refused"},
        {"postgresql://anna:S3@cr3t@db/shop",
         "could not translate host name \"cr3t@db\" to address", not_read},
        {"postgresql://anna:S3%cr3t@db/shop", "invalid percent-encoded token: \"%cr\"", not_read},
        {"postgresql://anna@db:5432/shop", "refused", "refused"},
        {"postgresql://db/shop", "refused", "refused"},
        {"postgresql://[db/shop", "end of string reached when looking for matching \"]\"",
         "end of string reached when looking for matching \"]\""},
    };
    unsetenv("PGPASSWORD");
    for (const auto &row : rows) {
        pgs_server server;
        server.conninfo = row.conninfo;
        const std::string told = pgs_without_secrets(server, row.said);
        if (row.told == not_read) {
            EXPECT_EQ(told.substr(0, not_read.size()), not_read) << row.conninfo;
        } else {
            EXPECT_EQ(told, row.told) << row.conninfo;
        }
    }
    setenv("PGPASSWORD", "fr0m around", 1);
    pgs_server server;
    EXPECT_EQ(pgs_without_secrets(server, "FATAL: fr0m around it"), "FATAL: ... it");
    unsetenv("PGPASSWORD");
}
