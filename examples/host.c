/* A small Tessalo host: indexes the file named on the command line, prints its
 * media information and key timestamps, and ends.
 *   cc -std=c99 host.c $(pkg-config --cflags --libs tessalo) */
#define _POSIX_C_SOURCE 200809L
#include <inttypes.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <time.h>

#include <tessalo.h>

/* The callback runs on a library thread: it only notes the event that ends
 * the walk and wakes main(), which does the rest. */
static pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;
static pthread_cond_t changed = PTHREAD_COND_INITIALIZER;
static int32_t outcome = -1;

static int32_t on_event(void* user, int32_t event) {
    (void)user;
    if (event == kHostEventMediaInfo) return 0; /* accepted; the walk goes on */
    pthread_mutex_lock(&lock);
    if (outcome < 0) outcome = event; /* index ready, or why the file was refused */
    pthread_cond_signal(&changed);
    pthread_mutex_unlock(&lock);
    return 0;
}

int main(int argc, char** argv) {
    if (argc != 2) {
        fprintf(stderr, "usage: %s FILE.mp4\n", argv[0]);
        return 2;
    }
    void* t = TSL_CreateTessalo(NULL, on_event);
    if (!t || !TSL_StartPic(t, argv[1])) {
        fprintf(stderr, "cannot start the library\n");
        TSL_DestoryTessalo(t);
        return 1;
    }

    /* A file without video packets ends the walk with no event: bound the wait. */
    struct timespec until;
    clock_gettime(CLOCK_REALTIME, &until);
    until.tv_sec += 60;
    pthread_mutex_lock(&lock);
    while (outcome < 0 && pthread_cond_timedwait(&changed, &lock, &until) == 0) {
    }
    const int32_t event = outcome;
    pthread_mutex_unlock(&lock);

    int status = 1;
    if (event == kHostEventIndexReady) {
        TessaloMediaInfo info;
        TSL_GetMediaInfo(t, &info);
        printf("video %dx%d, %d fps; duration %.0f ms\n", info.width, info.height, info.frameRate, info.durationMs);
        if (info.sampleRate > 0)
            printf("audio %d Hz, %d channels\n", info.sampleRate, info.channels & 0xFFFF);
        else
            printf("no audio\n");

        const int32_t count = TSL_GetKeyPtsCount(t);
        int64_t* keys = malloc((size_t)(count > 0 ? count : 1) * sizeof *keys);
        if (keys) {
            const int32_t n = TSL_GetKeyPts(t, keys);
            for (int32_t i = 0; i < n; ++i)
                printf("key %" PRId64 " ms: %d pictures\n", keys[i], TSL_GetPtsCountByKeyPts(t, keys[i]));
            free(keys);
            status = 0;
        }
    } else if (event < 0) {
        fprintf(stderr, "%s: no answer from the library\n", argv[1]);
    } else {
        fprintf(stderr, "%s: refused (event %d)\n", argv[1], event);
    }

    TSL_DestoryTessalo(t); /* never from inside the callback */
    return status;
}
