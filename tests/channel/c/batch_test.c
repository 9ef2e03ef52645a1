/* The C interface from a C99 program: a GET into memory, then a small batch
 * against the test nginx in which three files verify and one fails its
 * digest, with the progress callback's user pointer; the rules for the
 * caller's buffers; a null handle. Usage: batch_test TEST_ENV_DIR */
#define _POSIX_C_SOURCE 200809L

#include <openssl/evp.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "webchannel.h"

static int failures = 0;
#define CHECK(condition)                                                                  \
    do {                                                                                  \
        if (!(condition)) {                                                               \
            fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__, #condition); \
            ++failures;                                                                   \
        }                                                                                 \
    } while (0)

/* The whole file in a NUL-terminated block; exits when it cannot be read. */
static char* readFile(const char* path, long* length) {
    FILE* file = fopen(path, "rb");
    char* data = NULL;
    if (file != NULL && fseek(file, 0, SEEK_END) == 0 && (*length = ftell(file)) >= 0 && fseek(file, 0, SEEK_SET) == 0 &&
        (data = malloc((size_t)*length + 1)) != NULL && fread(data, 1, (size_t)*length, file) == (size_t)*length) {
        data[*length] = 0;
        fclose(file);
        return data;
    }
    fprintf(stderr, "cannot read %s\n", path);
    exit(1);
}

/* True when both files hold the same bytes. */
static int sameFile(const char* a, const char* b) {
    long lengthA = 0, lengthB = 0;
    char* dataA = readFile(a, &lengthA);
    char* dataB = readFile(b, &lengthB);
    int same = lengthA == lengthB && memcmp(dataA, dataB, (size_t)lengthA) == 0;
    free(dataA);
    free(dataB);
    return same;
}

static void sha256Hex(const char* path, char hex[65]) {
    long length = 0;
    char* data = readFile(path, &length);
    unsigned char digest[32];
    unsigned size = 0;
    CHECK(EVP_Digest(data, (size_t)length, digest, &size, EVP_sha256(), NULL) == 1 && size == 32);
    for (int i = 0; i < 32; ++i) sprintf(hex + 2 * i, "%02x", digest[i]);
    free(data);
}

/* The value of NAME= in peers.env, or exit. */
static void peerValue(const char* env, const char* name, char* value, size_t size) {
    char path[4096], line[4096];
    snprintf(path, sizeof path, "%s/peers.env", env);
    FILE* file = fopen(path, "r");
    size_t nameLength = strlen(name);
    while (file != NULL && fgets(line, sizeof line, file) != NULL) {
        if (strncmp(line, name, nameLength) != 0 || line[nameLength] != '=') continue;
        line[strcspn(line, "\n")] = 0;
        snprintf(value, size, "%s", line + nameLength + 1);
        fclose(file);
        return;
    }
    fprintf(stderr, "no %s in %s\n", name, path);
    exit(1);
}

/* Several workers report at once: the count is kept under a lock. */
struct Reports {
    pthread_mutex_t lock;
    int calls, mostFinished;
};

static int onProgress(int finished, long long done, long long total, int job, void* user) {
    struct Reports* reports = user;
    (void)done, (void)total, (void)job;
    pthread_mutex_lock(&reports->lock);
    ++reports->calls;
    if (finished > reports->mostFinished) reports->mostFinished = finished;
    pthread_mutex_unlock(&reports->lock);
    return 0;
}

