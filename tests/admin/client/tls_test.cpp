// TLS: who is trusted, who we are, who the server may be; key files and their stashes.
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>

#include "catalogue/qel_messages.h"
#include "runtime/DistinguishedName.h"
#include "runtime/openssl_ptr.h"
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
        for (const char* name : {"http_proxy", "https_proxy", "ALL_PROXY"}) {
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
        return at(server + ".pem ") + (wantsClients ? at("ca.pem") : "''");
    }
    static TlsSettings with(const std::string& keyFile, const std::string& label = "",
                            const std::vector<std::string>& names = {}) {
        return {at(keyFile), at("stash"), label, names};
    }

    static inline std::string folder;
};

const std::string kNode1 = "/C=DE/O=Example/CN=node1";
const std::string kRefused = "our certificate was refused: ";

TEST_F(Tls, AConnectionComesAboutOnlyWithTheRightPartners) {
    const std::string comma = R"(/C=DE/O=Example\2C Inc./OU=\20a\/b\+c\1B/CN=comma\20)";
    const std::string noName = ": this name is not on the list (server-dns)";
    const struct {
        std::string server, keyFile;
        std::vector<std::string> names;
        std::string cause;  // empty: it works
        bool wantsClients = false;
    } cases[] = {
        {"node1", "ca.pem", {}, kRefused + "a certificate is required, and the key file", true},
        {"node1", "deep.p12", {}, "", true},                    // below CAs that the server lacks, one of them renewed
        {"under", "mid-ca.pem", {}, ""},                        // trusted without the CA above it
        {"solo", "solo.pem", {"/C=DE/O=Example/CN=solo"}, ""},  // a certificate whose key is in the file too
        {"posing", "clients-ca.pem", {}, "CN=clients-ca: unsuitable certificate purpose"},
        {"late", "ca.pem", {}, "CN=late, which ended on "},
        {"node1", "expired.p12", {}, kRefused + "certificate expired (/C=DE/O=Example/CN=expired of ", true},
        {"node1", "expired.p12", {}, "/expired.p12, which ended on ", true},
        {"far", "ca.pem", {}, "CN=far: its subjectAltName does not bear"},
        {"common", "ca.pem", {}, "CN=localhost: its subjectAltName does not bear"},
        {"named", "ca.pem", {}, ""},  // of its certificates it shows the one for the host that is asked for
        // A list of names takes the place of the host name, and of nothing else.
        {"far", "ca.pem", {kNode1, "/C=DE/O=Example/CN=far"}, ""},
        {"node1", "ca.pem", {"/O=Example/C=DE/CN=node1", "/C=DE/O=Example/CN=Node1", "/CN=node1"}, noName},
        {"stranger", "ca.pem", {"/C=DE/O=Example/CN=stranger"}, "CN=stranger: unable to get local issuer"},
        {"multi", "ca.pem", {"/C=DE/O=Example+CN=multi"}, ""},
        {"multi", "ca.pem", {"/C=DE/O=Example/CN=multi"}, "/C=DE/CN=multi+O=Example" + noName},
        {"comma", "ca.pem", {comma}, ""},
        {"comma", "ca.pem", {kNode1}, comma + noName},
        {"node1", "", {}, "there is no key file to say whom to trust"},
    };
    for (const auto& [server, keyFile, names, cause, wantsClients] : cases) {
        SCOPED_TRACE(server + " " + keyFile + " " + cause);
        FaultServers servers({"tls:good", "tls1.2:good"}, as(server, wantsClients));
        for (std::string url : servers.urls) {
            url.replace(8, 9, server == "common" || server == "named" ? "localhost" : "127.0.0.1");
            Library library({url}, 5, keyFile.empty() ? TlsSettings{} : with(keyFile, "", names));
            const std::uint32_t wanted = cause.empty() ? 0 : kStatusTlsFailure;
            EXPECT_EQ(library.read(), wanted);
            EXPECT_EQ(library.change(), wanted);
            EXPECT_TRUE(wasTraced(cause)) << traced.back();
        }
        for (const auto& [connections, requests, changes] : servers.counts()) {
            EXPECT_TRUE(cause.empty() || (connections == (keyFile.empty() ? 0 : 2) && requests + changes == 0))
                << connections << " " << requests;
        }
    }
}

