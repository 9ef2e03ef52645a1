// Public interface of the web channel: the abstract channel, the progress
// callback type and the two factory functions exported by libwebchannel.so.
// Hosts include this header (and, for names of codes and parameters,
// webchannel_codes.h); nothing else from the source tree is needed.
#ifndef VRAX_SECURE_WEB_CHANNEL_H
#define VRAX_SECURE_WEB_CHANNEL_H

#include <string>

#include "webchannel_codes.h"
#include "webchannel_export.h"

// Progress callback. Runs on the worker threads of a batch, possibly on
// several at once, so it must be thread-safe. Setting `cancel` to true stops
// the transfer (the batch then ends with -3055).
typedef void (*ProgressHandler)(bool& cancel, int failedJobs, long long bytesDone, long long bytesTotal,
                                int jobIndex, void* userData);

// The slot order of this class is the library's ABI: never reorder, insert or
// remove an operation.
class VRAXSecureWebChannel {
public:
    virtual void setLog(const char* path) = 0;                                   // 1
    virtual int init(unsigned threadNum) = 0;                                    // 2
    virtual int setProxy(const char* httpProxy, const char* httpsProxy) = 0;     // 3
    virtual const char* resolveProxy(const char* url) = 0;                       // 4
    virtual void setHandler(ProgressHandler handler, void* userData) = 0;        // 5
    virtual void setParam(int id, const char* value, bool channel) = 0;          // 6
    virtual bool getParam(int id, std::string& value, bool channel) = 0;         // 7
    virtual int getNextDownloadedFile() = 0;                                     // 8
    virtual int getErrorCode(char* buffer, int size) = 0;                        // 9
    virtual int httpGet(const char* url, const char* file) = 0;                  // 10
    virtual int httpGet(const char* url) = 0;                                    // 11
    virtual int httpGet_c(const char* url, const char* file) = 0;                // 12
    virtual int httpPost(const char* url, char* headers, char* body, bool flag) = 0;  // 13
    virtual const char* httpResponse(long long* length) = 0;                     // 14
    virtual int addJob(const char* url, const char* file, long long size, const char* checksum,
                       const char* algorithm) = 0;                               // 15
    virtual int addJob_c(const char* url, const char* file, long long size, const char* checksum,
                         const char* algorithm) = 0;                             // 16
    virtual int httpMultiGet(bool flag) = 0;                                     // 17
    virtual int removeJob(const char* url) = 0;                                  // 18
    virtual int isValid(const char* file, const char* checksum, const char* algorithm) = 0;    // 19
    virtual int isValid_c(const char* file, const char* checksum, const char* algorithm) = 0;  // 20
    virtual void close() = 0;                                                    // 21
    virtual ~VRAXSecureWebChannel() {}                                           // 22, 23
};

extern "C" {
// Returns the one process-wide channel, creating it on the first call; every
// call counts a reference. Not thread-safe: call from one thread at a time.
WEBCHANNEL_EXPORT VRAXSecureWebChannel* VRAXSecureWebChannelCreate();
// Drops one reference; the last one destroys the channel. Null is ignored.
WEBCHANNEL_EXPORT void VRAXSecureWebChannelDestroy(VRAXSecureWebChannel* channel);
}

// Function-pointer types for hosts that load the library with dlopen.
typedef VRAXSecureWebChannel* (*VRAXSecureWebChannelCreateFn)();
typedef void (*VRAXSecureWebChannelDestroyFn)(VRAXSecureWebChannel*);

#endif