int main(int argc, char** argv) {
    if (argc != 2) {
        fprintf(stderr, "usage: %s TEST_ENV_DIR\n", argv[0]);
        return 2;
    }
    char port[16], www[2048], dir[2048];
    peerValue(argv[1], "HTTP_PORT", port, sizeof port);
    peerValue(argv[1], "WWW", www, sizeof www);
    snprintf(dir, sizeof dir, "%s/scratch", argv[1]);
    mkdir(dir, 0755); /* made by an earlier test, or now; mkdtemp tells */
    snprintf(dir, sizeof dir, "%s/scratch/c_interface-XXXXXX", argv[1]);
    if (mkdtemp(dir) == NULL) {
        perror(dir);
        return 1;
    }

    CHECK(webchannel_init(NULL, 1) == -3000);
    webchannel* channel = webchannel_create();
    CHECK(channel != NULL);
    if (channel == NULL) return 1;
    CHECK(webchannel_init(channel, 4) == 0);
    CHECK(webchannel_set_param(channel, 3016, "5", 1) == 0); /* transfer time-out, seconds */

    /* A GET into memory: the body after the blank line that ended the head. */
    char url[4096], text[64];
    size_t length = 0;
    long long announced = 0;
    snprintf(url, sizeof url, "http://127.0.0.1:%s/five.bin", port);
    CHECK(webchannel_get(channel, url) == 0);
    CHECK(webchannel_response(channel, text, sizeof text, &length, &announced) == 0);
    CHECK(strcmp(text, "\r\n\r\nhello") == 0 && length == 9 && announced == 5);

    /* Three files that verify, and one whose digest is another file's. */
    const char* names[] = {"five.bin", "k256p1.bin", "m1.bin", "k256.bin"};
    char sources[4][4096], targets[4][4096], digest[65];
    struct Reports reports = {PTHREAD_MUTEX_INITIALIZER, 0, 0};
    CHECK(webchannel_set_progress(channel, onProgress, &reports) == 0);
    for (int i = 0; i < 4; ++i) {
        snprintf(sources[i], sizeof sources[i], "%s/%s", www, names[i]);
        snprintf(targets[i], sizeof targets[i], "%s/%s", dir, names[i]);
        snprintf(url, sizeof url, "http://127.0.0.1:%s/%s", port, names[i]);
        sha256Hex(sources[i == 3 ? 0 : i], digest);
        CHECK(webchannel_add_job(channel, url, targets[i], 0, digest, "sha256") == 0);
    }
    CHECK(webchannel_run_batch(channel, 1) == 1);
    int handed[4] = {0, 0, 0, 0};
    for (int i = 0, job; i < 5 && (job = webchannel_next_downloaded(channel)) >= 0; ++i) {
        CHECK(job < 3);
        if (job >= 0 && job < 4) ++handed[job];
    }
    for (int i = 0; i < 3; ++i) CHECK(handed[i] == 1 && sameFile(targets[i], sources[i]));
    CHECK(handed[3] == 0);
    CHECK(reports.calls > 0 && reports.mostFinished >= 1);
    CHECK(webchannel_set_progress(channel, NULL, NULL) == 0);

    /* The error, cut to a small buffer and whole; its length alone. */
    char small[8], whole[4096], expected[4200];
    size_t cutLength = 0, wholeLength = 0, bareLength = 0;
    CHECK(webchannel_error(channel, small, sizeof small, &cutLength) == -3061);
    CHECK(webchannel_error(channel, whole, sizeof whole, &wholeLength) == -3061);
    CHECK(webchannel_error(channel, NULL, 0, &bareLength) == -3061);
    snprintf(expected, sizeof expected, "%s: %s", webchannel_result_text(-3061), targets[3]);
    CHECK(strcmp(whole, expected) == 0 && wholeLength == strlen(expected) && bareLength == wholeLength);
    CHECK(cutLength == wholeLength && strlen(small) == 7 && strncmp(small, expected, 7) == 0);

    /* A parameter's value: cut before a two-byte character it cannot hold
     * whole, then whole, then removed. */
    CHECK(webchannel_set_param(channel, 3018, "ab\xC3\xA9", 1) == 0);
    CHECK(webchannel_get_param(channel, 3018, 1, text, 4, &length) == 1 && strcmp(text, "ab") == 0 && length == 4);
    CHECK(webchannel_get_param(channel, 3018, 1, text, 5, &length) == 1 && strcmp(text, "ab\xC3\xA9") == 0);
    CHECK(webchannel_set_param(channel, 3018, NULL, 1) == 0);
    CHECK(webchannel_get_param(channel, 3018, 1, text, sizeof text, &length) == 0 && text[0] == 0 && length == 0);

    webchannel_destroy(channel);
    webchannel_destroy(NULL);
    if (failures == 0) {
        for (int i = 0; i < 4; ++i) remove(targets[i]);
        rmdir(dir);
    }
    printf("%s: %d failed check(s)\n", argv[0], failures);
    return failures == 0 ? 0 : 1;
}
