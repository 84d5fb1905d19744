// How the server is reached: by TLS that checks who it is, with the password and all else in
// files, as a service; and what is said when one of these is not as it should be.
#include "tests/postgresql/bridge_fixture.h"

#include <algorithm>
#include <sys/stat.h>
#include <unistd.h>

using testing::HasSubstr;

static const char openssl[] = "/usr/bin/openssl";

class BridgeConnectTest : public LedgerTest {
  protected:
    static void SetUpTestSuite()
    {
        if (!pg_server::missing().empty() || access(openssl, X_OK) != 0)
            return;
        port = pg_server::free_port();
        server = std::make_unique<pg_server>(std::vector<std::string>{}, port);
        certificates = std::make_unique<tempdir>();
        make_certificate("ca", "the authority", "");
        make_certificate("other", "another authority", "");
        make_certificate("server", "localhost", "ca");
        pg_client client(server->conninfo());
        const std::string data = client.value("SHOW data_directory");
        put_file(data, "server.crt", read_file(certificates->file("server.pem")));
        put_file(data, "server.key", read_file(certificates->file("server.key")));
        put_file(data, "pg_hba.conf",
                 "local all all trust\n"
                 "hostssl all capture 127.0.0.1/32 scram-sha-256\n");
        client.run("SET password_encryption = 'scram-sha-256'; CREATE ROLE capture SUPERUSER LOGIN "
                   "PASSWORD 'to:be kept'");
        client.run("ALTER SYSTEM SET ssl = on");
        client.run("SELECT pg_reload_conf()");
        ASSERT_TRUE(poll_until([] {
            return pg_client(server->conninfo()).value("SHOW ssl") == "on";
        })) << server->log();
    }

    static void TearDownTestSuite()
    {
        certificates.reset();
        LedgerTest::TearDownTestSuite();
    }

    void SetUp() override
    {
        if (access(openssl, X_OK) != 0)
            GTEST_SKIP() << "openssl is missing (Debian package openssl)";
        LedgerTest::SetUp();
        if (server == nullptr)
            return;
        write_password("to\\:be kept", 0600);
        write_service("localhost", "verify-full", "ca.pem");
        options.env["PGSERVICEFILE"] = dir.file("services");
        options.env["PGSERVICE"] = "shop";
    }

    void write_password(const std::string &password, mode_t mode) const
    {
        const std::string path = dir.file("passwords");
        write_file(path, "localhost:" + std::to_string(port) + ":*:capture:" + password + "\n");
        ASSERT_EQ(chmod(path.c_str(), mode), 0);
    }

    void write_service(const std::string &host, const std::string &mode,
                       const std::string &authority) const
    {
        write_file(dir.file("services"),
                   "[shop]\nhost=" + host + "\nhostaddr=127.0.0.1\nport=" + std::to_string(port) +
                       "\ndbname=" + database +
                       "\nuser=capture\npassfile=" + dir.file("passwords") + "\nsslmode=" + mode +
                       "\nsslrootcert=" + certificates->file(authority) + "\n");
    }

    // The bridge without --conninfo.
    std::vector<std::string> by_service(const std::vector<std::string> &more) const
    {
        std::vector<std::string> argv = bridge_argv(more);
        const auto at = std::find(argv.begin(), argv.end(), "--conninfo");
        argv.erase(at, at + 2);
        return argv;
    }

    void expect_refused(const std::string &text) const
    {
        const run_result result = run_program(by_service({"--once", "--create"}), options);
        EXPECT_EQ(result.status, 1);
        EXPECT_THAT(result.err, HasSubstr("fwlog: cannot connect: "));
        EXPECT_THAT(result.err, HasSubstr(text));
    }

    static int port;
    static std::unique_ptr<tempdir> certificates;

