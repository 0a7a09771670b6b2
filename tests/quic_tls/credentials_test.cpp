#include <gtest/gtest.h>

#include <cstring>

#include "platform/tndm/quic/credentials.h"
#include "tests/quic_tls/certificates.h"

namespace tndm {
namespace {

std::string hex(std::span<const uint8_t> bytes) {
    std::string text;
    for (const uint8_t byte : bytes) {
        char two[3];
        snprintf(two, sizeof two, "%02x", byte);
        text += two;
    }
    return text;
}

std::span<const uint8_t> bytes(std::string_view text) {
    return {reinterpret_cast<const uint8_t*>(text.data()), text.size()};
}

TEST(secret, digests_are_the_published_ones) {
    EXPECT_EQ(hex(sha256(bytes("abc"))), "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
    EXPECT_EQ(hex(hmac_sha256(bytes("Jefe"), bytes("what do ya want for nothing?"))),
              "5bdcc146bf60754e6a042426089575c75a003f089d2739839dec58b964ec3843");
}

TEST(secret, is_wiped_with_its_owner) {
    alignas(secret<32>) unsigned char memory[sizeof(secret<32>)];
    auto* key = new (memory) secret<32>;
    random_bytes(key->span());
    const secret<32> copy = *key;
    EXPECT_TRUE(constant_time_equal(copy.span(), key->span()));
    EXPECT_FALSE(constant_time_equal(copy.span(), secret<32>().span()));
    key->~secret<32>();
    EXPECT_TRUE(constant_time_equal(memory, secret<32>().span()));
}

TEST(server_credentials, keys_follow_the_private_key_whatever_its_encoding) {
    const temporary_folder folder;
    for (const auto algorithm : {GNUTLS_PK_ECDSA, GNUTLS_PK_RSA, GNUTLS_PK_EDDSA_ED25519}) {
        SCOPED_TRACE(gnutls_pk_algorithm_get_name(algorithm));
        const private_key key(algorithm);
        const auto cert = folder.write("cert.pem", certificate(key, {}).pem());
        std::string error;
        const auto first = server_credentials::load(cert, folder.write("key.pem", key.pem()), error);
        ASSERT_TRUE(first) << error;
        /* Another certificate and another encoding of the same key. */
        const auto renewed = folder.write("renewed.pem", certificate(key, {"other.test", {"other.test"}}).pem());
        const auto second = server_credentials::load(renewed, folder.write("key8.pem", key.pem_pkcs8()), error);
        ASSERT_TRUE(second) << error;
        EXPECT_EQ(hex(first->reset_key().span()), hex(second->reset_key().span()));
        EXPECT_EQ(hex(first->token_key().span()), hex(second->token_key().span()));
        EXPECT_EQ(first->pin(), second->pin());
        EXPECT_NE(hex(first->reset_key().span()), hex(first->token_key().span()));
    }
}

TEST(server_credentials, failures_name_the_file_and_the_fault) {
    const temporary_folder folder;
    const private_key key;
    const private_key other;
    const auto cert = folder.write("cert.pem", certificate(key, {}).pem());
    const auto good = folder.write("key.pem", key.pem());
    const auto garbage = folder.write("garbage.pem", "-----BEGIN NOTHING-----\n");
    const auto foreign = folder.write("foreign.pem", other.pem());
    const auto locked = folder.write("locked.pem", key.pem_pkcs8("hidden"));
    const struct {
        std::string cert, key;
        std::vector<std::string> parts;
    } cases[] = {
        {folder.path("none.pem"), good, {"none.pem", "No such file"}},
        {cert, folder.path("none.key"), {"none.key", "No such file"}},
        {garbage, good, {"no usable certificate", "garbage.pem"}},
        {good, good, {"no usable certificate", "key.pem"}},
        {cert, garbage, {"no usable private key", "garbage.pem"}},
        {cert, locked, {"no usable private key", "locked.pem", "password"}},
        {cert, foreign, {"does not belong", "foreign.pem", "cert.pem"}},
    };
    for (const auto& c : cases) {
        std::string error;
        EXPECT_FALSE(server_credentials::load(c.cert, c.key, error));
        for (const auto& part : c.parts)
            EXPECT_NE(error.find(part), std::string::npos) << error << " lacks " << part;
        EXPECT_EQ(error.find('\n'), std::string::npos);
    }
}

TEST(trust, refuses_what_it_does_not_understand) {
    const std::string pin(64, 'a');
    const std::pair<std::string, std::string> cases[] = {
        {"nonsense", "not key:value"},
        {"pins:" + pin, "unknown key \"pins\""},
        {":x", "unknown key \"\""},
        {"pin:", "no value"},
        {"pin:abcd", "64 hexadecimal"},
        {"pin:" + pin + "a", "64 hexadecimal"},
        {"pin:" + std::string(63, 'a') + "g", "64 hexadecimal"},
        {"ca:/nonexistent/ca.pem", "cannot read /nonexistent/ca.pem: No such file"},
        {"insecure:no", "only \"yes\""},
        {"insecure:yes;pin:" + pin, "contradicts"},
        {"name:a;;insecure", "not key:value"},
        {"two\nlines", "two?lines"},
    };
    for (const auto& [text, part] : cases) {
        std::string error;
        EXPECT_FALSE(trust::parse(text, "host", error)) << text;
        EXPECT_NE(error.find(part), std::string::npos) << text << ": " << error;
    }
    const temporary_folder folder;
    std::string error;
    EXPECT_FALSE(client_credentials::load("ca:" + folder.write("empty.pem", "nothing\n"), "host", error));
    EXPECT_NE(error.find("no certificate in"), std::string::npos) << error;
}

}  // namespace
}  // namespace tndm
