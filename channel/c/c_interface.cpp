// The plain C interface of webchannel.h: a handle around the channel that the
// factory hands out, and one call through the channel's interface for each
// operation. Nothing here transfers or decides anything on its own.
#include "channel/c/webchannel.h"

#include <cstring>
#include <new>
#include <string>

#include "channel/VRAXSecureWebChannel.h"

struct webchannel {
    VRAXSecureWebChannel* channel = nullptr;
    webchannel_progress progress = nullptr;
    void* user = nullptr;
};

namespace {

// The handle whose relay is the channel's progress handler: destroying that
// handle takes the relay down with it. Handles are made and destroyed from
// one thread at a time, as the factory requires, so this needs no lock.
webchannel* gRelayOwner = nullptr;

// A message longer than this is taken cut: it names a file, so a few
// thousand bytes is already generous.
constexpr size_t kMaxMessage = 1 << 20;

// No C++ exception may reach a C caller: an operation that throws (memory
// exhausted) fails with -3000, like one without a more specific code.
template <typename Call>
int guarded(webchannel* handle, Call call) {
    if (handle == nullptr) return wc::kInvalidArgument;
    try {
        return call(*handle->channel);
    } catch (...) {
        return wc::kInvalidArgument;
    }
}

template <typename Call>
void guardedVoid(webchannel* handle, Call call) {
    guarded(handle, [&](VRAXSecureWebChannel& channel) {
        call(channel);
        return wc::kOk;
    });
}

// The header's rule for a caller's buffer: at most size - 1 bytes and a NUL,
// never ending inside a UTF-8 character, and the whole length reported.
void copyOut(const char* text, size_t textLength, char* buffer, size_t size, size_t* length) {
    if (length != nullptr) *length = textLength;
    if (buffer == nullptr || size == 0) return;
    size_t copied = textLength < size ? textLength : size - 1;
    // A character is at most four bytes: at most three continuation bytes
    // are given back with it.
    for (int i = 0; i < 3 && copied > 0 && copied < textLength && ((unsigned char)text[copied] & 0xC0) == 0x80; ++i)
        --copied;
    memcpy(buffer, text, copied);
    buffer[copied] = 0;
}

void copyOut(const std::string& text, char* buffer, size_t size, size_t* length) {
    copyOut(text.data(), text.size(), buffer, size, length);
}

// The error's code and its whole message. getErrorCode cuts its copy to the
// buffer it is given, so the buffer grows until the message leaves room.
int errorMessage(VRAXSecureWebChannel& channel, std::string& message) {
    std::string buffer(256, '\0');
    for (;;) {
        const int code = channel.getErrorCode(&buffer[0], (int)buffer.size());
        const size_t got = strnlen(buffer.data(), buffer.size());
        if (got + 1 < buffer.size() || buffer.size() >= kMaxMessage) {
            message.assign(buffer.data(), got);
            return code;
        }
        buffer.assign(buffer.size() * 4, '\0');
    }
}

// The channel's progress handler while a C callback is installed.
void relay(bool& cancel, int finished, long long done, long long total, int job, void* data) {
    const webchannel* handle = static_cast<const webchannel*>(data);
    if (handle->progress(finished, done, total, job, handle->user) != 0) cancel = true;
}

}  // namespace

