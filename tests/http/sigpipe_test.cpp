// SIGPIPE: single GETs ignore it for their duration and give the host its
// own disposition back; POST leaves the disposition alone and still never
// raises the signal on a closed peer.
#include <gtest/gtest.h>
#include <signal.h>

#include <mutex>
#include <string>

#include "http/transfer_fixtures.h"

namespace {

using namespace transfertest;
using testsupport::httpResponse;
using testsupport::peers;
using testsupport::ScriptServer;
using testsupport::ServerConnection;
using testsupport::tempDir;

volatile sig_atomic_t gSigpipes = 0;

void countSigpipe(int) {
    gSigpipes = gSigpipes + 1;
}

void countSigpipeWithInfo(int, siginfo_t*, void*) {
    gSigpipes = gSigpipes + 1;
}

struct sigaction currentDisposition() {
    struct sigaction now;
    sigaction(SIGPIPE, nullptr, &now);
    return now;
}

// The disposition a server handler saw while the client was inside a call.
class Observed {
public:
    void record() {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_disposition = currentDisposition();
        m_recorded = true;
    }
    bool get(struct sigaction& disposition) {
        std::lock_guard<std::mutex> lock(m_mutex);
        disposition = m_disposition;
        return m_recorded;
    }

private:
    std::mutex m_mutex;
    struct sigaction m_disposition {};
    bool m_recorded = false;
};

// A host that installed its own SIGPIPE handler, with a flag and a mask.
class SigpipeDisposition : public ChannelTest {
protected:
    void SetUp() override {
        ChannelTest::SetUp();
        ASSERT_EQ(sigaction(SIGPIPE, nullptr, &m_original), 0);
        struct sigaction host {};
        host.sa_handler = countSigpipe;
        host.sa_flags = SA_RESTART;
        sigemptyset(&host.sa_mask);
        sigaddset(&host.sa_mask, SIGUSR1);
        ASSERT_EQ(sigaction(SIGPIPE, &host, nullptr), 0);
        gSigpipes = 0;
    }
    void TearDown() override { sigaction(SIGPIPE, &m_original, nullptr); }

    // A server that records the disposition when the request arrives.
    ScriptServer::Handler observingServer(Observed& observed, int code = 200) {
        return [&observed, code](ServerConnection& c) {
            if (c.readRequest().empty()) return;
            observed.record();
            c.send(httpResponse(code, "seen"));
            c.close();
        };
    }

    static void expectHostHandler(const struct sigaction& disposition) {
        EXPECT_EQ(disposition.sa_handler, countSigpipe);
        EXPECT_TRUE(disposition.sa_flags & SA_RESTART);
        EXPECT_EQ(sigismember(&disposition.sa_mask, SIGUSR1), 1);
    }

    static void expectIgnoredKeepingFlagsAndMask(Observed& observed) {
        struct sigaction during;
        ASSERT_TRUE(observed.get(during)) << "the server saw no request";
        EXPECT_EQ(during.sa_handler, SIG_IGN);
        EXPECT_TRUE(during.sa_flags & SA_RESTART);
        EXPECT_EQ(sigismember(&during.sa_mask, SIGUSR1), 1);
    }

private:
    struct sigaction m_original;
};

TEST_F(SigpipeDisposition, FileGetIgnoresSigpipeWhileRunningAndRestoresTheHostHandler) {
    Observed observed;
    ScriptServer server(observingServer(observed));
    ASSERT_EQ(channel.httpGet(server.url("/f").c_str(), (tempDir() + "/f").c_str()), kOk);
    expectIgnoredKeepingFlagsAndMask(observed);
    expectHostHandler(currentDisposition());
}

TEST_F(SigpipeDisposition, MemoryGetIgnoresSigpipeWhileRunningAndRestoresTheHostHandler) {
    Observed observed;
    ScriptServer server(observingServer(observed));
    ASSERT_EQ(channel.httpGet(server.url("/m").c_str()), kOk);
    expectIgnoredKeepingFlagsAndMask(observed);
    expectHostHandler(currentDisposition());
}

TEST_F(SigpipeDisposition, FailedGetsRestoreTheHostHandler) {
    Observed observed;
    ScriptServer server(observingServer(observed, 404));
    ASSERT_EQ(channel.httpGet(server.url("/f").c_str(), (tempDir() + "/f").c_str()), kBadStatus);
    expectHostHandler(currentDisposition());
    ASSERT_EQ(channel.httpGet(server.url("/m").c_str()), kBadStatus);
    expectHostHandler(currentDisposition());
    expectIgnoredKeepingFlagsAndMask(observed);
}

TEST_F(SigpipeDisposition, HttpsGetsRestoreTheHostHandler) {
    ASSERT_EQ(channel.httpGet(peers().httpsUrl("/k256.bin").c_str(), (tempDir() + "/k").c_str()), kOk);
    expectHostHandler(currentDisposition());
    ASSERT_EQ(channel.httpGet(peers().httpsUrl("/five.bin").c_str()), kOk);
    expectHostHandler(currentDisposition());
}

TEST_F(SigpipeDisposition, HostHandlerWithSignalInformationComesBackWhole) {
    struct sigaction host {};
    host.sa_sigaction = countSigpipeWithInfo;
    host.sa_flags = SA_SIGINFO | SA_RESTART;
    sigemptyset(&host.sa_mask);
    sigaddset(&host.sa_mask, SIGUSR2);
    ASSERT_EQ(sigaction(SIGPIPE, &host, nullptr), 0);
    Observed observed;
    ScriptServer server(observingServer(observed));
    ASSERT_EQ(channel.httpGet(server.url("/m").c_str()), kOk);

    struct sigaction during;
    ASSERT_TRUE(observed.get(during));
    EXPECT_EQ(during.sa_handler, SIG_IGN);
    EXPECT_FALSE(during.sa_flags & SA_SIGINFO) << "an ignored signal must not be marked as having a siginfo handler";
    const struct sigaction after = currentDisposition();
    EXPECT_TRUE(after.sa_flags & SA_SIGINFO);
    EXPECT_EQ(after.sa_sigaction, countSigpipeWithInfo);
    EXPECT_EQ(sigismember(&after.sa_mask, SIGUSR2), 1);
}

TEST_F(SigpipeDisposition, PostLeavesTheHostHandlerInPlace) {
    Observed observed;
    ScriptServer server(observingServer(observed));
    std::string body = "x";
    ASSERT_EQ(channel.httpPost(server.url("/p").c_str(), nullptr, &body[0], false), kOk);
    struct sigaction during;
    ASSERT_TRUE(observed.get(during));
    expectHostHandler(during);
    expectHostHandler(currentDisposition());
}

TEST_F(SigpipeDisposition, PostToAPeerThatResetsDuringTheUploadRaisesNoSigpipe) {
    ScriptServer server([](ServerConnection& c) {
        if (c.readHead().empty()) return;
        c.reset();
    });
    std::string body = letters(32 * 1024 * 1024);
    EXPECT_EQ(channel.httpPost(server.url("/upload").c_str(), nullptr, &body[0], false), kSendFailed);
    EXPECT_EQ(channel.getErrorCode(nullptr, 0), kSendFailed);
    EXPECT_EQ(gSigpipes, 0);
    expectHostHandler(currentDisposition());
}

}  // namespace
