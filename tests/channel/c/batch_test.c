/* The C interface from a C99 program: what only it can get wrong, the
 * caller's buffers (cut whole characters, lengths), the progress callback's
 * user pointer, a null handle, the wrappers of a GET and a batch in which one
 * file verifies and one fails its digest. Usage: batch_test TEST_ENV_DIR */
#define _POSIX_C_SOURCE 200809L

#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include "webchannel.h"

static int failures = 0;
#define CHECK(condition) \
    ((condition) ? (void)0 : (void)(fprintf(stderr, "%s:%d: failed: %s\n", __FILE__, __LINE__, #condition), ++failures))

static const char* kHelloSha256 = "2cf24dba5fb0a30e26e83b2ac5b9e29e1b161e5c1fa7425e73043362938b9824";

/* Several workers report at once: kept under a lock. */
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
    char port[16] = "", line[4096], dir[4096], url[4096], text[64], targets[2][4096];
    FILE* env = NULL;
    if (argc == 2 && snprintf(dir, sizeof dir, "%s/peers.env", argv[1]) > 0) env = fopen(dir, "r");
    while (env != NULL && fgets(line, sizeof line, env) != NULL)
        if (strncmp(line, "HTTP_PORT=", 10) == 0)
            snprintf(port, sizeof port, "%.*s", (int)strspn(line + 10, "0123456789"), line + 10);
    snprintf(dir, sizeof dir, "%s/scratch", argc == 2 ? argv[1] : ".");
    mkdir(dir, 0755); /* made by an earlier test, or now; mkdtemp tells */
    strcat(dir, "/c_interface-XXXXXX");
    if (env == NULL || port[0] == 0 || mkdtemp(dir) == NULL) {
        fprintf(stderr, "usage: %s TEST_ENV_DIR (with HTTP_PORT in its peers.env)\n", argv[0]);
        return 2;
    }
    fclose(env);

    CHECK(webchannel_init(NULL, 1) == -3000);
    webchannel* channel = webchannel_create();
    CHECK(channel != NULL);
    if (channel == NULL) return 1;
    CHECK(webchannel_init(channel, 2) == 0);
    CHECK(webchannel_set_param(channel, 3016, "5", 1) == 0); /* transfer time-out, seconds */

    /* A GET into memory: the body after the blank line that ended the head. */
    size_t length = 0;
    long long announced = 0;
    snprintf(url, sizeof url, "http://127.0.0.1:%s/five.bin", port);
    CHECK(webchannel_get(channel, url) == 0);
    CHECK(webchannel_response(channel, text, sizeof text, &length, &announced) == 0);
    CHECK(strcmp(text, "\r\n\r\nhello") == 0 && length == 9 && announced == 5);

    /* five.bin verifies; k256.bin is given five.bin's digest. */
    const char* names[] = {"five.bin", "k256.bin"};
    struct Reports reports = {PTHREAD_MUTEX_INITIALIZER, 0, 0};
    CHECK(webchannel_set_progress(channel, onProgress, &reports) == 0);
    for (int i = 0; i < 2; ++i) {
        snprintf(targets[i], sizeof targets[i], "%s/%s", dir, names[i]);
        snprintf(url, sizeof url, "http://127.0.0.1:%s/%s", port, names[i]);
        CHECK(webchannel_add_job(channel, url, targets[i], 0, kHelloSha256, "sha256") == 0);
    }
    CHECK(webchannel_run_batch(channel, 1) == 1);
    CHECK(webchannel_next_downloaded(channel) == 0 && webchannel_next_downloaded(channel) == -1);
    CHECK(reports.calls > 0 && reports.mostFinished == 1);
    CHECK(webchannel_set_progress(channel, NULL, NULL) == 0);

    /* The error, cut to a small buffer and whole; its length alone. */
    char small[8], whole[4096], expected[4200];
    size_t cutLength = 0, wholeLength = 0, bareLength = 0;
    CHECK(webchannel_error(channel, small, sizeof small, &cutLength) == -3061);
    CHECK(webchannel_error(channel, whole, sizeof whole, &wholeLength) == -3061);
    CHECK(webchannel_error(channel, NULL, 0, &bareLength) == -3061);
    snprintf(expected, sizeof expected, "%s: %s", webchannel_result_text(-3061), targets[1]);
    CHECK(strcmp(whole, expected) == 0 && wholeLength == strlen(expected) && bareLength == wholeLength);
    CHECK(cutLength == wholeLength && strlen(small) == 7 && strncmp(small, expected, 7) == 0);

    /* A parameter's value: cut before a two-byte character it cannot hold whole, then whole, then removed. */
    CHECK(webchannel_set_param(channel, 3018, "ab\xC3\xA9", 1) == 0);
    CHECK(webchannel_get_param(channel, 3018, 1, text, 4, &length) == 1 && strcmp(text, "ab") == 0 && length == 4);
    CHECK(webchannel_get_param(channel, 3018, 1, text, 5, &length) == 1 && strcmp(text, "ab\xC3\xA9") == 0);
    CHECK(webchannel_set_param(channel, 3018, NULL, 1) == 0);
    CHECK(webchannel_get_param(channel, 3018, 1, text, sizeof text, &length) == 0 && text[0] == 0 && length == 0);

    webchannel_destroy(channel);
    webchannel_destroy(NULL);
    if (failures == 0) remove(targets[0]), remove(targets[1]), rmdir(dir);
    printf("%s: %d failed check(s)\n", argv[0], failures);
    return failures == 0 ? 0 : 1;
}
