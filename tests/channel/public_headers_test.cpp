// The public headers stand on their own: this file includes them before
// anything else, so a header that needs something from the source tree, or
// a standard header it does not include itself, breaks the build.
#include "VRAXSecureWebChannel.h"
#include "util/webutil.h"

#include <gtest/gtest.h>

#include <cstring>
#include <type_traits>

namespace {

TEST(PublicHeaders, InterfaceIsAbstractWithAVirtualDestructor) {
    EXPECT_TRUE(std::is_abstract<VRAXSecureWebChannel>::value);
    EXPECT_TRUE(std::has_virtual_destructor<VRAXSecureWebChannel>::value);
}

// Slot order is the ABI: a host compiled against the header calls slot n of
// the table in the library. Checked through the Itanium layout of the
// vtable: the address of each member's slot.
template <typename F>
size_t slotOf(F member) {
    static_assert(sizeof(F) == 2 * sizeof(void*), "pointer to member function");
    struct Raw {
        size_t ptr;
        size_t adj;
    } raw;
    memcpy(&raw, &member, sizeof(raw));
    return (raw.ptr - 1) / sizeof(void*);  // virtual: offset into the table + 1
}

TEST(PublicHeaders, SlotsFollowTheDocumentedOrder) {
    using C = VRAXSecureWebChannel;
    EXPECT_EQ(slotOf(&C::setLog), 0u);
    EXPECT_EQ(slotOf(&C::init), 1u);
    EXPECT_EQ(slotOf(&C::setProxy), 2u);
    EXPECT_EQ(slotOf(static_cast<const char* (C::*)(const char*)>(&C::resolveProxy)), 3u);
    EXPECT_EQ(slotOf(&C::setHandler), 4u);
    EXPECT_EQ(slotOf(&C::setParam), 5u);
    EXPECT_EQ(slotOf(&C::getParam), 6u);
    EXPECT_EQ(slotOf(&C::getNextDownloadedFile), 7u);
    EXPECT_EQ(slotOf(&C::getErrorCode), 8u);
    EXPECT_EQ(slotOf(static_cast<int (C::*)(const char*, const char*)>(&C::httpGet)), 9u);
    EXPECT_EQ(slotOf(static_cast<int (C::*)(const char*)>(&C::httpGet)), 10u);
    EXPECT_EQ(slotOf(&C::httpGet_c), 11u);
    EXPECT_EQ(slotOf(&C::httpPost), 12u);
    EXPECT_EQ(slotOf(&C::httpResponse), 13u);
    EXPECT_EQ(slotOf(&C::addJob), 14u);
    EXPECT_EQ(slotOf(&C::addJob_c), 15u);
    EXPECT_EQ(slotOf(&C::httpMultiGet), 16u);
    EXPECT_EQ(slotOf(&C::removeJob), 17u);
    EXPECT_EQ(slotOf(&C::isValid), 18u);
    EXPECT_EQ(slotOf(&C::isValid_c), 19u);
    EXPECT_EQ(slotOf(&C::close), 20u);
}

TEST(PublicHeaders, EveryCodeHasWords) {
    for (int code : {wc::kOk, wc::kAlreadyPresent, wc::kChunked, wc::kRepeat, wc::kInvalidArgument,
                     wc::kBadChunkSize, wc::kMalformedResponse, wc::kProxyUnusable, wc::kSocketCreate,
                     wc::kConnectFailed, wc::kTunnelSendShort, wc::kTunnelRefused, wc::kTlsSetup, wc::kTlsHandshake,
                     wc::kSendFailed, wc::kReadFailed, wc::kBadStatus, wc::kUnsupportedCoding, wc::kFileWrite,
                     wc::kCancelled, wc::kPeerClosed, wc::kTooManyAttempts, wc::kChecksumMismatch})
        EXPECT_STRNE(wc::resultText(code), wc::resultText(12345)) << code;
}

}  // namespace
