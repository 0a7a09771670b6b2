#include <gnutls/abstract.h>
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

TEST(secret_file, gives_the_one_line) {
    const test::scratch_t scratch;
    EXPECT_EQ(read_secret_file(scratch.write("a", "open sesame\n")), "open sesame");
    EXPECT_EQ(read_secret_file(scratch.write("b", "x")), "x");
    EXPECT_EQ(read_secret_file(scratch.write("c", "dos\r\n", 0400)), "dos");
    EXPECT_EQ(read_secret_file(scratch.write("d", std::string(1023, 'x') + "\n")).size(), 1023U);
}

TEST(secret_file, refuses_what_others_can_read_and_what_is_not_one_line) {
    const test::scratch_t scratch;
    const auto refusal = [&](const std::string& content, mode_t mode) {
        return failure_of([&] { read_secret_file(scratch.write("secret", content, mode)); });
    };
    for (const mode_t mode : {0640U, 0604U, 0620U, 0601U}) {
        EXPECT_TRUE(has(refusal("x\n", mode), "chmod 600")) << mode;
    }
    EXPECT_TRUE(has(refusal("", 0600), "empty"));
    EXPECT_TRUE(has(refusal("\n", 0600), "empty"));
    EXPECT_TRUE(has(refusal("a\nb\n", 0600), "more than one line"));
    EXPECT_TRUE(has(refusal("a\n\n", 0600), "more than one line"));
    EXPECT_TRUE(has(refusal(std::string("a\0b", 3), 0600), "more than one line"));
    EXPECT_TRUE(has(refusal(std::string(1025, 'x'), 0600), "1024"));
    EXPECT_TRUE(has(failure_of([&] { read_secret_file(scratch.path("missing")); }), "No such file"));
    ASSERT_EQ(mkfifo(scratch.path("fifo").c_str(), 0600), 0);
    EXPECT_TRUE(has(failure_of([&] { read_secret_file(scratch.path("fifo")); }), "regular"))
        << "must not wait for a writer";
}

struct loaded_t {
    gnutls_x509_crt_t crt = nullptr;

    explicit loaded_t(const std::string& path) {
        const std::string pem = test::read_file(path);
        gnutls_datum_t datum{reinterpret_cast<unsigned char*>(const_cast<char*>(pem.data())),
                             static_cast<unsigned>(pem.size())};
        gnutls_x509_crt_init(&crt);
        EXPECT_EQ(gnutls_x509_crt_import(crt, &datum, GNUTLS_X509_FMT_PEM), 0);
    }
    ~loaded_t() { gnutls_x509_crt_deinit(crt); }
    loaded_t(const loaded_t&) = delete;
    loaded_t& operator=(const loaded_t&) = delete;
};

// A stream whose text is kept.
struct kept_stream_t {
    char* text = nullptr;
    size_t size = 0;
    FILE* file = open_memstream(&text, &size);

    kept_stream_t() = default;
    ~kept_stream_t() {
        fclose(file);
        free(text);
    }
    kept_stream_t(const kept_stream_t&) = delete;
    kept_stream_t& operator=(const kept_stream_t&) = delete;
};

std::string make(const cert_command_t& command) {
    const kept_stream_t out;
    run_cert(command, out.file);
    fflush(out.file);
    return {out.text, out.size};
}

TEST(certificate, is_made_with_a_private_key_file_and_a_pin_that_matches) {
    const test::scratch_t scratch;
    const std::string directory = scratch.path("new");
    const std::string printed = make({directory, {"gate.example", "192.0.2.7", "2001:db8::7"}});
    EXPECT_TRUE(has(printed, directory + "/cert.pem") && has(printed, directory + "/key.pem")) << printed;

    struct stat status {};
    ASSERT_EQ(stat((directory + "/key.pem").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0600U);
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(directory), {}), 2) << "no passing file is left";

    const loaded_t loaded(directory + "/cert.pem");
    for (const char* name : {"gate.example", "192.0.2.7", "2001:db8::7"})
        EXPECT_NE(gnutls_x509_crt_check_hostname(loaded.crt, name), 0U) << name;
    EXPECT_EQ(gnutls_x509_crt_check_hostname(loaded.crt, "other.example"), 0U);
    EXPECT_GT(gnutls_x509_crt_get_expiration_time(loaded.crt), time(nullptr) + 9LL * 365 * 24 * 3600);
    EXPECT_LT(gnutls_x509_crt_get_activation_time(loaded.crt), time(nullptr));

    // The pin worked out another way: the hash of the public key as it stands in a file of its own.
    gnutls_pubkey_t key = nullptr;
    gnutls_pubkey_init(&key);
    gnutls_pubkey_import_x509(key, loaded.crt, 0);
    gnutls_datum_t der{};
    ASSERT_EQ(gnutls_pubkey_export2(key, GNUTLS_X509_FMT_DER, &der), 0);
    gnutls_pubkey_deinit(key);
    unsigned char hash[32];
    size_t size = sizeof(hash);
    ASSERT_EQ(gnutls_fingerprint(GNUTLS_DIG_SHA256, &der, hash, &size), 0);
    gnutls_free(der.data);
    char digits[65] = {};
    for (size_t i = 0; i < size; ++i)
        snprintf(digits + 2 * i, 3, "%02x", unsigned{hash[i]});
    EXPECT_TRUE(has(printed, "pin:" + std::string(digits) + "\n")) << printed;
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
