// A minimal host built against the installed library (see CMakeLists.txt
// here, or pkg-config): it creates the channel, initialises it, prints the
// words for a result code and releases the channel. (batch.c here is a C
// host of the plain C interface.)
#include <cstdio>

#include "VRAXSecureWebChannel.h"  // include/webchannel/channel
#include "util/webutil.h"          // include/webchannel: the utility library
#include "webchannel.h"            // the C interface compiles as C++ too

int main() {
    VRAXSecureWebChannel* channel = VRAXSecureWebChannelCreate();
    if (channel == nullptr) {
        fprintf(stderr, "no channel\n");
        return 1;
    }
    int result = channel->init(2);
    printf("init: %d (%s)\n", result, wc::resultText(result));
    printf("code %d: %s\n", wc::kChecksumMismatch, wc::resultText(wc::kChecksumMismatch));
    printf("basename: %s\n", get_basename("/data/big.iso").c_str());
    printf("C interface: %s\n", webchannel_result_text(wc::kChecksumMismatch));
    VRAXSecureWebChannelDestroy(channel);
    return result == wc::kOk ? 0 : 1;
}