/// What anybody on the path can say before the server does: alerts, warning and fatal, that turn a certificate down.
TEST_F(Tls, AnAlertThatNobodyVouchesForDecidesNothing) {
    FaultServers servers({"tls+1503030002012a:reset=request", "tls1.2+15030300020174:reset=request",
                          "tls+1503030002022a:reset=request", "tls1.2+15030300020274:reset=request", "tls:good"},
                         as("node1", true));
    for (std::size_t index = 0; index < 4; ++index) {
        Library library({servers.urls[index], servers.urls[4]}, 2, with("alice.p12"));
        const bool ended = index >= 2;  // by a fatal one, before anything was sent
        EXPECT_EQ(library.change(), ended ? 0 : kStatusOutcomeUnknown) << index;
        EXPECT_FALSE(wasTraced(kRefused)) << traced.back();
        EXPECT_EQ(servers.counts()[index].changes, ended ? 0 : 1);
        EXPECT_EQ(servers.counts()[4].requests, ended ? index - 1 : 0);
    }
}

TEST_F(Tls, AFailedHandshakeSendsAChangeToTheNextLocationAndALostAnswerDoesNot) {
    // The second answers in plain text.
    FaultServers servers({"tls:stall=accept", "tls+485454502f312e31:good", "tls:close=accept", "tls:reset=accept",
                          "tls:reset=request", "tls:close=body", "tls:good"},
                         as("node1"));
    for (std::size_t index = 0; index < 6; ++index) {
        const bool lost = index >= 4;
        Library library({servers.urls[index], servers.urls[6]}, 2, with("ca.pem"));
        EXPECT_EQ(library.change(), lost ? kStatusOutcomeUnknown : 0) << index;
        EXPECT_LE(library.seconds, 2 + kLateness);
        EXPECT_TRUE(lost || wasTraced(index == 0   ? "no TLS handshake in time"
                                      : index == 1 ? "no TLS connection: what answers there does not speak TLS"
                                                   : "no TLS connection: "))
            << index;
        EXPECT_EQ(library.read(), 0U) << index;
    }
    // So does a server that turns our certificate down, though the request may have left by then.
    FaultServers picky({"tls:good", "tls1.2:good"}, as("node1", true));
    for (const std::string& url : picky.urls) {
        Library library({url, servers.urls[6]}, 5, with("foreign.p12"));
        EXPECT_EQ(library.change(), 0U);
        EXPECT_TRUE(wasTraced(kRefused + "unknown CA (/C=DE/O=Example/CN=foreign of ")) << traced.back();
    }
}

TEST_F(Tls, WhatAReplacedConnectionFailsOfIsTold) {
    const std::tuple<std::string, std::string, std::uint32_t> cases[] = {
        {"close=accept", "the server ended the connection in the handshake", kStatusTlsFailure},
        {"stall=accept", "no TLS handshake in time", kStatusTimedOut}};
    for (const auto& [next, cause, status] : cases) {
        SCOPED_TRACE(next);
        FaultServers servers({"tls:one-answer," + next}, as("node1"));
        Library library(servers.urls, 1, with("ca.pem"));
        ASSERT_EQ(library.read(), 0U);
        EXPECT_EQ(library.read(), status);
        EXPECT_TRUE(wasTraced(cause)) << traced.back();
        EXPECT_EQ(library.change(), status);
    }
}

