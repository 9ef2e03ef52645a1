// Micro-benchmarks of the per-response and per-byte code that runs without a
// socket: the response-head parser, the chunked decoder (webChannel::dump in
// chunked mode), and the request builder.
//
//   build/bench/micro                                  all of them
//   build/bench/micro --benchmark_filter=Chunked       the decoder only
//
// The decoder writes to /dev/null through a FILE*, as a worker writes to its
// target, so its figures include stdio but no disk. Bytes per second count
// the wire bytes handed to the decoder (sizes, CR LFs and data).
#include <benchmark/benchmark.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "channel/webChannel.h"
#include "http/body.h"
#include "http/response.h"

namespace {

// ---------------------------------------------------------------------------
// Response heads as the batch sees them

// What nginx answers to a range request of a batch piece.
const std::string kRangeHead =
    "HTTP/1.1 206 Partial Content\r\n"
    "Server: nginx/1.22.1\r\n"
    "Date: Mon, 06 Jan 2025 10:00:00 GMT\r\n"
    "Content-Type: application/octet-stream\r\n"
    "Content-Length: 134217728\r\n"
    "Last-Modified: Mon, 06 Jan 2025 09:00:00 GMT\r\n"
    "Connection: keep-alive\r\n"
    "ETag: \"677b9b50-40000000\"\r\n"
    "Content-Range: bytes 0-134217727/1073741824\r\n"
    "\r\n";

// A chunked answer of a dynamic server, with cookies and cache headers.
const std::string kChunkedHead =
    "HTTP/1.1 200 OK\r\n"
    "Server: example-app/3.4\r\n"
    "Date: Mon, 06 Jan 2025 10:00:00 GMT\r\n"
    "Content-Type: text/html; charset=utf-8\r\n"
    "Transfer-Encoding: chunked\r\n"
    "Connection: keep-alive\r\n"
    "Cache-Control: private, max-age=0, no-cache\r\n"
    "Set-Cookie: session=4f0c7d2a9b1e4c3f8a6d5e2b1c0f9e8d; Path=/; HttpOnly\r\n"
    "Set-Cookie: theme=dark; Path=/\r\n"
    "Vary: Accept-Encoding\r\n"
    "X-Request-Id: 1c2d3e4f-5a6b-7c8d-9e0f-a1b2c3d4e5f6\r\n"
    "Strict-Transport-Security: max-age=31536000\r\n"
    "\r\n";

// A redirect: the parse ends at the location.
const std::string kRedirectHead =
    "HTTP/1.1 302 Found\r\n"
    "Server: nginx/1.22.1\r\n"
    "Date: Mon, 06 Jan 2025 10:00:00 GMT\r\n"
    "Content-Type: text/html\r\n"
    "Content-Length: 145\r\n"
    "Connection: keep-alive\r\n"
    "Location: http://127.0.0.1:8080/mirror/files/big.bin\r\n"
    "\r\n";

// A head followed by body bytes, as the first read of a response brings it:
// the parser and findHeadEnd see the whole text up to the first NUL.
std::string withBody(const std::string& head, size_t bodyBytes) {
    std::string text = head;
    for (size_t i = 0; i < bodyBytes; ++i) text.push_back((char)('a' + i % 26));
    return text;
}

const std::string& headFor(int which) {
    static const std::string* const kHeads[] = {&kRangeHead, &kChunkedHead, &kRedirectHead};
    return *kHeads[which];
}

const char* headName(int which) {
    static const char* const kNames[] = {"range206", "chunked200", "redirect302"};
    return kNames[which];
}

void BM_ParseResponseHead(benchmark::State& state) {
    const std::string& head = headFor((int)state.range(0));
    state.SetLabel(headName((int)state.range(0)));
    ResponseHead parsed;
    for (auto _ : state) {
        parseResponseHead(head, true, parsed);
        benchmark::DoNotOptimize(parsed);
    }
    state.SetBytesProcessed((int64_t)state.iterations() * (int64_t)head.size());
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_ParseResponseHead)->Arg(0)->Arg(1)->Arg(2);

void BM_FindHeadEnd(benchmark::State& state) {
    const std::string text = withBody(kRangeHead, 16000);
    for (auto _ : state) benchmark::DoNotOptimize(findHeadEnd(text));
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_FindHeadEnd);

// The member the segment download calls: the pure parse plus the channel's
// bookkeeping (parameter lock for cookie capture, response length, redirect
// target into the connection record).
void BM_ParseHttpResponseHeader(benchmark::State& state) {
    const std::string& head = headFor((int)state.range(0));
    state.SetLabel(headName((int)state.range(0)));
    webChannel channel;
    webChannel::connection conn(0x0100007f, "127.0.0.1", "8080", false);
    int code = 0;
    long long headerLength = 0, contentLength = 0;
    ResponseHead details;
    for (auto _ : state) {
        int mode = channel.parseHttpResponseHeader(head, code, headerLength, contentLength, &conn, &details);
        benchmark::DoNotOptimize(mode);
        benchmark::DoNotOptimize(headerLength);
        conn.location.clear();
    }
    state.SetBytesProcessed((int64_t)state.iterations() * (int64_t)head.size());
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_ParseHttpResponseHeader)->Arg(0)->Arg(1)->Arg(2);

// ---------------------------------------------------------------------------
// Chunked decoding

constexpr size_t kDecodeBuffer = 512 * 1024;

// Chunked wire text of exactly `total` bytes made of chunks of `chunk` data
// bytes each (the last one shortened to fit), without the final 0 chunk.
// `payload` receives the number of data bytes.
std::string chunkedText(size_t total, size_t chunk, size_t& payload) {
    std::string text;
    text.reserve(total);
    payload = 0;
    unsigned seed = 12345;
    while (text.size() < total) {
        size_t room = total - text.size();
        char line[32];
        int lineLength = snprintf(line, sizeof line, "%zx\r\n", chunk);
        size_t size = chunk;
        if ((size_t)lineLength + size + 2 > room) {
            // Shorten the last chunk so that the text ends exactly at `total`;
            // its size line may get shorter, so search downwards.
            size = room > 5 ? room - 5 : 0;
            while (size > 0) {
                lineLength = snprintf(line, sizeof line, "%zx\r\n", size);
                if ((size_t)lineLength + size + 2 == room) break;
                --size;
            }
            if (size == 0) break;  // too little room for a data byte: end a few bytes short
        }
        text.append(line, (size_t)lineLength);
        for (size_t i = 0; i < size; ++i) {
            seed = seed * 1103515245u + 12345u;
            text.push_back((char)(seed >> 16));
        }
        text.append("\r\n");
        payload += size;
    }
    return text;
}

FILE* openNull() {
    FILE* sink = fopen("/dev/null", "wb");
    if (sink == nullptr) {
        perror("/dev/null");
        abort();
    }
    return sink;
}

// One call of the decoder over a 512 KiB buffer that holds whole chunks:
// the best case, one read that brought a full buffer.
void BM_ChunkedDecode(benchmark::State& state) {
    const size_t chunk = (size_t)state.range(0);
    size_t payload = 0;
    std::string text = chunkedText(kDecodeBuffer, chunk, payload);
    std::vector<char> buffer(text.begin(), text.end());
    buffer.push_back(0);
    const long long length = (long long)text.size();
    FILE* sink = openNull();
    webChannel channel;
    webChannel::httpGetJob job;

    // One checked call first: the decoder must take every data byte.
    {
        long long offset = 0, remaining = 1;
        int result = channel.dump(sink, buffer.data(), length, offset, remaining, kChunked, &job);
        if (result != kOk || job.downloaded != (long long)payload || offset != 0) {
            state.SkipWithError("decoder did not take the buffer whole");
            fclose(sink);
            return;
        }
    }
    for (auto _ : state) {
        long long offset = 0, remaining = 1;
        int result = channel.dump(sink, buffer.data(), length, offset, remaining, kChunked, &job);
        benchmark::DoNotOptimize(result);
    }
    fclose(sink);
    state.SetBytesProcessed((int64_t)state.iterations() * length);
    state.counters["payload_share"] = (double)payload / (double)length;
}
BENCHMARK(BM_ChunkedDecode)->RangeMultiplier(4)->Range(16, 256 << 10);

// The decoder as a worker drives it: the stream arrives in reads of
// `read` bytes (16 KiB: one TLS record; 64 KiB: a plain socket read), each
// appended behind the bytes the decoder carried over, exactly as the
// segment download does. Includes the copy a read makes.
void BM_ChunkedDecodeStream(benchmark::State& state) {
    const size_t chunk = (size_t)state.range(0);
    const size_t readSize = (size_t)state.range(1);
    constexpr size_t kStream = 8u << 20;
    size_t payload = 0;
    std::string text = chunkedText(kStream, chunk, payload);
    text.append("0\r\n\r\n");
    std::vector<char> buffer(kBufferSlice);
    FILE* sink = openNull();
    webChannel channel;
    webChannel::httpGetJob job;

    auto decodeAll = [&]() -> bool {
        long long offset = 0, remaining = 1;
        size_t position = 0;
        job.downloaded = 0;
        while (position < text.size() && remaining > 0) {
            size_t room = (size_t)(kMaxRead - offset);
            size_t got = text.size() - position;
            if (got > readSize) got = readSize;
            if (got > room) got = room;
            memcpy(buffer.data() + offset, text.data() + position, got);
            position += got;
            long long start = 0;
            int result = channel.dump(sink, buffer.data(), offset + (long long)got, start, remaining, kChunked, &job);
            if (result != kOk) return false;
            offset = start;
        }
        return remaining == 0 && job.downloaded == (long long)payload;
    };
    if (!decodeAll()) {
        state.SkipWithError("decoder lost bytes");
        fclose(sink);
        return;
    }
    for (auto _ : state) benchmark::DoNotOptimize(decodeAll());
    fclose(sink);
    state.SetBytesProcessed((int64_t)state.iterations() * (int64_t)text.size());
}
BENCHMARK(BM_ChunkedDecodeStream)
    ->ArgsProduct({{16, 256, 4096, 65536, 256 << 10}, {16 << 10, 64 << 10}})
    ->Unit(benchmark::kMicrosecond);

// For comparison: the plain (identity) body path over the same buffer.
void BM_PlainDump(benchmark::State& state) {
    std::vector<char> buffer(kDecodeBuffer, 'x');
    FILE* sink = openNull();
    webChannel channel;
    webChannel::httpGetJob job;
    for (auto _ : state) {
        long long offset = 0, remaining = (long long)buffer.size();
        int result = channel.dump(sink, buffer.data(), (long long)buffer.size(), offset, remaining, 0, &job);
        benchmark::DoNotOptimize(result);
    }
    fclose(sink);
    state.SetBytesProcessed((int64_t)state.iterations() * (int64_t)buffer.size());
}
BENCHMARK(BM_PlainDump);

// The chunk-size scan alone.
void BM_ScanChunkSize(benchmark::State& state) {
    const char line[] = "1a2b3c;name=value\r\n";
    for (auto _ : state) benchmark::DoNotOptimize(scanChunkSize(line, sizeof line - 1));
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_ScanChunkSize);

// ---------------------------------------------------------------------------
// Request text

// The request of one batch piece, built as the segment download builds it:
// absolute target, Host, Range, and the job's access parameters.
void BM_RequestBuild(benchmark::State& state) {
    const bool withParams = state.range(0) != 0;
    state.SetLabel(withParams ? "auth+cookie+no-cache" : "plain");
    AccessParams params;
    if (withParams) {
        params[kParamUser] = "alice";
        params[kParamPassword] = "s3cret-passw0rd";
        params[kParamCookie] = "session=4f0c7d2a9b1e4c3f8a6d5e2b1c0f9e8d";
        params[kParamNoCache] = "1";
    }
    const std::string host = "127.0.0.1";
    const std::string port = "8080";
    const std::string path = "/data/files/big-0001.bin";
    size_t bytes = 0;
    for (auto _ : state) {
        webChannel::httpRequest request("GET", host + ":" + port, "http://" + host + ":" + port + path, nullptr,
                                        &params);
        char range[64];
        snprintf(range, sizeof range, "bytes=%lld-%lld", 134217728LL, 268435455LL);
        request.headers["Range"] = range;
        std::string text = request.str();
        bytes = text.size();
        benchmark::DoNotOptimize(text);
    }
    state.SetItemsProcessed(state.iterations());
    state.counters["request_bytes"] = (double)bytes;
}
BENCHMARK(BM_RequestBuild)->Arg(0)->Arg(1);

// str() alone on a built request.
void BM_RequestStr(benchmark::State& state) {
    AccessParams params;
    params[kParamCookie] = "session=4f0c7d2a9b1e4c3f8a6d5e2b1c0f9e8d";
    webChannel::httpRequest request("GET", "127.0.0.1:8080", "http://127.0.0.1:8080/data/files/big-0001.bin", nullptr,
                                    &params);
    request.headers["Range"] = "bytes=134217728-268435455";
    for (auto _ : state) {
        std::string text = request.str();
        benchmark::DoNotOptimize(text);
    }
    state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_RequestStr);

// ---------------------------------------------------------------------------
// Channel start-up and the job list

// A fresh channel's first init(8): worker buffers and the TLS context. The
// channel is made and destroyed outside the timing.
void BM_InitEightWorkers(benchmark::State& state) {
    for (auto _ : state) {
        state.PauseTiming();
        auto* channel = new webChannel;
        state.ResumeTiming();
        benchmark::DoNotOptimize(channel->init(8));
        state.PauseTiming();
        delete channel;
        state.ResumeTiming();
    }
}
BENCHMARK(BM_InitEightWorkers)->Unit(benchmark::kMicrosecond);

// addJob with the size and digest known, the way a manifest adds its files;
// per job, in a list of 4096. The targets go to a scratch directory in
// memory (tmpfs), so that the figure is the library's work and the system
// calls it makes, not the disk's journal.
void BM_AddJob(benchmark::State& state) {
    char dir[] = "/dev/shm/webchannel-bench-XXXXXX";
    if (mkdtemp(dir) == nullptr) return state.SkipWithError("mkdtemp");
    const std::string digest(64, 'a');
    std::vector<std::string> urls, files;
    for (int i = 0; i < 4096; ++i) {
        urls.push_back("http://127.0.0.1:8080/small/f" + std::to_string(i) + ".bin");
        files.push_back(std::string(dir) + "/f" + std::to_string(i) + ".bin");
    }
    for (auto _ : state) {
        state.PauseTiming();
        auto* channel = new webChannel;
        channel->init(8);
        state.ResumeTiming();
        for (int i = 0; i < 4096; ++i)
            channel->addJob(urls[i].c_str(), files[i].c_str(), 16384, digest.c_str(), "sha256");
        state.PauseTiming();
        delete channel;
        for (const std::string& file : files) std::remove(file.c_str());
        state.ResumeTiming();
    }
    rmdir(dir);
    state.SetItemsProcessed(state.iterations() * 4096);
}
BENCHMARK(BM_AddJob)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
