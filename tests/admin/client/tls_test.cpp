// TLS: who is trusted, who we are, who the server may be; key files and their stashes.
#include <gtest/gtest.h>
#include <openssl/pem.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "admin/client/DistinguishedName.h"
#include "admin/client/openssl_ptr.h"
#include "runtime/qel_messages.h"
#include "tests/admin/client/FaultServers.h"
#include "tests/admin/client/Library.h"

namespace {

/// The certificates of tests/support/make_certificates, in a folder that is gone at the end.
class Tls : public testing::Test {
  protected:
    static void SetUpTestSuite() {
        char pattern[] = "/tmp/vexil-tls-XXXXXX";
        ASSERT_NE(mkdtemp(pattern), nullptr);
        folder() = pattern;
        ASSERT_EQ(std::system((VEXIL_TESTS_SUPPORT "/make_certificates " + folder()).c_str()), 0);
    }
    static void TearDownTestSuite() { std::filesystem::remove_all(folder()); }

    static std::string& folder() {
        static std::string path;
        return path;
    }
    static std::string at(const std::string& name) { return folder() + "/" + name; }
    static std::vector<std::string> as(const std::string& server, bool wantsClients = false) {
        std::vector<std::string> options{"--tls-cert", at(server + ".pem"), "--tls-key", at(server + ".pem")};
        if (wantsClients) {
            options.insert(options.end(), {"--client-ca", at("ca.pem")});
        }
        return options;
    }
    static TlsSettings with(const std::string& keyFile) { return {at(keyFile), at("stash"), "", {}, false}; }
};

const char kNode1[] = "/C=DE/O=Example/CN=node1";

TEST_F(Tls, AConnectionComesAboutOnlyWithTheRightPartners) {
    struct Case {
        std::string server;
        bool wantsClients;
        std::string keyFile;
        std::vector<std::string> names;
        std::string cause;  // empty: it works
    };
    const std::string noName = "this name is not on the list (server-dns)";
    const Case cases[] = {
        {"node1", true, "alice.p12", {}, ""},
        {"node2", true, "alice-pem.pem", {}, ""},
        {"node1", false, "anchors.pem", {}, ""},
        {"node1", true, "anchors.pem", {}, "our certificate was refused: a certificate is required, and the key file"},
        {"node1", true, "expired.p12", {}, "our certificate was refused: certificate expired"},
        {"node1", true, "foreign.p12", {}, "our certificate was refused: unknown CA"},
        {"late", false, "anchors.pem", {}, "the server's certificate /C=DE/O=Example/CN=late: certificate has expired"},
        {"stranger", false, "anchors.pem", {}, "the server's certificate /C=DE/O=Example/CN=stranger: unable to get"},
        {"far", false, "anchors.pem", {}, "the server's certificate: SSL: no alternative certificate subject name"},
        // A list of names takes the place of the host name.
        {"far", false, "anchors.pem", {"/C=DE/O=Example/CN=far"}, ""},
        {"node1", false, "anchors.pem", {"/C=DE/O=Example/CN=other", kNode1}, ""},
        {"node2", false, "anchors.pem", {kNode1}, noName},
        {"node1", false, "anchors.pem", {"/O=Example/C=DE/CN=node1"}, noName},
        {"node1", false, "anchors.pem", {"/C=DE/O=Example/CN=node1/CN=node1"}, noName},
        {"node1", false, "anchors.pem", {"/C=DE/O=Example/CN=Node1"}, noName},
        {"node1", false, "anchors.pem", {"/CN=node1"}, noName},
        {"stranger", false, "anchors.pem", {"/C=DE/O=Example/CN=stranger"}, "unable to get local issuer certificate"},
        // Without CA certificates of our own, the system's are asked.
        {"node1", false, "", {}, "the server's certificate /C=DE/O=Example/CN=node1: unable to get"},
    };
    for (const Case& one : cases) {
        SCOPED_TRACE(one.server + " " + one.keyFile + " " + one.cause);
        FaultServers servers({"tls:good", "tls1.2:good"}, as(one.server, one.wantsClients));
        for (std::size_t version = 0; version < 2; ++version) {
            TlsSettings tls = one.keyFile.empty() ? TlsSettings{} : with(one.keyFile);
            tls.serverNames = one.names;
            Library library({servers.urls()[version]}, 5, tls);
            ASSERT_EQ(library.initialized(), 0U);
            const std::uint32_t wanted = one.cause.empty() ? 0 : kStatusTlsFailure;
            EXPECT_EQ(library.read(), wanted);
            EXPECT_EQ(library.change(), wanted);
            EXPECT_EQ(library.read(), wanted);
            if (wanted != 0) {
                EXPECT_TRUE(wasTraced(one.cause)) << traced().back();
                EXPECT_EQ(servers.counts()[version].connections, 3);
                EXPECT_EQ(servers.counts()[version].bytes, 0);
            }
        }
    }
}

TEST_F(Tls, AFailedHandshakeSendsAChangeToTheNextLocationAndALostAnswerDoesNot) {
    FaultServers servers({"tls1.1:good", "tls:silence", "tls:close=accept", "tls:reset=accept", "tls:good",
                          "tls:reset=request", "tls:close=body"},
                         as("node1"));
    const std::vector<std::string> urls = servers.urls();
    for (std::size_t index = 0; index < 4; ++index) {
        Library library({urls[index], urls[4]}, 2, with("anchors.pem"));
        EXPECT_EQ(library.change(), 0U) << index;
        EXPECT_LE(library.seconds(), 2 + kLateness);
        EXPECT_TRUE(wasTraced(index == 1 ? "no TLS handshake in time" : "no TLS connection: ")) << index;
    }
    for (std::size_t index = 5; index < 7; ++index) {
        Library library({urls[index], urls[4]}, 2, with("anchors.pem"));
        EXPECT_EQ(library.change(), kStatusOutcomeUnknown) << index;
        EXPECT_EQ(library.read(), 0U) << index;
    }
    // Another protocol at the other end.
    FaultServers plain({"good"});
    Library tlsToPlain({"https" + plain.urls()[0].substr(4)}, 1, with("anchors.pem"));
    EXPECT_EQ(tlsToPlain.read(), kStatusTimedOut);
}

TEST_F(Tls, TheEnvironmentNeitherLogsKeysNorNamesProxies) {
    setenv("SSLKEYLOGFILE", at("keylog").c_str(), 1);
    for (const char* name : {"http_proxy", "https_proxy", "HTTPS_PROXY", "ALL_PROXY", "all_proxy"}) {
        setenv(name, "http://127.0.0.1:1", 1);
    }
    FaultServers servers({"tls:good", "good"}, as("node1"));
    for (const std::string& url : servers.urls()) {
        Library library({url}, 2, with("anchors.pem"));
        EXPECT_EQ(library.read(), 0U);
    }
    EXPECT_TRUE(!std::filesystem::exists(at("keylog")) || std::filesystem::file_size(at("keylog")) == 0);
}

TEST_F(Tls, ACertificateThatEndsSoonIsMentionedOnceARun) {
    for (int round = 0; round < 2; ++round) {
        Library library({}, 2, with("soon.p12"));
        EXPECT_EQ(library.initialized(), 0U);
        EXPECT_EQ(
            wasTraced("1 the certificate /C=DE/O=Example/CN=soon of the key file " + at("soon.p12") + " ends on "),
            round == 0);
    }
    Library library({}, 2, with("alice.p12"));
    EXPECT_TRUE(traced().empty());
}

CertificatePtr readCertificate(const std::string& path) {
    const BioPtr file(BIO_new_file(path.c_str(), "r"));
    return CertificatePtr(PEM_read_bio_X509(file.get(), nullptr, nullptr, nullptr));
}

/// A PKCS#12 file of several identities, which the openssl command cannot write, and the CA's certificate.
void writeIdentities(const std::string& path, const std::string& ca,
                     const std::vector<std::pair<std::string, std::string>>& namesAndLabels) {
    STACK_OF(PKCS12_SAFEBAG)* bags = nullptr;
    PKCS12_add_cert(&bags, readCertificate(ca).get());
    for (const auto& [name, label] : namesAndLabels) {
        const BioPtr keyFile(BIO_new_file((name + ".key").c_str(), "r"));
        const PrivateKeyPtr key(PEM_read_bio_PrivateKey(keyFile.get(), nullptr, nullptr, nullptr));
        PKCS12_SAFEBAG* bag = PKCS12_add_cert(&bags, readCertificate(name + ".crt").get());
        PKCS12_add_friendlyname_utf8(bag, label.c_str(), -1);
        PKCS12_add_key(&bags, key.get(), 0, 2048, NID_aes_256_cbc, "stash word");
    }
    STACK_OF(PKCS7)* safes = nullptr;
    PKCS12_add_safe(&safes, bags, NID_aes_256_cbc, 2048, "stash word");
    const Pkcs12Ptr file(PKCS12_add_safes(safes, 0));
    PKCS12_set_mac(file.get(), "stash word", -1, nullptr, 0, 2048, EVP_sha256());
    const BioPtr out(BIO_new_file(path.c_str(), "w"));
    i2d_PKCS12_bio(out.get(), file.get());
    sk_PKCS7_pop_free(safes, PKCS7_free);
    sk_PKCS12_SAFEBAG_pop_free(bags, PKCS12_SAFEBAG_free);
}

TEST_F(Tls, TheLabelChoosesTheIdentity) {
    writeIdentities(at("two.p12"), at("ca.pem"), {{at("alice"), "J\xC3\xBCrgen"}, {at("foreign"), "b"}});
    writeIdentities(at("twins.p12"), at("ca.pem"), {{at("alice"), "a"}, {at("soon"), "a"}, {at("foreign"), "b"}});
    struct Case {
        std::string keyFile;
        std::string label;
        std::string reason;  // empty: chosen
    };
    const Case cases[] = {
        {"two.p12", "J\xC3\xBCrgen", ""},
        {"two.p12", "b", ""},
        {"two.p12", "", "no label (ssl-keyfile-label) chooses one of them: J\xC3\xBCrgen, b"},
        {"two.p12", "c", "holds no identity labelled c; labels in it: J\xC3\xBCrgen, b"},
        {"twins.p12", "a", "holds several identities labelled a"},
        {"twins.p12", "b", ""},
        {"alice.p12", "alice", ""},
        {"alice.p12", "ALICE", "holds no identity labelled ALICE; labels in it: alice"},
        {"alice-pem.pem", "alice", ""},
        {"alice-pem.pem", "bob", "holds no identity labelled bob; labels in it: alice"},
        {"anchors.pem", "alice", "holds no identity labelled alice; labels in it: none"},
    };
    for (const Case& one : cases) {
        SCOPED_TRACE(one.keyFile + " " + one.label);
        TlsSettings tls = with(one.keyFile);
        tls.label = one.label;
        Library library({}, 2, tls);
        EXPECT_EQ(library.initialized(), one.reason.empty() ? 0 : kStatusKeyFile);
        EXPECT_TRUE(one.reason.empty() || wasTraced("0 the key file " + at(one.keyFile) + " " + one.reason) ||
                    wasTraced(one.reason))
            << traced().back();
    }
    // The identity that was chosen is the one shown to the server.
    FaultServers servers({"tls:good"}, as("node1", true));
    TlsSettings tls = with("two.p12");
    tls.label = "J\xC3\xBCrgen";
    Library good(servers.urls(), 2, tls);
    EXPECT_EQ(good.read(), 0U);
    tls.label = "b";
    Library foreign(servers.urls(), 2, tls);
    EXPECT_EQ(foreign.read(), kStatusTlsFailure);
    EXPECT_TRUE(wasTraced("our certificate was refused: unknown CA"));
}

TEST_F(Tls, KeyFilesAndStashesThatCannotBeUsedAreNamedAtOnce) {
    const auto write = [](const std::string& name, const std::string& text, mode_t mode) {
        std::ofstream(at(name)) << text;
        chmod(at(name).c_str(), mode);
    };
    write("crlf", "stash word\r\nsecond line\n", 0600);
    write("no-line-end", "stash word", 0400);
    write("wrong", "other word\n", 0600);
    write("empty", "", 0600);
    write("group", "stash word\n", 0640);
    write("others", "stash word\n", 0602);
    write("theirs", "stash word\n", 0600);
    write("rubbish.pem", "-----BEGIN CERTIFICATE-----\nAAAA\n-----END CERTIFICATE-----\n", 0600);
    write("big.pem", std::string(2 << 20, 'x'), 0600);
    std::filesystem::create_symlink("stash", at("link"));
    std::filesystem::create_symlink("alice.p12", at("link.p12"));
    ASSERT_EQ(mkfifo(at("fifo").c_str(), 0600), 0);
    const auto concatenate = [&](const std::string& name, const std::vector<std::string>& parts) {
        std::ofstream out(at(name));
        for (const std::string& part : parts) {
            out << std::ifstream(at(part)).rdbuf();
        }
    };
    concatenate("two-keys.pem", {"alice.key", "soon.key", "alice.crt"});
    concatenate("no-certificate.pem", {"alice.key", "ca.pem"});
    concatenate("plain.pem", {"ca.pem", "alice.crt", "alice.key"});
    struct Case {
        std::string keyFile;
        std::string stash;
        std::string reason;  // empty: usable
    };
    std::vector<Case> cases = {
        {"alice.p12", "crlf", ""},
        {"alice.p12", "no-line-end", ""},
        {"link.p12", "stash", ""},
        {"plain.pem", "", ""},
        {"alice.p12", "wrong", "cannot be decrypted: the stash file's password is not its password"},
        {"alice.p12", "empty", "cannot be decrypted: the stash file's password is not its password"},
        {"alice.p12", "", "cannot be decrypted: the stash file's password is not its password"},
        {"alice-pem.pem", "wrong", "cannot be read: it is damaged, or the stash file's password is not its password"},
        {"alice-pem.pem", "", "cannot be read: it is damaged, or the stash file's password is not its password"},
        {"alice.p12", "group", "cannot be used: others than its owner have permissions on it"},
        {"alice.p12", "others", "cannot be used: others than its owner have permissions on it"},
        {"alice.p12", "link", "cannot be opened: it is a symbolic link"},
        {"alice.p12", "fifo", "cannot be used: it is not a regular file"},
        {"alice.p12", "nowhere", "cannot be opened: No such file or directory"},
        {"nowhere.p12", "stash", "cannot be opened: No such file or directory"},
        {".", "stash", "cannot be used: it is not a regular file"},
        {"empty", "stash", "is neither PKCS#12 nor PEM"},
        {"rubbish.pem", "stash", "holds a certificate that cannot be read"},
        {"big.pem", "stash", "it is longer than 1 MiB"},
        {"two-keys.pem", "stash", "holds several private keys"},
        {"no-certificate.pem", "stash", "holds a private key, but not its certificate"},
        {"alice.crt", "stash", "holds neither an identity nor a CA certificate"},
        {"legacy.p12", "stash", "no longer reads; this converts it: openssl pkcs12 -legacy -nodes -in"},
    };
    if (geteuid() == 0) {
        ASSERT_EQ(chown(at("theirs").c_str(), 65534, 65534), 0);
        cases.push_back({"alice.p12", "theirs", "cannot be used: it belongs to another user"});
    }
    for (const Case& one : cases) {
        SCOPED_TRACE(one.keyFile + " " + one.stash);
        TlsSettings tls = with(one.keyFile);
        tls.stash = one.stash.empty() ? "" : at(one.stash);
        Library library({}, 2, tls);
        EXPECT_EQ(library.initialized(), one.reason.empty() ? 0 : kStatusKeyFile);
        if (!one.reason.empty()) {
            ASSERT_EQ(traced().size(), 1U);
            EXPECT_TRUE(wasTraced("0 the ") && wasTraced(one.reason)) << traced()[0];
        }
        EXPECT_FALSE(wasTraced("stash word"));
    }
}

TEST_F(Tls, FipsModeWithoutARealProviderRefusesBeforeAnythingIsSent) {
    FaultServers servers({"tls:good", "good"}, as("node1"));
    TlsSettings tls = with("anchors.pem");
    tls.fips = true;
    // Another provider under the name of this one offers nothing that is approved.
    std::filesystem::create_directory(at("modules"));
    const std::string impostor = "cp $(openssl version -m | cut -d '\"' -f 2)/legacy.so " + at("modules/fips.so");
    ASSERT_EQ(std::system(impostor.c_str()), 0);
    for (const char* modules : {"nowhere", "modules"}) {
        setenv("OPENSSL_MODULES", at(modules).c_str(), 1);
        Library library(servers.urls(), 2, tls);
        EXPECT_EQ(library.initialized(), kStatusNoFips) << modules;
        EXPECT_TRUE(wasTraced("0 FIPS mode is asked for, but the provider cannot be used: "));
    }
    for (const FaultServers::Counts& counts : servers.counts()) {
        EXPECT_EQ(counts.connections, 0);
    }
    // What was tried leaves nothing behind.
    Library library({servers.urls()[0]}, 2, with("anchors.pem"));
    EXPECT_EQ(library.read(), 0U);
}

TEST(DistinguishedName, IsReadComponentByComponent) {
    EXPECT_EQ(parseDistinguishedName("/C=DE/CN=a"), parseDistinguishedName("/countryName=DE/2.5.4.3=a"));
    EXPECT_EQ(parseDistinguishedName(R"(/O=a\/b\\c)")->at(0).value, "a/b\\c");
    EXPECT_EQ(parseDistinguishedName("/O=a=b, c")->at(0).value, "a=b, c");
    for (const char* bad : {"", "/", "CN=a", "/CN", "/CN=", "/CN=a/", "/CN=a//O=b", "/=a", "/nothing=a", R"(/CN=a\)"}) {
        EXPECT_FALSE(parseDistinguishedName(bad)) << bad;
        Library library({}, 2, {"", "", "", {kNode1, bad}, false});
        EXPECT_EQ(library.initialized(), kStatusKeyFile);
        EXPECT_TRUE(wasTraced("0 the server name (server-dns) "));
    }
}

}  // namespace