TEST_F(Tls, KeyFilesAndStashesThatCannotBeUsedAreNamedAtOnce) {
    shell(
        R"(printf 'stash word\r\nsecond line\n' >crlf; echo other word >wrong; >empty; mkfifo fifo; ln -s stash link
        cp stash world; chmod 604 world; cp stash theirs; chown 65534 theirs || rm theirs
        cat alice.crt alice.key >alice; cat alice ca.pem >open.pem; (echo 0; cat open.pem alice) >twice.pem; chmod 604 open.pem
        head -c 2000000 /dev/zero >big.pem; cat alice node1.key >two-keys.pem; cat alice.key ca.pem >no-certificate.pem
        cp ca.pem written.pem; chmod 662 written.pem; cat alice.p12 ca.pem >tail.p12
        request() { openssl req -x509 -nodes -days $1 -subj /CN=$2 -newkey $3 -keyout $2.key 2>noise; }
        rename() { openssl x509 -in $1 -outform DER | LC_ALL=C sed $2 | openssl x509 -inform DER; }
        rename solo.pem s/Example/Sample_/g >renamed.pem; (rename mid-ca.pem s/mid-/low-/; cat ca.pem) >below.pem
        (rename mid-ca.pem s/Example/Sample_/; cat ca.pem) >unnamed.pem
        openssl x509 -in ca.pem -trustout >trusted.pem; sed 2s/..../AAAA/ ca.pem >bad.pem
        sed 1s/-// ca.pem | cat - alice >dash.pem; sed '1d;$d' ca.pem | cat - alice >bare.pem
        sed '2s/..../AAAA/' alice.key | cat alice.crt - >damaged.pem
        (openssl x509 -text -in ca.pem | sed 's/CERT/X509 &/'; openssl ecparam -name P-256
         openssl ec -in alice.key; openssl pkcs12 -nodes -nokeys -in alice.p12 -passin file:stash) | sed 's/$/\r/' >text.pem
        (request 99 weak rsa:1024; cat weak.key) >weak.pem
        seal() { openssl pkcs12 -export -in alice.crt -inkey alice.key -certfile ca.pem -passout "$@"; }
        seal file:stash -keypbe NONE >clear.p12; seal pass: >blank.p12; cp blank.p12 seen.p12
        request 99 r rsa:2048 >r.pem; (cat expired.crt expired.key; request 9 brief rsa:2048) >over.pem
        (cat alice.crt ca.pem; openssl pkcs8 -topk8 -in alice.key -passout pass:) >void.pem
        (printf '\357\273\277'; cat r.pem; openssl rsa -traditional -in r.key) >rsa.pem; head -c 2000 /dev/zero | tr '\0' a >long
        (cat r.pem; openssl rsa -traditional -in r.key -aes128 -passout file:stash) >old.pem
        chmod 644 clear.p12 seen.p12 void.pem old.pem; sed '$d' open.pem >cut.pem
        echo secret >secret; for it in identities null secret no-certificate; do tail -c +2 \
          ")" VEXIL_TESTS_SUPPORT R"(/../fuzz/corpus/fuzz_keyfile/pkcs12-$it" >$it.p12; done
        chmod 666 alice.p12; seal file:stash -certpbe NONE | LC_ALL=C sed s/Example/Sample_/ >damaged.p12)");
    const std::string japanese = "\u65E5\u672C\u8A9E";
    struct Case {
        std::string keyFile, stash, reason, label = {};  // no reason: usable
    };
    const std::string wrong = "the stash file's password is not its password";
    const std::string others = "cannot be used: others than its owner have permissions on it";
    const std::string clear = others + ", and its private key is not encrypted";
    const std::string notUnderstood = "holds something that is not understood";
    std::vector<Case> cases = {
        {"alice.p12", "crlf", ""},
        {"twice.pem", "", ""},
        {"text.pem", "", ""},
        {"rsa.pem", "", ""},
        {"old.pem", "stash", ""},
        {"blank.p12", "empty", ""},
        {"null.p12", "empty", ""},
        {"identities.p12", "secret", "", japanese},
        {"identities.p12", "secret", "no label (ssl-keyfile-label) chooses one of them: " + japanese + ", me, me"},
        {"identities.p12", "secret", "holds no identity labelled c; labels in it: " + japanese + ", me, me", "c"},
        {"identities.p12", "secret", "holds several identities labelled me", "me"},
        {"alice.p12", "wrong", "cannot be decrypted: " + wrong},
        {"alice-pem.pem", "wrong", "cannot be read: it is damaged, or " + wrong},
        {"alice.p12", "world", others},
        {"open.pem", "", clear},
        {"open.pem", "stash", clear},
        {"clear.p12", "stash", clear},
        {"seen.p12", "empty", clear},
        {"void.pem", "empty", clear},
        {"alice-pem.pem", "long", wrong},
        {"cut.pem", "", "is damaged: the end is missing of what begins (line "},
        {"written.pem", "", others + ", and could put in whom to trust"},
        {"trusted.pem", "", notUnderstood + ": TRUSTED CERTIFICATE (line 1)"},
        {"dash.pem", "", notUnderstood + " (line 1)"},
        {"bare.pem", "", notUnderstood + " (line 1)"},
        {"alice", "", "holds no CA certificate to trust; add"},
        {"renamed.pem", "", "has not signed: /C=DE/O=Sample_/CN=solo; it is damaged"},
        {"below.pem", "", "has not signed: /C=DE/O=Example/CN=low-ca; it is damaged"},
        {"unnamed.pem", "", "has not signed: /C=DE/O=Sample_/CN=mid-ca; it is damaged"},
        {"damaged.pem", "", "holds a private key that is damaged (line 1"},
        {"weak.pem", "", "the certificate /CN=weak of the key file"},
        {"tail.p12", "stash", "something follows its end, from byte"},
        {"secret.p12", "empty", notUnderstood + " (bag 2)"},
        {"no-certificate.p12", "empty", "holds a certificate or private key that cannot be read (bag 2)"},
        {"damaged.p12", "stash", "is damaged: the password opens it"},
        {"alice.p12", "link", "cannot be opened: it is a symbolic link"},
        {"alice.p12", "fifo", "cannot be used: it is not a regular file"},
        {"empty", "stash", "is neither PKCS#12 nor PEM"},
        {"bad.pem", "", "holds a certificate that cannot be read (line 1)"},
        {"big.pem", "stash", "it is longer than 1 MiB"},
        {"two-keys.pem", "", "holds several private keys"},
        {"no-certificate.pem", "", "holds a private key, but not its certificate"},
        {"legacy.p12", "stash", "no longer reads; this converts it: openssl pkcs12 -legacy -nodes -in"},
    };
    if (std::filesystem::exists(at("theirs"))) {  // only root gives files away
        cases.push_back({"alice.p12", "theirs", "cannot be used: it belongs to another user"});
    }
    for (const auto& [keyFile, stash, reason, label] : cases) {
        SCOPED_TRACE(keyFile + " " + stash + " " + label);
        Library library({}, 2, {at(keyFile), stash.empty() ? "" : at(stash), label, {}});
        EXPECT_EQ(library.initialized, reason.empty() ? 0 : kStatusKeyFile);
        EXPECT_EQ(traced.size(), reason.empty() ? 0U : 1U);
        EXPECT_TRUE(reason.empty() || (wasTraced("0 the ") && wasTraced(reason))) << traced[0];
        EXPECT_FALSE(wasTraced("stash word"));
    }
    // A certificate that ends soon is mentioned once a run.
    FaultServers servers({"tls:good"}, as("ends"));
    for (const bool first : {true, false}) {
        Library over({}, 2, with("over.pem"));
        EXPECT_EQ(wasTraced("CN=brief of the key file " + at("over.pem ends on ")), first);
        EXPECT_EQ(wasTraced("1 the certificate /C=DE/O=Example/CN=expired of the key file " + at("over.pem ended on ")),
                  first);
        Library soon(servers.urls, 5, with("soon.p12"));
        EXPECT_EQ(wasTraced("CN=soon of the key file " + at("soon.p12 ends on ")), first);
        EXPECT_EQ(soon.read(), 0U);
        for (const char* name : {"ends", "ending-ca"}) {
            EXPECT_EQ(
                wasTraced("1 the certificate /C=DE/O=Example/CN=" + std::string(name) + " of the server ends on "),
                first);
        }
    }
}

