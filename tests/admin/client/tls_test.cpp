// TLS: who is trusted, who we are, who the server may be; key files and their stashes.
#include <gtest/gtest.h>
#include <openssl/pem.h>

#include <cstdlib>
#include <filesystem>

#include "admin/client/DistinguishedName.h"
#include "admin/client/openssl_ptr.h"
#include "runtime/qel_messages.h"
#include "tests/admin/client/Library.h"

namespace {

/// The certificates of tests/support/make_certificates, in a folder that is gone at the end.
class Tls : public testing::Test {
  protected:
    static void SetUpTestSuite() {
        char pattern[] = "/tmp/vexil-tls-XXXXXX";
        folder = mkdtemp(pattern);
        shell(VEXIL_TESTS_SUPPORT "/make_certificates .");
        // The environment neither logs keys nor names proxies.
        setenv("SSLKEYLOGFILE", at("keylog").c_str(), 1);
        for (const char* name : {"http_proxy", "https_proxy", "HTTPS_PROXY", "ALL_PROXY", "all_proxy"}) {
            setenv(name, "http://127.0.0.1:1", 1);
        }
    }
    static void TearDownTestSuite() {
        shell("test ! -s keylog");
        std::filesystem::remove_all(folder);
    }

    static void shell(const std::string& script) {
        ASSERT_EQ(std::system(("set -e; cd " + folder + "; umask 077; " + script).c_str()), 0);
    }
    static std::string at(const std::string& name) { return folder + "/" + name; }
    static std::string as(const std::string& server, bool wantsClients = false) {
        const std::string file = at(server + ".pem");
        return "--tls-cert " + file + (wantsClients ? " --client-ca " + at("ca.pem") : "");
    }
    static TlsSettings with(const std::string& keyFile, const std::string& label = "") {
        return {at(keyFile), at("stash"), label, {}};
    }