  private:
    // NAME.pem and NAME.key, signed by an authority or, where none is named, by itself.
    static void make_certificate(const std::string &name, const std::string &subject,
                                 const std::string &authority)
    {
        std::vector<std::string> words = {openssl,
                                          "req",
                                          "-newkey",
                                          "ec",
                                          "-pkeyopt",
                                          "ec_paramgen_curve:prime256v1",
                                          "-nodes",
                                          "-subj",
                                          "/CN=" + subject,
                                          "-keyout",
                                          certificates->file(name + ".key"),
                                          "-out"};
        if (authority.empty())
            words.insert(words.end(), {certificates->file(name + ".pem"), "-x509", "-days", "2"});
        else
            words.push_back(certificates->file(name + ".request"));
        run_result made = run_program(words);
        ASSERT_EQ(made.status, 0) << made.err;
        if (authority.empty())
            return;
        made = run_program({openssl, "x509", "-req", "-in", certificates->file(name + ".request"),
                            "-CA", certificates->file(authority + ".pem"), "-CAkey",
                            certificates->file(authority + ".key"), "-set_serial", "1", "-days",
                            "2", "-out", certificates->file(name + ".pem")});
        ASSERT_EQ(made.status, 0) << made.err;
    }

    // A file of the server's, which only its owner may read.
    static void put_file(const std::string &data, const std::string &name, const std::string &text)
    {
        struct stat directory = {};
        ASSERT_EQ(stat(data.c_str(), &directory), 0);
        const std::string path = data + "/" + name;
        write_file(path, text);
        ASSERT_EQ(chown(path.c_str(), directory.st_uid, directory.st_gid), 0);
        ASSERT_EQ(chmod(path.c_str(), 0600), 0);
    }
};

int BridgeConnectTest::port = 0;
std::unique_ptr<tempdir> BridgeConnectTest::certificates;

TEST_F(BridgeConnectTest, AServiceWithVerifiedTlsAndAPasswordFile)
{
    ASSERT_EQ(run_program(by_service({"--once", "--create"}), options).status, 0);
    bridge.start(by_service({}), options, dir.file("bridge"));
    ASSERT_TRUE(poll_until([&] { return status_member("state") == "streaming"; })) << bridge.err();
    EXPECT_EQ(value("SELECT bool_and(s.ssl) FROM pg_stat_ssl s JOIN pg_stat_activity a USING (pid)"
                    " WHERE a.usename = 'capture'"),
              "t");
    EXPECT_NE(value("SELECT count(*) FROM pg_stat_activity WHERE usename = 'capture'"), "0");
    insert(1);
    ASSERT_NO_FATAL_FAILURE(wait_for_row(1));
    EXPECT_EQ(bridge.end(SIGTERM), 128 + SIGTERM);
    expect_log_equals_tables();
}

TEST_F(BridgeConnectTest, TheServiceMayBeNamedInTheConninfo)
{
    options.env.erase("PGSERVICE");
    const run_result result =
        run_bridge({"--conninfo", "service=shop", "--once", "--create", "--snapshot"});
    EXPECT_EQ(result.status, 0) << result.err;
}

TEST_F(BridgeConnectTest, AServerOfAnotherNameIsNotTheRightOne)
{
    write_service("db1.example", "verify-full", "ca.pem");
    write_file(dir.file("passwords"), "*:*:*:capture:to\\:be kept\n");
    expect_refused("\"localhost\" does not match host name \"db1.example\"");
    // That is what verify-full adds.
    write_service("db1.example", "verify-ca", "ca.pem");
    EXPECT_EQ(run_program(by_service({"--once", "--create"}), options).status, 0);
}

TEST_F(BridgeConnectTest, ACertificateOfAnotherAuthorityIsRefused)
{
    write_service("localhost", "verify-full", "other.pem");
    expect_refused("certificate verify failed");
}

TEST_F(BridgeConnectTest, WithoutTlsTheServerTakesNobody)
{
    write_service("localhost", "disable", "ca.pem");
    expect_refused("no pg_hba.conf entry for host \"127.0.0.1\"");
}

TEST_F(BridgeConnectTest, AWrongPasswordOrAFileThatOthersMayRead)
{
    write_password("guessed", 0600);
    expect_refused("password authentication failed for user \"capture\"");
    write_password("to\\:be kept", 0644);
    expect_refused("no password supplied");
    write_password("to\\:be kept", 0600);
    EXPECT_EQ(run_program(by_service({"--once", "--create"}), options).status, 0);
}
