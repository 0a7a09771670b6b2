#include <gnutls/gnutls.h>
#include <gnutls/x509.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>

#include "app/cert_command.h"
#include "app/certificate.h"
#include "app/failure.h"
#include "app/listener.h"
#include "app/secret_file.h"
#include "tests/e2e/process.h"

namespace tandem::app {
namespace {

// The line of the failure that `call` ends with.
template <class call_t>
std::string failure_of(call_t call) {
    try {
        call();
        return "";
    } catch (const failure_t& failure) {
        EXPECT_EQ(failure.exit_code(), 1);
        return failure.what();
    }
}

bool has(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

TEST(secret_file, gives_the_one_line_and_refuses_all_else_and_what_others_can_read) {
    const test::scratch_t scratch;
    const auto read = [&](const std::string& content, mode_t mode = 0600) {
        return read_secret_file(scratch.write("secret" + std::to_string(mode), content, mode));
    };
    EXPECT_EQ(read("open sesame\n"), "open sesame");
    EXPECT_EQ(read("x"), "x");
    EXPECT_EQ(read("dos\r\n", 0400), "dos");
    EXPECT_EQ(read(std::string(1023, 'x') + "\n").size(), 1023U);
    for (const mode_t mode : {0640U, 0604U, 0620U, 0601U})
        EXPECT_TRUE(has(failure_of([&] { read("x\n", mode); }), "chmod 600")) << mode;
    const std::pair<std::string, const char*> refused[] = {{"", "empty"},
                                                           {"\n", "empty"},
                                                           {"a\nb\n", "more than one line"},
                                                           {"a\n\n", "more than one line"},
                                                           {std::string("a\0b", 3), "more than one line"},
                                                           {std::string(1025, 'x'), "1024"}};
    for (const auto& [content, why] : refused)
        EXPECT_TRUE(has(failure_of([&] { read(content); }), why)) << content;
    EXPECT_TRUE(has(failure_of([&] { read_secret_file(scratch.path("missing")); }), "No such file"));
    ASSERT_EQ(mkfifo(scratch.path("fifo").c_str(), 0600), 0);
    EXPECT_TRUE(has(failure_of([&] { read_secret_file(scratch.path("fifo")); }), "regular"))
        << "must not wait for a writer";
}

void make(const cert_command_t& command) {
    const std::unique_ptr<FILE, int (*)(FILE*)> out(fopen("/dev/null", "w"), fclose);
    run_cert(command, out.get());
}

// That the pin which is printed is the certificate's is seen wherever a client trusts a server by it.
TEST(certificate, is_made_with_its_names_and_a_private_key_file) {
    const test::scratch_t scratch;
    const std::string directory = scratch.path("new");
    make({directory, {"gate.example", "192.0.2.7", "2001:db8::7"}});
    struct stat status {};
    ASSERT_EQ(stat((directory + "/key.pem").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0600U);
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(directory), {}), 2) << "no passing file is left";

    std::string pem = test::read_file(directory + "/cert.pem");
    const gnutls_datum_t datum{reinterpret_cast<unsigned char*>(pem.data()), static_cast<unsigned>(pem.size())};
    gnutls_x509_crt_t crt = nullptr;
    gnutls_x509_crt_init(&crt);
    EXPECT_EQ(gnutls_x509_crt_import(crt, &datum, GNUTLS_X509_FMT_PEM), 0);
    for (const char* name : {"gate.example", "192.0.2.7", "2001:db8::7"})
        EXPECT_NE(gnutls_x509_crt_check_hostname(crt, name), 0U) << name;
    EXPECT_EQ(gnutls_x509_crt_check_hostname(crt, "other.example"), 0U);
    EXPECT_GT(gnutls_x509_crt_get_expiration_time(crt), time(nullptr) + 9LL * 365 * 24 * 3600);
    EXPECT_LT(gnutls_x509_crt_get_activation_time(crt), time(nullptr));
    gnutls_x509_crt_deinit(crt);
}

TEST(certificate, never_takes_the_place_of_a_file) {
    const test::scratch_t scratch;
    const std::string directory = scratch.path("d");
    make({directory, {"a"}});
    const std::string before = test::read_file(directory + "/key.pem");
    EXPECT_TRUE(has(failure_of([&] { make({directory, {"a"}}); }), "exists"));
    std::filesystem::remove(directory + "/cert.pem");
    EXPECT_TRUE(has(failure_of([&] { make({directory, {"a"}}); }), "key.pem exists"));
    EXPECT_EQ(test::read_file(directory + "/key.pem"), before);
    EXPECT_FALSE(std::filesystem::exists(directory + "/cert.pem")) << "a certificate without its key is of no use";
    EXPECT_TRUE(has(failure_of([&] { make({"/proc/none", {"a"}}); }), "cannot write"));
}

TEST(certificate, check_tells_the_file_and_the_fault) {
    const test::scratch_t scratch;
    make({scratch.path("a"), {"a"}});
    make({scratch.path("b"), {"b"}});
    const std::string cert = scratch.path("a/cert.pem");
    const std::string key = scratch.path("a/key.pem");
    check_key_pair(cert, key);
    EXPECT_TRUE(has(failure_of([&] { check_key_pair(cert, scratch.path("b/key.pem")); }), "is not the key of"));
    EXPECT_TRUE(has(failure_of([&] { check_key_pair(scratch.path("none"), key); }), "--cert: cannot read"));
    EXPECT_TRUE(has(failure_of([&] { check_key_pair(cert, scratch.path("a")); }), "--key: cannot read"))
        << "a directory";
    EXPECT_TRUE(has(failure_of([&] { check_key_pair(cert, scratch.write("junk", "junk")); }), "junk"));
}

TEST(listener, tells_the_port_and_refuses_one_in_use) {
    const listener_t first({"127.0.0.1", 0});
    EXPECT_NE(first.where.port, 0);
    EXPECT_TRUE(
        has(failure_of([&] { listener_t second(first.where); }), "127.0.0.1:" + std::to_string(first.where.port)));
    EXPECT_NE(listener_t({"::1", 0}).where.port, 0);
    EXPECT_TRUE(has(failure_of([&] { listener_t strange({"192.0.2.1", 0}); }), "192.0.2.1:0"));
}

}  // namespace
}  // namespace tandem::app
