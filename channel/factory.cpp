// The two exported factory functions and the process-wide instance.
#include "channel/globals.h"
#include "channel/webChannel.h"

webChannel* gInstance = nullptr;
uint32_t gRefCnt = 0;

extern "C" WEBCHANNEL_EXPORT VRAXSecureWebChannel* VRAXSecureWebChannelCreate() {
    if (gRefCnt == 0) gInstance = new webChannel();
    ++gRefCnt;
    return gInstance;
}

extern "C" WEBCHANNEL_EXPORT void VRAXSecureWebChannelDestroy(VRAXSecureWebChannel* channel) {
    // The pointer only says "one reference less"; it is never compared with
    // the instance.
    if (channel == nullptr) return;
    if (gRefCnt == 1) {
        if (webChannel::logging()) webChannel::log("VRAXSecureWebChannelDestroy: destroying WebChannel instance");
        delete gInstance;
        gInstance = nullptr;
        gRefCnt = 0;
    } else if (gRefCnt > 1) {
        --gRefCnt;
        if (webChannel::logging()) webChannel::log("VRAXSecureWebChannelDestroy: references remaining: %d", (int)gRefCnt);
    }
}
