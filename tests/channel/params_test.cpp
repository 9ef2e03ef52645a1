// Channel and job parameters.
#include <gtest/gtest.h>

#include "channel/webChannel.h"

namespace {

class Params : public ::testing::Test {
protected:
    webChannel channel;
    std::string value;
};

TEST_F(Params, JobParametersNeedAJobAndGoToTheLastOne) {
    channel.setParam(kParamUser, "u", false);
    EXPECT_FALSE(channel.getParam(kParamUser, value, false));
    channel.m_httpGetJobs.emplace_back("http://h:1/a");
    channel.m_httpGetJobs.emplace_back("http://h:1/b");
    channel.setParam(kParamUser, "u", false);
    channel.setParam(kParamUser, nullptr, false);  // cannot remove a job parameter
    EXPECT_TRUE(channel.getParam(kParamUser, value, false));
    EXPECT_EQ(value, "u");
    EXPECT_TRUE(channel.m_httpGetJobs.front().params.empty());
    EXPECT_FALSE(channel.getParam(kParamUser, value, true));
}

TEST_F(Params, ChannelParametersAreReplacedAndRemoved) {
    channel.setParam(kParamTimeout, "5", true);
    channel.setParam(kParamTimeout, "6", true);
    EXPECT_TRUE(channel.getParam(kParamTimeout, value, true));
    EXPECT_EQ(value, "6");
    channel.setParam(kParamTimeout, nullptr, true);
    value = "unchanged";
    EXPECT_FALSE(channel.getParam(kParamTimeout, value, true));
    EXPECT_EQ(value, "unchanged");
    channel.setParam(99999, "any id is stored", true);
    EXPECT_TRUE(channel.getParam(99999, value, true));
}

TEST_F(Params, RemovingTheCookieSwitchRemovesTheCookie) {
    channel.setParam(kParamCookieCapture, "", true);
    channel.setParam(kParamCookie, "c=1", true);
    channel.setParam(kParamCookie, nullptr, true);
    EXPECT_TRUE(channel.getParam(kParamCookieCapture, value, true));
    channel.setParam(kParamCookie, "c=1", true);
    channel.setParam(kParamCookieCapture, nullptr, true);
    EXPECT_FALSE(channel.getParam(kParamCookieCapture, value, true));
    EXPECT_FALSE(channel.getParam(kParamCookie, value, true));
}

TEST_F(Params, RemovalOfTheSwitchGoesThroughTheInterface) {
    // A host's override of setParam sees the cookie's removal too.
    struct Recording : webChannel {
        std::vector<int> removed;
        void setParam(int id, const char* v, bool channel) override {
            if (v == nullptr) removed.push_back(id);
            webChannel::setParam(id, v, channel);
        }
    } recording;
    recording.setParam(kParamCookieCapture, nullptr, true);
    EXPECT_EQ(recording.removed, (std::vector<int>{kParamCookieCapture, kParamCookie}));
}

TEST_F(Params, TimeoutFallsBackToThreeHundredSeconds) {
    EXPECT_EQ(channel.getProxyTimeout(), 300);
    for (const char* bad : {"0", "-5", "abc", ""}) {
        channel.setParam(kParamTimeout, bad, true);
        EXPECT_EQ(channel.getProxyTimeout(), 300) << bad;
    }
    channel.setParam(kParamTimeout, "45", true);
    EXPECT_EQ(channel.getProxyTimeout(), 45);
}

}  // namespace
