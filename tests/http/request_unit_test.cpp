// What a job inherits from the channel's access parameters. The request text itself is checked against a plain
// rendering by the fuzz target, and on the wire by the GET, POST and proxy tests.
#include <gtest/gtest.h>

#include "channel/webChannel.h"

namespace {

TEST(AccessParams, MergeInheritsOnlyCookieProxyCredentialsAndNoCache) {
    AccessParams target = {{kParamCookie, "job"}};
    webChannel::mergeAccessParams(target, {{kParamCookie, "channel"},
                                           {kParamProxyAuth, "p"},
                                           {kParamNoCache, ""},
                                           {kParamUser, "u"},
                                           {kParamPassword, "w"},
                                           {kParamTimeout, "5"}});
    EXPECT_EQ(target, (AccessParams{{kParamCookie, "job"}, {kParamProxyAuth, "p"}, {kParamNoCache, ""}}));
}

}  // namespace