    static inline std::string folder;
};

TEST_F(Tls, AConnectionComesAboutOnlyWithTheRightPartners) {
    struct Case {
        std::string server;
        bool wantsClients;
        std::string keyFile;
        std::vector<std::string> names;
        std::string cause;  // empty: it works
    };
    const std::string refused = "our certificate was refused: ";
    const std::string subject = "the server's certificate /C=DE/O=Example/CN=";
    const std::string node1 = "/C=DE/O=Example/CN=node1";
    const std::string comma = R"(/C=DE/O=Example\2C Inc./OU=a\/b\+c/CN=comma)";
    const std::string noName = "this name is not on the list (server-dns)";
    const Case cases[] = {
        {"node1", true, "alice.p12", {}, ""},
        {"node2", true, "alice-pem.pem", {}, ""},
        {"node1", true, "anchors.pem", {}, refused + "a certificate is required, and the key file"},
        {"node1", true, "foreign.p12", {}, refused + "unknown CA"},
        {"node1", true, "deep.p12", {}, ""},     // below two CAs that the server does not have
        {"under", false, "mid-ca.pem", {}, ""},  // trusted without the CA above it
        {"stranger", false, "anchors.pem", {}, subject + "stranger: unable to get"},
        {"far", false, "anchors.pem", {}, "the server's certificate: SSL: no alternative certificate subject name"},
        // A list of names takes the place of the host name.
        {"far", false, "anchors.pem", {"/C=DE/O=Example/CN=far"}, ""},
        {"node1", false, "anchors.pem", {"/C=DE/O=Example/CN=other", node1}, ""},
        {"node2", false, "anchors.pem", {node1}, noName},
        {"node1", false, "anchors.pem", {"/O=Example/C=DE/CN=node1"}, noName},
        {"node1", false, "anchors.pem", {"/C=DE/O=Example/CN=Node1", "/CN=node1"}, noName},
        {"stranger", false, "anchors.pem", {"/C=DE/O=Example/CN=stranger"}, "unable to get local issuer certificate"},
        {"multi", false, "anchors.pem", {"/C=DE/O=Example+CN=multi"}, ""},
        {"multi", false, "anchors.pem", {"/C=DE/O=Example/CN=multi"}, "/C=DE/CN=multi+O=Example: " + noName},
        {"comma", false, "anchors.pem", {comma}, ""},
        {"comma", false, "anchors.pem", {node1}, comma + ": " + noName},
        // Without CA certificates of our own, the system's are asked.
        {"node1", false, "", {}, subject + "node1: unable to get"},
    };
    for (const Case& one : cases) {
        SCOPED_TRACE(one.server + " " + one.keyFile + " " + one.cause);
        FaultServers servers({"tls:good", "tls1.2:good"}, as(one.server, one.wantsClients));
        for (const std::string& url : servers.urls) {
            TlsSettings tls = one.keyFile.empty() ? TlsSettings{} : with(one.keyFile);
            tls.serverNames = one.names;
            Library library({url}, 5, tls);
            const std::uint32_t wanted = one.cause.empty() ? 0 : kStatusTlsFailure;
            EXPECT_EQ(library.read(), wanted);
            EXPECT_EQ(library.change(), wanted);
            EXPECT_EQ(library.read(), wanted);
            EXPECT_TRUE(wasTraced(one.cause)) << traced.back();
        }
        for (const auto& [connections, requests, bytes] : servers.counts()) {
            EXPECT_TRUE(one.cause.empty() || (connections == 3 && bytes == 0)) << connections << " " << bytes;
        }
    }
}

/// What anybody on the path can say before the server does: alerts, warning and fatal, that turn a certificate down.
TEST_F(Tls, AnAlertThatNobodyVouchesForDecidesNothing) {
    for (const std::string tls : {"tls", "tls1.2"}) {
        for (const char* alert : {"2a", "2c", "2d", "30", "74"}) {
            const std::string injected = tls + "+15030300020", bad = std::string(alert) + ":reset=request";
            FaultServers servers({injected + "1" + bad, injected + "2" + bad, "tls:good"}, as("node1", true));
            for (const auto& [first, status] : {std::pair(0, kStatusOutcomeUnknown), {1, 0U}}) {
                SCOPED_TRACE(injected + bad);
                Library library({servers.urls[first], servers.urls[2]}, 5, with("alice.p12"));
                EXPECT_EQ(library.change(), status);
                EXPECT_FALSE(wasTraced("our certificate was refused")) << traced.back();
                const auto counts = servers.counts();
                EXPECT_EQ(counts[first].requests + counts[2].requests, 1);
            }
        }
    }
}

TEST_F(Tls, ACertificateThatTheServerTurnsDownSendsAChangeToTheNextLocation) {
    FaultServers picky({"tls:good", "tls1.2:good"}, as("node1", true));
    FaultServers good({"tls:good"}, as("node1"));
    for (const std::string& url : picky.urls) {
        Library library({url, good.urls[0]}, 5, with("foreign.p12"));
        EXPECT_EQ(library.change(), 0U);
        EXPECT_TRUE(wasTraced("our certificate was refused: unknown CA"));
    }
    EXPECT_EQ(good.counts()[0].requests, 2);
}

TEST_F(Tls, WhatAReplacedConnectionFailsOfIsTold) {
    const std::string kept = "tls:one-answer,";
    const std::pair<std::string, std::string> cases[] = {
        {kept + "tls1.1:good", "no TLS connection: "},
        {kept + "tls:close=accept", "no TLS connection: the server ended the connection in the handshake"},
        {kept + "tls@" + at("node2.pem") + ":good", "/C=DE/O=Example/CN=node2: this name is not on the list"},
        {kept + "silence", "no TLS handshake in time"}};
    for (const auto& [modes, cause] : cases) {
        SCOPED_TRACE(modes);
        FaultServers servers({modes}, as("node1"));
        TlsSettings tls = with("anchors.pem");
        tls.serverNames = {"/C=DE/O=Example/CN=node1"};
        Library library(servers.urls, 1, tls);
        ASSERT_EQ(library.read(), 0U);
        EXPECT_EQ(library.read(), cause.ends_with("in time") ? kStatusTimedOut : kStatusTlsFailure);
        EXPECT_TRUE(wasTraced(cause)) << traced.back();
        EXPECT_EQ(library.change(), cause.ends_with("in time") ? kStatusTimedOut : kStatusTlsFailure);
    }
}

TEST_F(Tls, AFailedHandshakeSendsAChangeToTheNextLocationAndALostAnswerDoesNot) {
    FaultServers servers({"tls1.1:good", "tls:silence", "tls:close=accept", "tls:reset=accept", "tls:reset=request",
                          "tls:close=body", "tls:good"},
                         as("node1"));
    for (std::size_t index = 0; index < 6; ++index) {
        const bool lost = index >= 4;
        Library library({servers.urls[index], servers.urls[6]}, 2, with("anchors.pem"));
        EXPECT_EQ(library.change(), lost ? kStatusOutcomeUnknown : 0) << index;
        EXPECT_LE(library.seconds, 2 + kLateness);
        EXPECT_TRUE(lost || wasTraced(index == 1 ? "no TLS handshake in time" : "no TLS connection: ")) << index;
        EXPECT_EQ(library.read(), 0U) << index;
    }
    FaultServers plain({"good"});  // another protocol at the other end
    Library library({"https" + plain.urls[0].substr(4), plain.urls[0]}, 1, with("anchors.pem"));
    EXPECT_EQ(library.read(), 0U);
    EXPECT_TRUE(wasTraced("no TLS handshake in time"));
}

/// A PKCS#12 file of several identities, which the openssl command cannot write, and their CA's certificate.
void writeIdentities(const std::string& path, const std::vector<std::pair<std::string, std::string>>& filesAndLabels,
                     long iterations = 2048) {
    const char word[] = "stash word";
    STACK_OF(PKCS12_SAFEBAG)* bags = nullptr;
    for (const auto& [name, label] : filesAndLabels) {
        const BioPtr in(BIO_new_file(name.c_str(), "r"));
        EVP_PKEY* key = nullptr;
        X509* certificate = nullptr;
        STACK_OF(X509)* authorities = nullptr;
        PKCS12_parse(Pkcs12Ptr(d2i_PKCS12_bio(in.get(), nullptr)).get(), word, &key, &certificate, &authorities);
        const auto* labelBytes = reinterpret_cast<const unsigned char*>(label.c_str());
        X509_alias_set1(certificate, labelBytes, static_cast<int>(label.size()));
        PKCS12_add_cert(&bags, certificate);
        PKCS12_add_cert(&bags, sk_X509_value(authorities, 0));
        PKCS12_add_key(&bags, key, 0, 2048, NID_aes_256_cbc, word);
        EVP_PKEY_free(key);
        X509_free(certificate);
        sk_X509_pop_free(authorities, X509_free);
    }
    STACK_OF(PKCS7)* safes = nullptr;
    PKCS12_add_safe(&safes, bags, NID_aes_256_cbc, 2048, word);
    const Pkcs12Ptr file(PKCS12_add_safes(safes, 0));
    PKCS12_set_mac(file.get(), word, -1, nullptr, 0, 2048, EVP_sha256());
    const ASN1_INTEGER* given = nullptr;
    PKCS12_get0_mac(nullptr, nullptr, nullptr, &given, file.get());
    ASN1_INTEGER_set(const_cast<ASN1_INTEGER*>(given), iterations);
    i2d_PKCS12_bio(BioPtr(BIO_new_file(path.c_str(), "w")).get(), file.get());
    sk_PKCS7_pop_free(safes, PKCS7_free);
    sk_PKCS12_SAFEBAG_pop_free(bags, PKCS12_SAFEBAG_free);
}

TEST_F(Tls, TheLabelChoosesTheIdentity) {
    writeIdentities(at("two.p12"), {{at("alice.p12"), "\u65E5\u672C\u8A9E"}, {at("foreign.p12"), "b"}});
    writeIdentities(at("twins.p12"), {{at("alice.p12"), "a"}, {at("soon.p12"), "a"}, {at("foreign.p12"), "b"}});
    struct Case {
        std::string keyFile, label, reason;  // empty: chosen
    };
    const Case cases[] = {
        {"two.p12", "", "no label (ssl-keyfile-label) chooses one of them: \u65E5\u672C\u8A9E, b"},
        {"two.p12", "c", "holds no identity labelled c; labels in it: \u65E5\u672C\u8A9E, b"},
        {"twins.p12", "a", "holds several identities labelled a"},
        {"twins.p12", "b", ""},
        {"alice.p12", "ALICE", "holds no identity labelled ALICE; labels in it: alice"},
        {"alice-pem.pem", "bob", "holds no identity labelled bob; labels in it: alice"},
        {"anchors.pem", "alice", "holds no identity labelled alice; labels in it: none"},
    };
    for (const auto& [keyFile, label, reason] : cases) {
        Library library({}, 2, with(keyFile, label));
        EXPECT_EQ(library.initialized, reason.empty() ? 0 : kStatusKeyFile) << keyFile << label;
        EXPECT_TRUE(reason.empty() || (wasTraced("0 the key file " + at(keyFile)) && wasTraced(reason))) << reason;
    }
    // The identity that was chosen is the one shown to the server.
    FaultServers servers({"tls:good"}, as("node1", true));
    Library good(servers.urls, 2, with("two.p12", "\u65E5\u672C\u8A9E"));
    EXPECT_EQ(good.read(), 0U);
    Library foreign(servers.urls, 2, with("two.p12", "b"));
    EXPECT_EQ(foreign.read(), kStatusTlsFailure);
    EXPECT_TRUE(wasTraced("our certificate was refused: unknown CA"));
    // A certificate that ends soon is mentioned once a run.
    for (const bool first : {true, false}) {
        Library soon({}, 2, with("soon.p12"));
        EXPECT_EQ(wasTraced("1 the certificate /C=DE/O=Example/CN=soon of the key file " + at("soon.p12")), first);
    }
    Library alice({}, 2, with("alice.p12"));
    EXPECT_TRUE(traced.empty());
}

TEST_F(Tls, KeyFilesAndStashesThatCannotBeUsedAreNamedAtOnce) {
    shell(
        R"(printf 'stash word\r\nsecond line\n' >crlf; printf 'stash word' >no-line-end; echo other word >wrong; >empty
        cp stash theirs; cp stash group; chmod 640 group; cp stash world; chmod 604 world
        chown 65534 theirs || rm theirs; ln -s stash link; ln -s alice.p12 link.p12; mkfifo fifo
        printf -- '-----BEGIN CERTIFICATE-----\nAAAA\n-----END CERTIFICATE-----\n' >rubbish.pem
        head -c 2000000 /dev/zero >big.pem; cat alice.key soon.key alice.crt >two-keys.pem
        cat alice.key ca.pem >no-certificate.pem; cat ca.pem alice.crt alice.key >plain.pem
        cat plain.pem alice.crt alice.key >twice.pem; cp plain.pem open.pem; chmod 604 open.pem
        cp ca.pem written.pem; chmod 662 written.pem; cat alice.p12 ca.pem >tail.p12
        openssl x509 -in ca.pem -trustout | cat alice.crt alice.key - >trusted.pem
        openssl crl2pkcs7 -nocrl -certfile ca.pem | cat alice.crt alice.key - >p7.pem
        sed 1s/-// ca.pem | cat alice.crt alice.key - >dash.pem; sed '1d;$d' ca.pem | cat alice.crt alice.key - >bare.pem
        sed '2s/..../AAAA/' alice.key | cat alice.crt - >damaged.pem; cat stranger.crt alice.crt alice.key >other.pem
        (openssl x509 -text -in ca.pem; openssl ecparam -name P-256; openssl pkcs12 -nodes -in alice.p12 -passin file:stash) |
            sed 's/$/\r/' >text.pem; openssl req -x509 -newkey rsa:1024 -days 99 -nodes -subj /CN=weak -keyout - 2>&1 >weak.pem
        cp alice.p12 damaged.p12; printf BAD | dd of=damaged.p12 bs=1 seek=300 conv=notrunc)");
    writeIdentities(at("endless.p12"), {{at("alice.p12"), "a"}}, 0x7FFFFFFF);
    struct Case {
        std::string keyFile, stash, reason;  // empty: usable
    };
    const std::string wrong = "the stash file's password is not its password";
    std::vector<Case> cases = {
        {"alice.p12", "crlf", ""},
        {"alice.p12", "no-line-end", ""},
        {"link.p12", "stash", ""},
        {"plain.pem", "", ""},
        {"twice.pem", "", ""},
        {"text.pem", "", ""},
        {"alice.p12", "wrong", "cannot be decrypted: " + wrong},
        {"alice.p12", "", "cannot be decrypted: " + wrong},
        {"alice-pem.pem", "wrong", "cannot be read: it is damaged, or " + wrong},
        {"alice.p12", "group", "cannot be used: others than its owner have permissions on it"},
        {"alice.p12", "world", "cannot be used: others than its owner have permissions on it"},
        {"open.pem", "stash", "others than its owner have permissions on it, and its private key is not encrypted"},
        {"written.pem", "stash", "others than its owner have permissions on it, and could put in whom to trust"},
        {"trusted.pem", "", "holds something that is not understood: TRUSTED CERTIFICATE (line 1"},
        {"p7.pem", "", "holds something that is not understood: PKCS7 (line 1"},
        {"dash.pem", "", "holds something that is not understood (line 1"},
        {"bare.pem", "", "holds something that is not understood (line 1"},
        {"other.pem", "", "holds neither a CA certificate nor the private key of /C=DE/O=Example/CN=stranger"},
        {"damaged.pem", "", "holds a private key that is damaged (line 1"},
        {"weak.pem", "", "the certificate /CN=weak of the key file"},
        {"tail.p12", "stash", "something follows its end, from byte"},
        {"damaged.p12", "stash", "is damaged: the password opens it"},
        {"endless.p12", "stash", "asks for more than 10,000,000 iterations"},
        {"alice.p12", "link", "cannot be opened: it is a symbolic link"},
        {"alice.p12", "fifo", "cannot be used: it is not a regular file"},
        {"nowhere.p12", "stash", "cannot be opened: No such file or directory"},
        {"empty", "stash", "is neither PKCS#12 nor PEM"},
        {"rubbish.pem", "stash", "holds a certificate that cannot be read"},
        {"big.pem", "stash", "it is longer than 1 MiB"},
        {"two-keys.pem", "stash", "holds several private keys"},
        {"no-certificate.pem", "stash", "holds a private key, but not its certificate"},
        {"alice.crt", "stash", "holds neither a CA certificate nor the private key of /C=DE/O=Example/CN=alice"},
        {"legacy.p12", "stash", "no longer reads; this converts it: openssl pkcs12 -legacy -nodes -in"},
    };
    if (std::filesystem::exists(at("theirs"))) {  // only root gives files away
        cases.push_back({"alice.p12", "theirs", "cannot be used: it belongs to another user"});
    }
    for (const auto& [keyFile, stash, reason] : cases) {
        SCOPED_TRACE(testing::Message() << keyFile << " " << stash);
        Library library({}, 2, {at(keyFile), stash.empty() ? "" : at(stash), "", {}});
        EXPECT_EQ(library.initialized, reason.empty() ? 0 : kStatusKeyFile);
        EXPECT_EQ(traced.size(), reason.empty() ? 0U : 1U);
        EXPECT_TRUE(reason.empty() || (wasTraced("0 the ") && wasTraced(reason))) << traced[0];
        EXPECT_FALSE(wasTraced("stash word"));
    }
}

TEST_F(Tls, FipsModeUsesItsProviderWhereThereIsOne) {
    if (std::system("openssl list -providers -provider fips >/dev/null 2>&1") != 0) {
        GTEST_SKIP() << "this host has no FIPS provider; docs/tls.md tells how to build one";
    }
    FaultServers servers({"tls:good", "tls1.2:good"}, as("node1", true));
    for (const std::string& url : servers.urls) {
        TlsSettings tls = with("alice.p12");
        tls.fips = true;
        Library library({url}, 5, tls);
        EXPECT_EQ(library.change(), 0U) << traced.back();
        EXPECT_EQ(DigestPtr(EVP_MD_fetch(nullptr, "MD5", nullptr)), nullptr);
    }
}

TEST_F(Tls, FipsModeWithoutARealProviderRefusesBeforeAnythingIsSent) {
    FaultServers servers({"tls:good"}, as("node1"));
    TlsSettings tls = with("anchors.pem");
    tls.fips = true;
    // Another provider under the name of this one offers nothing that is approved.
    shell("mkdir modules; cp $(openssl version -m | cut -d '\"' -f 2)/legacy.so modules/fips.so");
    for (const char* modules : {"nowhere", "modules"}) {
        setenv("OPENSSL_MODULES", at(modules).c_str(), 1);
        Library library(servers.urls, 2, tls);
        EXPECT_EQ(library.initialized, kStatusNoFips) << modules;
        EXPECT_TRUE(wasTraced("0 FIPS mode is asked for, but the provider cannot be used: "));
    }
    EXPECT_EQ(servers.counts()[0].connections, 0);
    Library library(servers.urls, 2, with("anchors.pem"));
    EXPECT_EQ(library.read(), 0U);  // what was tried leaves nothing behind
}

TEST(DistinguishedName, IsReadComponentByComponent) {
    EXPECT_EQ(parseDistinguishedName("/C=DE/CN=a"), parseDistinguishedName("/countryName=DE/2.5.4.3=a"));
    EXPECT_EQ(parseDistinguishedName(R"(/O=a\/b\\c=\2c\+)")->at(0).at(0).value, "a/b\\c=,+");
    EXPECT_EQ(parseDistinguishedName("/O=a+CN=b"), parseDistinguishedName("/CN=b+O=a"));
    EXPECT_NE(parseDistinguishedName("/O=a+CN=b"), parseDistinguishedName("/O=a/CN=b"));
    for (const char* bad : {"", "/", "CN=a", "/CN", "/CN=", "/CN=a/", "/CN=a//O=b", "/=a", "/nothing=a", R"(/CN=a\)",
                            "/O=a+b", "+O=a", " /CN=a"}) {
        EXPECT_FALSE(parseDistinguishedName(bad)) << bad;
        Library library({}, 2, {"", "", "", {"/CN=a", bad}});
        EXPECT_EQ(library.initialized, kStatusKeyFile);
        EXPECT_TRUE(wasTraced("0 the server name (server-dns) "));
    }
}

}  // namespace
