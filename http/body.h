// Chunked transfer coding: the chunk-size scan, a pure function over the
// received bytes.
#ifndef WEBCHANNEL_HTTP_BODY_H
#define WEBCHANNEL_HTTP_BODY_H

#include <cstddef>

struct ChunkSize {
    enum Status { kComplete, kIncomplete, kOutOfRange };
    Status status = kIncomplete;
    long long size = 0;  // value read; 0 when no hex digit was found
    size_t end = 0;      // index just past what was read (the start when nothing was)
};

// Reads a chunk size the way strtol(text, &end, 16) would (leading white
// space, a sign, an optional "0x", hex digits), but never past `length`:
// when the bytes run out before the number has ended, the status is
// kIncomplete and more bytes are needed. Negative sizes and sizes of
// 0x7ffffffffffffffd or more are kOutOfRange.
ChunkSize scanChunkSize(const char* text, size_t length);

// Where the rest of a chunked body (the last chunk's size line, trailer
// lines, the final empty line) ends in `text`, which starts at the last
// chunk's size line; 0 when it does not end within `length` bytes.
size_t chunkedTailEnd(const char* text, size_t length);

// Told of every run of body bytes once it is in the target file: `fd` is the
// target's descriptor, `offset` where the run starts in the file.
class BodyObserver {
public:
    virtual void written(int fd, long long offset, const char* data, size_t size) = 0;

protected:
    virtual ~BodyObserver() = default;
};

#endif