extern "C" {

webchannel* webchannel_create(void) {
    webchannel* handle = new (std::nothrow) webchannel;
    if (handle == nullptr) return nullptr;
    try {
        handle->channel = VRAXSecureWebChannelCreate();
    } catch (...) {
        handle->channel = nullptr;
    }
    if (handle->channel != nullptr) return handle;
    delete handle;
    return nullptr;
}

void webchannel_destroy(webchannel* handle) {
    if (handle == nullptr) return;
    guardedVoid(handle, [&](VRAXSecureWebChannel& channel) {
        if (gRelayOwner == handle) {
            channel.setHandler(nullptr, nullptr);
            gRelayOwner = nullptr;
        }
        VRAXSecureWebChannelDestroy(&channel);
    });
    delete handle;
}

int webchannel_init(webchannel* handle, unsigned workers) {
    return guarded(handle, [&](VRAXSecureWebChannel& channel) { return channel.init(workers); });
}

void webchannel_close(webchannel* handle) {
    guardedVoid(handle, [](VRAXSecureWebChannel& channel) { channel.close(); });
}

void webchannel_set_log(webchannel* handle, const char* path) {
    guardedVoid(handle, [&](VRAXSecureWebChannel& channel) { channel.setLog(path); });
}

int webchannel_set_param(webchannel* handle, int id, const char* value, int on_channel) {
    return guarded(handle, [&](VRAXSecureWebChannel& channel) {
        channel.setParam(id, value, on_channel != 0);
        return wc::kOk;
    });
}

int webchannel_get_param(webchannel* handle, int id, int on_channel, char* buffer, size_t size, size_t* length) {
    return guarded(handle, [&](VRAXSecureWebChannel& channel) {
        std::string value;
        const bool set = channel.getParam(id, value, on_channel != 0);
        copyOut(set ? value : std::string(), buffer, size, length);
        return set ? 1 : 0;
    });
}

int webchannel_set_proxy(webchannel* handle, const char* http_proxy, const char* https_proxy) {
    return guarded(handle, [&](VRAXSecureWebChannel& channel) { return channel.setProxy(http_proxy, https_proxy); });
}

int webchannel_resolve_proxy(webchannel* handle, const char* url, char* buffer, size_t size, size_t* length) {
    return guarded(handle, [&](VRAXSecureWebChannel& channel) {
        const char* proxy = channel.resolveProxy(url);
        copyOut(proxy != nullptr ? proxy : "", proxy != nullptr ? strlen(proxy) : 0, buffer, size, length);
        return proxy != nullptr ? wc::kOk : wc::kInvalidArgument;
    });
}

int webchannel_set_progress(webchannel* handle, webchannel_progress progress, void* user) {
    return guarded(handle, [&](VRAXSecureWebChannel& channel) {
        // The channel has one handler: the handle that installs it last owns it.
        handle->progress = progress;
        handle->user = user;
        channel.setHandler(progress != nullptr ? relay : nullptr, progress != nullptr ? handle : nullptr);
        gRelayOwner = progress != nullptr ? handle : nullptr;
        return wc::kOk;
    });
}

int webchannel_get(webchannel* handle, const char* url) {
    return guarded(handle, [&](VRAXSecureWebChannel& channel) { return channel.httpGet(url); });
}

int webchannel_get_file(webchannel* handle, const char* url, const char* file) {
    return guarded(handle, [&](VRAXSecureWebChannel& channel) { return channel.httpGet(url, file); });
}

int webchannel_post(webchannel* handle, const char* url, const char* headers, const char* body, int reconnect) {
    return guarded(handle, [&](VRAXSecureWebChannel& channel) {
        // The C++ interface takes writable texts; the caller's stay untouched.
        std::string headerText(headers != nullptr ? headers : ""), bodyText(body != nullptr ? body : "");
        return channel.httpPost(url, headers != nullptr ? &headerText[0] : nullptr,
                                body != nullptr ? &bodyText[0] : nullptr, reconnect != 0);
    });
}

int webchannel_response(webchannel* handle, char* buffer, size_t size, size_t* length, long long* content_length) {
    return guarded(handle, [&](VRAXSecureWebChannel& channel) {
        long long announced = 0;
        const char* kept = channel.httpResponse(&announced);
        copyOut(kept != nullptr ? kept : "", kept != nullptr ? strlen(kept) : 0, buffer, size, length);
        if (content_length != nullptr) *content_length = announced;
        return wc::kOk;
    });
}

int webchannel_add_job(webchannel* handle, const char* url, const char* file, long long size, const char* digest,
                       const char* algorithm) {
    return guarded(handle,
                   [&](VRAXSecureWebChannel& channel) { return channel.addJob(url, file, size, digest, algorithm); });
}

int webchannel_remove_job(webchannel* handle, const char* url) {
    return guarded(handle, [&](VRAXSecureWebChannel& channel) { return channel.removeJob(url); });
}

int webchannel_is_valid(webchannel* handle, const char* file, const char* digest, const char* algorithm) {
    return guarded(handle, [&](VRAXSecureWebChannel& channel) { return channel.isValid(file, digest, algorithm); });
}

int webchannel_run_batch(webchannel* handle, int finalize) {
    return guarded(handle, [&](VRAXSecureWebChannel& channel) { return channel.httpMultiGet(finalize != 0); });
}

int webchannel_next_downloaded(webchannel* handle) {
    return guarded(handle, [](VRAXSecureWebChannel& channel) { return channel.getNextDownloadedFile(); });
}

int webchannel_error(webchannel* handle, char* buffer, size_t size, size_t* length) {
    return guarded(handle, [&](VRAXSecureWebChannel& channel) {
        std::string message;
        const int code = errorMessage(channel, message);
        copyOut(message, buffer, size, length);
        return code;
    });
}

const char* webchannel_result_text(int code) {
    return wc::resultText(code);
}

}  // extern "C"
