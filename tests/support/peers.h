// Access to the real peers started for the test run by scripts/test-peers.sh (the CTest fixture
// peers.start), plus small file-system helpers for tests.
#ifndef WEBCHANNEL_TESTS_SUPPORT_PEERS_H
#define WEBCHANNEL_TESTS_SUPPORT_PEERS_H

#include <string>

namespace testsupport {

// What <WEBCHANNEL_TEST_ENV>/peers.env says about the running peers.
//   nginx:     HTTP on 127.0.0.1:httpPort, HTTPS on 127.0.0.1:443 with a self-signed certificate for
//              "localhost" (so 127.0.0.1 is a host-name mismatch), docroot `www`; /post answers POST with
//              "posted\n", /redirect/<anything> is a 302 to /five.bin, /auth/<file> is the docroot behind
//              Basic authentication.
//   squid, tinyproxy: forward proxies with Basic proxy authentication, CONNECT only to port 443.
// Files in `www`: empty.bin (0 bytes), five.bin ("hello"), k256m1.bin, k256.bin, k256p1.bin (256 KiB
// -1/0/+1), m1.bin (1 MiB), m40.bin (40 MiB) and small/f00000.bin .. small/f09999.bin (1024 bytes each).
struct Peers {
    int httpPort = 0, httpsPort = 0, squidPort = 0, tinyproxyPort = 0;
    std::string squidUser, squidPassword, tinyproxyUser, tinyproxyPassword;
    std::string authUser, authPassword;  // nginx /auth/
    std::string www;                     // absolute docroot
    std::string cert, key;               // PEM certificate of the HTTPS peer (CA for itself) and its key

    std::string httpUrl(const std::string& path) const;   // "http://127.0.0.1:<httpPort>" + path
    std::string httpsUrl(const std::string& path) const;  // "https://127.0.0.1" + path (port 443 implied)
};

// The peers of this run. If peers.env is missing or incomplete the calling test fails and the call
// throws: a test that needs the peers never silently passes without them.
const Peers& peers();

// The whole file, byte for byte. Fails the test and throws if unreadable.
std::string readFile(const std::string& path);

// Descriptors this process has open (not counting the one used to list them): compare to find leaks.
int openDescriptorCount();

// A fresh, empty directory named after the calling test, under the test environment of the build tree.
// Fails the test and throws if it cannot be made.
std::string tempDir();

}  // namespace testsupport

#endif