TEST_F(Tls, FipsModeNeedsARealProviderAndARefusalLeavesNothingBehind) {
    FaultServers servers({"tls:good"}, as("node1"));
    TlsSettings tls = with("ca.pem");
    tls.fips = true;
    const bool hasProvider = std::system("openssl list -providers -provider fips >/dev/null 2>&1") == 0;
    if (hasProvider) {
        Library library(servers.urls, 5, tls);
        EXPECT_EQ(library.change(), 0U) << traced.back();
        EXPECT_EQ(DigestPtr(EVP_MD_fetch(nullptr, "MD5", nullptr)), nullptr);
    }
    // Another provider under the name of this one offers nothing that is approved.
    shell("mkdir modules; cp $(openssl version -m | cut -d '\"' -f 2)/legacy.so modules/fips.so");
    for (const char* modules : {"nowhere", "modules"}) {
        setenv("OPENSSL_MODULES", at(modules).c_str(), 1);
        Library library(servers.urls, 2, tls);
        EXPECT_EQ(library.initialized, kStatusNoFips) << modules;
        EXPECT_TRUE(wasTraced("0 FIPS mode is asked for, but the provider cannot be used: "));
    }
    EXPECT_EQ(Library(servers.urls, 2, with("ca.pem")).read(), 0U);
    if (!hasProvider) {
        GTEST_SKIP() << "this host has no FIPS provider; docs/tls.md tells how to build one";
    }
}

TEST(DistinguishedName, IsReadComponentByComponent) {
    EXPECT_EQ(parseDistinguishedName("/C=DE/CN=a"), parseDistinguishedName("/countryName=DE/2.5.4.3=a"));
    EXPECT_EQ(parseDistinguishedName(R"(/O=a\/b\\c=\2c\+)")->at(0).at(0).value, "a/b\\c=,+");
    EXPECT_EQ(parseDistinguishedName("/O=a+CN=b"), parseDistinguishedName("/CN=b+O=a"));
    for (const char* bad : {"", "/", "CN=a", "/CN", "/CN=", "/CN=a/", "/nothing=a", R"(/CN=a\)", "+O=a", "/CN=a "}) {
        Library library({}, 2, {"", "", "", {"/CN=a", bad}});
        EXPECT_EQ(library.initialized, kStatusKeyFile) << bad;
        EXPECT_TRUE(wasTraced("0 the server name (server-dns) "));
    }
}

}  // namespace
