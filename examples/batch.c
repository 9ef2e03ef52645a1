/* A C host built against the installed library through pkg-config alone:
 *
 *   cc -std=c99 -Wall -Werror batch.c $(pkg-config --cflags --libs webchannel) \
 *      -Wl,-rpath,$(pkg-config --variable=libdir webchannel) -o batch
 *   ./batch URL FILE SHA256 [URL FILE SHA256]...
 *
 * It downloads the files as one verified batch on four workers and says
 * which verified; the exit status is 0 only when every file did. */
#include <stdio.h>

#include "webchannel.h"

/* Runs on the workers, possibly on several at once: it only writes. */
static int show(int finished, long long done, long long total, int job, void* user) {
    (void)job;
    if (total > 0) fprintf(stderr, "%s: %d verified, %lld of %lld bytes\n", (const char*)user, finished, done, total);
    return 0; /* anything else would cancel the batch */
}

/* Prints the channel's last error for `what`. */
static void complain(webchannel* channel, const char* what) {
    char message[512];
    size_t length = 0;
    int code = webchannel_error(channel, message, sizeof message, &length);
    fprintf(stderr, "%s: error %d: %s\n", what, code, length > 0 ? message : webchannel_result_text(code));
}

int main(int argc, char** argv) {
    if (argc < 4 || (argc - 1) % 3 != 0) {
        fprintf(stderr, "usage: %s URL FILE SHA256 [URL FILE SHA256]...\n", argv[0]);
        return 2;
    }
    webchannel* channel = webchannel_create();
    if (channel == NULL || webchannel_init(channel, 4) != 0) {
        fprintf(stderr, "%s: no usable channel\n", argv[0]);
        webchannel_destroy(channel);
        return 2;
    }
    webchannel_set_progress(channel, show, argv[0]);

    /* The library numbers the jobs it accepts in the order they came. */
    const char* accepted[(argc - 1) / 3];
    int jobs = 0, refused = 0;
    for (int i = 1; i + 2 < argc; i += 3) {
        int added = webchannel_add_job(channel, argv[i], argv[i + 1], 0, argv[i + 2], "sha256");
        if (added == 0) accepted[jobs++] = argv[i + 1];
        else if (added == 3001) printf("up to date %s\n", argv[i + 1]);
        else {
            complain(channel, argv[i]);
            ++refused;
        }
    }
    int pending = jobs > 0 ? webchannel_run_batch(channel, 1) : 0;
    for (int job; (job = webchannel_next_downloaded(channel)) >= 0;) printf("verified %s\n", accepted[job]);
    if (pending != 0) complain(channel, "batch");
    webchannel_destroy(channel);
    return pending == 0 && refused == 0 ? 0 : 1;
}
