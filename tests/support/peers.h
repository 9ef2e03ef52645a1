// The real peers started for the test run by the CTest fixture peers.start, and small file helpers.
#ifndef WEBCHANNEL_TESTS_SUPPORT_PEERS_H
#define WEBCHANNEL_TESTS_SUPPORT_PEERS_H

#include <map>
#include <string>
#include <vector>

namespace testsupport {

// The peers of <WEBCHANNEL_TEST_ENV>/peers.env: nginx (HTTP on httpPort, HTTPS on 443 for "localhost", POST to
// /post answers "posted\n"), squid and tinyproxy (Basic proxy authentication, CONNECT to 443 only). `www` holds
// empty.bin, five.bin ("hello"), k256m1/k256/k256p1.bin (256 KiB -1/0/+1), m1.bin, m40.bin, small/f00000.bin...
struct Peers {
    int httpPort = 0, squidPort = 0, tinyproxyPort = 0;
    std::string squidUser, squidPassword, tinyproxyUser, tinyproxyPassword;
    std::string www;   // absolute docroot
    std::string cert;  // PEM certificate of the HTTPS peer
    // Servers by certificate (good, othername, expired, selfsigned, unknownca); the CA (PEM, hashed directory).
    std::map<std::string, int> tlsPorts;
    std::string trustCa, trustDir;
    // Two hosts on one port, 127.0.0.1 (the origin: /away/X sends to 127.0.0.2, /up/X to https://localhost/X) and
    // 127.0.0.2 (/back/X sends to 127.0.0.1); the 443 server's /down/X sends to the origin. redirectLog has a line
    // "ADDRESS:PORT METHOD URI RANGE AUTH COOKIE" for each of their requests, the last three "range", "auth",
    // "cookie" when the request carried that header, else "-".
    int redirectPort = 0;
    std::string redirectLog;
    std::vector<int> hostPorts;  // `www` over HTTP on many ports, each standing for a host of its own

    std::string httpUrl(const std::string& path) const { return "http://127.0.0.1:" + std::to_string(httpPort) + path; }
    std::string httpsUrl(const std::string& path) const { return "https://127.0.0.1" + path; }  // port 443 implied
};

// A missing or incomplete peers.env fails the calling test and throws: it never passes without the peers.
const Peers& peers();
// The whole file, byte for byte. Fails the test and throws if unreadable.
std::string readFile(const std::string& path);
// Descriptors this process has open: compare to find leaks.
int openDescriptorCount();
// A fresh directory named after the calling test in the build tree's test environment; fails and throws if not made.
std::string tempDir();

}  // namespace testsupport

#endif
